#ifndef KVUTIL_IDENTITY_H
#define KVUTIL_IDENTITY_H

/// @file
/// Kvl::Identity by its own name.

#include <kvutil/credentials.h>

#endif
