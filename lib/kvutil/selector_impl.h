#ifndef KVUTIL_SELECTOR_IMPL_H
#define KVUTIL_SELECTOR_IMPL_H

#include <kvutil/selector.h>

#include <array>
#include <cstddef>
#include <string_view>
#include <utility>

namespace Kvl {
namespace SelectorImpl {

// The characters that the public separators and delimiters are made of.
inline constexpr char16_t NAMESPACE_FIELD_UNIT = u':';
inline constexpr char16_t DOMAIN_FIELD_UNIT = u'.';
inline constexpr char16_t REPO_FIELD_UNIT = u'@';
inline constexpr char16_t SEGMENT_UNIT = u'/';
inline constexpr char16_t OTHER_SEGMENT_UNIT = u'\\';
inline constexpr char16_t ESCAPE_UNIT = u'%';
inline constexpr char16_t DELIMITERS[Selector::g_delimiters_length] = {
    ESCAPE_UNIT, NAMESPACE_FIELD_UNIT, REPO_FIELD_UNIT, SEGMENT_UNIT, OTHER_SEGMENT_UNIT};

inline constexpr std::size_t NUM_NAMESPACES = 0
#define KVUTIL_SELECTOR_NAMESPACE(value, enumerator, text) +1
#include <kvutil/selector_namespaces.def>
#undef KVUTIL_SELECTOR_NAMESPACE
    ;

inline constexpr std::size_t NUM_DOMAINS = 0
#define KVUTIL_SELECTOR_DOMAIN(value, enumerator, text) +1
#include <kvutil/selector_domains.def>
#undef KVUTIL_SELECTOR_DOMAIN
    ;

/// A closed vocabulary, both ways: the values by text, ordered by text, and the texts by value. In
/// one piece, because to allocate and link the nodes of a std::map takes its time at load.
template <class Value, std::size_t size>
struct vocabulary_t {
    std::array<std::pair<UString, Value>, size> values;
    UString texts[size];
};

typedef vocabulary_t<Selector::namespace_t, NUM_NAMESPACES> namespace_vocabulary_t;
typedef vocabulary_t<Selector::provider_domain_t, NUM_DOMAINS> domain_vocabulary_t;

// Filled by init_maps while the library is loaded and never changed afterwards. Never destroyed
// either: a thread that runs past the end of main() may still print a selector.
extern namespace_vocabulary_t& g_namespace_id_map;
extern domain_vocabulary_t& g_provider_domain_string;

/// Its construction fills both vocabularies from their rows. It holds no data.
class InitMaps {
public:
    InitMaps();
};

extern const InitMaps init_maps;

/// What the maps give, without a UString to look for. Never throws.
/// @return the value of `text`, or null when no row has it
const Selector::namespace_t* find_namespace(std::u16string_view text) noexcept;
const Selector::provider_domain_t* find_domain(std::u16string_view text) noexcept;  ///< @overload

/// What the parser reads: the fields of a selector, its texts as parts of the parsed one.
struct fields_t {
    Selector::namespace_t ns = Selector::NS_NONE;
    Selector::provider_domain_t domain = Selector::PD_NONE;
    XmlTag::Id resource_type = 0;
    std::u16string_view name;
    std::u16string_view repository;
};

}  // namespace SelectorImpl
}  // namespace Kvl

#endif
