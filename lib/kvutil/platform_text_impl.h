#ifndef KVUTIL_PLATFORM_TEXT_IMPL_H
#define KVUTIL_PLATFORM_TEXT_IMPL_H

#include <kvutil/critsec_lock.h>
#include <kvutil/ustring.h>

#include <string>

namespace Kvl {

/// Held while the C library looks an error up in the catalogue of the program's language, whose own
/// locks no fork() waits for.
extern const CriticalSectionLock error_text_lock;

/// What the platform calls something, a path or an error, as text for a message: decoded from the
/// platform's charset, with the substitution character for what is malformed, so that one odd byte
/// does not empty the message. Bytes that mean nothing in that charset are shown as UTF-8.
/// @throws std::bad_alloc  no memory for the text
UString platform_text(const std::string& bytes);

/// The system's text for an error number.
/// @throws std::bad_alloc  no memory for the text
UString error_text(int error);

}  // namespace Kvl

#endif
