#ifndef KVUTIL_KVUTIL_H
#define KVUTIL_KVUTIL_H

/// @file
/// The whole public interface, every header of the library.

#include <kvutil/critsec.h>
#include <kvutil/critsec_lock.h>
#include <kvutil/export.h>
#include <kvutil/kvutil_msg.h>

#endif
