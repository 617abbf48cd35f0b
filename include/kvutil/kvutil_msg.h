#ifndef KVUTIL_KVUTIL_MSG_H
#define KVUTIL_KVUTIL_MSG_H

#include <kvutil/export.h>

/// The library's message catalogue: the texts of every error that it reports.
///
/// Entry 0 is the header, the catalogue's name and the number of messages ("kvutil 21"). Entries 1
/// to 21 are printf-style formats in UTF-8, each beginning with its identifier: "PLXSV", 0650 plus
/// the index in four digits, "E". Programs may build messages on it too:
/// `UMessage(kvutil, 15, path, reason)`. A translation keeps index, identifier and the conversions.
///
/// Deliberate: the entries can be written, so that a program can put its own wording in place.
/// @par Thread-safety
/// Constant-initialised and only read by the library. A program that replaces entries does so
/// before other threads render messages.
extern KVUTIL_EXPORT const char* kvutil[22];

#endif
