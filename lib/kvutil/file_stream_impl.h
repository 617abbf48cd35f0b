#ifndef KVUTIL_FILE_STREAM_IMPL_H
#define KVUTIL_FILE_STREAM_IMPL_H

#include "descriptor_impl.h"
#include "kvutil_msg_impl.h"

#include <cstdio>
#include <span>
#include <string>

namespace Kvl {

/// A file operation failed: one of the messages that name the file and the system's reason.
/// @param error  the `errno` of the operation
[[noreturn]] void fail_on_file(kvutil_msg_t message, const std::string& path, int error);

/// A C stream over a descriptor, used by one thread at a time.
///
/// It calls the system through the table of system calls, and a signal that arrives while it writes
/// is no failure: the C library's own streams would lose what they have buffered.
/// @param descriptor  taken over, also when there is no stream
/// @param mode        "r" or "w"
/// @param buffer      the stream's buffer, which must outlive it
/// @return            the caller's to close
/// @throws std::bad_alloc  no memory for it
std::FILE* stream_over(descriptor_t descriptor, const char* mode, std::span<char> buffer);

}  // namespace Kvl

#endif
