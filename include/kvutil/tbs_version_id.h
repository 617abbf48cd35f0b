#ifndef KVUTIL_TBS_VERSION_ID_H
#define KVUTIL_TBS_VERSION_ID_H

#include <kvutil/export.h>

/// @file
/// The version line of the library, for C and C++. A program that prints the lines of all its
/// components gets one aligned table:
///
///     libkvutil                         1.0.0.0 (Tue Mar 15 14:05:09 2011)
///
/// The version and the build's date, in UTC, are fixed when the library is built. The shared object
/// also carries an identification block in its section ".comment", which `what` and
/// `readelf --string-dump=.comment` show.
/// @par Thread-safety
/// Any thread may call either function at any time.

#ifdef __cplusplus
extern "C" {
#endif

/// Writes the version line and a terminating zero: the component's name, padded with blanks to 33
/// columns, a blank, the version's four numbers, a blank, the date in parentheses, and a newline.
/// Never throws.
/// @param buf  room for at least 33 + 1 + the version's length + 2 + 24 + 2 characters and the
///             terminator; 128 bytes are enough for every version
/// @return     the number of characters written, without the terminator; -1 when `buf` is null
KVUTIL_EXPORT int libkvutil_sprintf_verid(char* buf);

/// Writes the same line to standard output. Never throws.
/// @return  what printf() returns: the number of characters, negative when writing failed
KVUTIL_EXPORT int libkvutil_print_verid(void);

#ifdef __cplusplus
}
#endif

#endif
