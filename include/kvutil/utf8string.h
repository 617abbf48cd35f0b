#ifndef KVUTIL_UTF8STRING_H
#define KVUTIL_UTF8STRING_H

/// @file
/// Kvl::Utf8String, which stands with the text type it converts to.

#include <kvutil/ustring.h>

#endif
