// Every object of the library that runs code at load or unload, and nothing else.
// Reading order is construction order; unload runs it backwards.

#include "xmltag_impl.h"

#include <kvutil/umessage.h>

#include <unicode/uclean.h>

namespace Kvl {

// ICU first, so that a memory fault later on cannot leave it half initialised for good.
[[maybe_unused]] static const bool icu_is_ready = [] {
    UErrorCode status = U_ZERO_ERROR;
    u_init(&status);
    return U_SUCCESS(status) != 0;
}();

// XML vocabulary, complete before anything looks a tag up.
constinit XmlTagImpl::storage_t XmlTagImpl::g_storage;
const UString XmlTag::EMPTY_NS_PREFIX;
[[maybe_unused]] static const bool xml_vocabulary_is_loaded = XmlTagImpl::load();

// Messages. The argument exists before any code runs, because a failure at load may name it.
constinit const UMessage::Arg UMessage::Arg::nil;
const UMessage UMessage::nil;

}  // namespace Kvl
