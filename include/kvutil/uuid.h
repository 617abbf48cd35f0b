#ifndef KVUTIL_UUID_H
#define KVUTIL_UUID_H

/// @file
/// Kvl::Uuid under its own name.

#include <kvutil/oid.h>

#endif
