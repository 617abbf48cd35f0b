// Every object of the library that runs code at load or unload, and nothing else.
// Reading order is construction order; unload runs it backwards.

#include "arm_buffer_impl.h"
#include "converter_pool_impl.h"
#include "critsec_lock_impl.h"
#include "davtime_impl.h"
#include "fileutl_impl.h"
#include "platform_text_impl.h"
#include "pname_impl.h"
#include "selector_impl.h"
#include "sys_calls_impl.h"
#include "undying_impl.h"
#include "ustring_impl.h"
#include "xmltag_impl.h"

#include <kvutil/critsec.h>
#include <kvutil/umessage.h>

#include <unicode/uclean.h>

#include <cstdint>
#include <memory>

#include <sys/mman.h>
#include <unistd.h>

// The linker's names for the ends of what is zero until the library is loaded.
extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier,clang-diagnostic-reserved-identifier)
[[gnu::visibility("hidden")]] extern char __bss_start[];
[[gnu::visibility("hidden")]] extern char _end[];
// NOLINTEND(bugprone-reserved-identifier,clang-diagnostic-reserved-identifier)
}

namespace Kvl {

// NOLINTBEGIN(cert-err58-cpp): a program whose libraries get no memory at load cannot start.

// Nearly all of that is written now, the tags alone are 25 pages. To ask for all pages at once
// costs half of what a page fault for each does. Where the system has no such call, or no memory
// now, the faults come one by one.
[[maybe_unused]] static const bool pages_are_there = [] {
#ifdef MADV_POPULATE_WRITE
    const auto page = static_cast<std::uintptr_t>(getpagesize());
    char* const first = __bss_start - reinterpret_cast<std::uintptr_t>(__bss_start) % page;
    const auto size_bytes = static_cast<std::size_t>(_end - first);
    return sys_calls.madvise(first, size_bytes, MADV_POPULATE_WRITE) == 0;
#else
    return false;
#endif
}();

// Locks around what ICU and the C library guard with locks of their own, for which no fork() waits.
// The oldest ones: whoever holds another lock may convert a text or describe an error.
static constinit CriticalSectionImpl::immortal_mutex_t icu_mutex;
const CriticalSectionLock icu_lock(icu_mutex);
static constinit CriticalSectionImpl::immortal_mutex_t error_text_mutex;
const CriticalSectionLock error_text_lock(error_text_mutex);

// ICU first of what can fail, so that a memory fault later on cannot leave it half initialised for
// good.
[[maybe_unused]] static const bool icu_is_ready = [] {
    const CriticalSection section(icu_lock);
    UErrorCode status = U_ZERO_ERROR;
    u_init(&status);
    return U_SUCCESS(status) != 0;
}();

// XML vocabulary, complete before anything looks a tag up.
constinit XmlTagImpl::storage_t XmlTagImpl::g_storage;
const UString XmlTag::EMPTY_NS_PREFIX;
static constinit CriticalSectionImpl::immortal_mutex_t dynamic_tags_mutex;
const CriticalSectionLock XmlTagImpl::dynamic_tags_lock(dynamic_tags_mutex);
[[maybe_unused]] static const bool xml_vocabulary_is_loaded = XmlTagImpl::load();

// Messages. The argument exists before any code runs, because a failure at load may name it.
constinit const UMessage::Arg UMessage::Arg::nil;
const UMessage UMessage::nil;

// Selector vocabulary: its tables, filled, then the separators and delimiters. The tables are never
// destroyed; the other texts stand on constants and stay readable after their destruction.
static constinit undying_t<SelectorImpl::namespace_vocabulary_t> namespaces;
static constinit undying_t<SelectorImpl::domain_vocabulary_t> provider_domains;

namespace SelectorImpl {
namespace_vocabulary_t& g_namespace_id_map = *std::construct_at(&namespaces.value);
domain_vocabulary_t& g_provider_domain_string = *std::construct_at(&provider_domains.value);
const InitMaps init_maps;
}  // namespace SelectorImpl

template <char16_t unit>
static constexpr char16_t TEXT_OF[] = {unit, 0};

template <char16_t unit>
static UString text_of()
{
    return constant_text_t::make(TEXT_OF<unit>);
}

const UString Selector::NAMESPACE_FIELD_SEP = text_of<SelectorImpl::NAMESPACE_FIELD_UNIT>();
const UString Selector::DOMAIN_FIELD_SEP = text_of<SelectorImpl::DOMAIN_FIELD_UNIT>();
const UString Selector::REPO_FIELD_SEP = text_of<SelectorImpl::REPO_FIELD_UNIT>();
const UString Selector::SEGMENT_SEP = text_of<SelectorImpl::SEGMENT_UNIT>();
const UString Selector::OTHER_SEGMENT_SEP = text_of<SelectorImpl::OTHER_SEGMENT_UNIT>();
const UString Selector::ESCAPE_CHAR = text_of<SelectorImpl::ESCAPE_UNIT>();
const UString Selector::g_delimiters[] = {
    text_of<SelectorImpl::DELIMITERS[0]>(), text_of<SelectorImpl::DELIMITERS[1]>(),
    text_of<SelectorImpl::DELIMITERS[2]>(), text_of<SelectorImpl::DELIMITERS[3]>(),
    text_of<SelectorImpl::DELIMITERS[4]>()};

// Paths. Not made on first use: a fork() meanwhile would leave its guard to the child as one that
// somebody is just making, for ever.
const UString PnameImpl::PNAME_SEP_CHARSET_USTRING = constant_text_t::make(u"/");

// Temporary files: the table, its public lock, and the one that keeps it whole over a fork().
constinit undying_t<FileutlImpl::table_t> FileutlImpl::tmp_table;
[[maybe_unused]] static const void* const tmp_table_is_made =
    std::construct_at(&FileutlImpl::tmp_table.value);
static constinit CriticalSectionImpl::unattended_mutex_t tmp_table_mutex;
const CriticalSectionLock Fileutl::g_lock(tmp_table_mutex);
static constinit CriticalSectionImpl::immortal_mutex_t tmp_table_change_mutex;
const CriticalSectionLock FileutlImpl::change_lock(tmp_table_change_mutex);

// DAV time.
static constinit CriticalSectionImpl::immortal_mutex_t clib_mutex;
const CriticalSectionLock DavTimeImpl::clib_lock(clib_mutex);

// ARM: the pool of texts.
constinit undying_t<ArmBuffer::str_pool_t> ArmImpl::str_pool;
[[maybe_unused]] static const void* const str_pool_is_made =
    std::construct_at(&ArmImpl::str_pool.value);
static constinit CriticalSectionImpl::immortal_mutex_t str_pool_mutex;
const CriticalSectionLock ArmImpl::str_pool_lock(str_pool_mutex);

// NOLINTEND(cert-err58-cpp)

}  // namespace Kvl
