#ifndef KVUTIL_TESTS_SUPPORT_SELECTOR_LITERAL_H
#define KVUTIL_TESTS_SUPPORT_SELECTOR_LITERAL_H

#include <kvutil/selector.h>

#include <map>
#include <ostream>
#include <string>
#include <vector>

/// The selector operations written straight from their rules, a step a line: lists, maps and
/// replacement in place. Slow on purpose; the library's own must give the same on every input.
namespace literal {

using Kvl::Selector;
using Kvl::UString;
using Kvl::XmlTag;

inline std::vector<UString> split_segments(const UString& text, const UString& separator)
{
    std::vector<UString> result;
    unsigned int start = 0;
    unsigned int search_from = 0;
    while (!text.empty()) {
        const int found = text.find(separator, search_from);
        if (found < 0) {
            if (start < text.length())
                result.push_back(text.substr(start));
            break;
        }
        const auto at = static_cast<unsigned int>(found);
        if (at == search_from) {
            start = search_from = at + separator.length();
        } else if (at != 1 && text[at - 1] == u'%') {
            search_from = at + separator.length();
        } else {
            result.push_back(text.substr(start, at - start));
            start = search_from = at + separator.length();
        }
    }
    return result;
}

inline UString replace_all(const UString& source, const UString& from, const UString& to)
{
    UString result(source);
    int at = result.find(from, 0);
    while (at >= 0) {
        result.replace(static_cast<unsigned int>(at), from.length(), to);
        at = result.find(from, static_cast<unsigned int>(at) + to.length());
    }
    return result;
}

inline UString encode_segment(const UString& segment)
{
    UString result(segment);
    for (const char16_t* d : {u"%", u":", u"@", u"/", u"\\"})
        result = replace_all(result, UString(d), UString(u"%") + UString(d));
    return replace_all(result, UString(u"%@%@"), UString(u"@@"));
}

inline UString decode_string(const UString& text)
{
    UString result(text);
    for (const char16_t* d : {u"%", u":", u"@", u"/", u"\\"})
        result = replace_all(result, UString(u"%") + UString(d), UString(d));
    return result;
}

/// The fields of a selector, or the detail of its rejection.
struct outcome_t {
    int ns = Selector::NS_NONE;
    int domain = Selector::PD_NONE;
    XmlTag::Id resource_type = 0;
    UString name = {};
    UString repository = {};
    UString detail = {};

    friend bool operator==(const outcome_t& a, const outcome_t& b)
    {
        return a.ns == b.ns && a.domain == b.domain && a.resource_type == b.resource_type &&
               a.name == b.name && a.repository == b.repository && a.detail == b.detail;
    }
    friend void PrintTo(const outcome_t& o, std::ostream* out)
    {
        *out << "ns " << o.ns << ", domain " << o.domain << ", type " << o.resource_type
             << ", name '" << o.name.utf8_str() << "', repository '" << o.repository.utf8_str()
             << "', detail '" << o.detail.utf8_str() << "'";
    }
};

inline outcome_t fields(const Selector& s)
{
    return {s.ns(), s.domain(), s.resource_type(), s.name(), s.repository(), {}};
}

inline outcome_t rejected(const char16_t* reason, const UString& piece = {})
{
    outcome_t result;
    result.detail = UString(reason) + piece;
    return result;
}

inline std::map<UString, int> namespaces()
{
    std::map<UString, int> result;
    for (int ns = 0; ns < 52; ++ns)
        result[Selector::namespace_string(static_cast<Selector::namespace_t>(ns))] = ns;
    return result;
}

inline std::map<UString, int> domains()
{
    return {{u"vd", 0}, {u"ob", 1}, {u"<invalid>", 2}, {u"", 3}};
}

/// The names of the namespace "RES:" whose ids are fixed.
inline std::map<UString, XmlTag::Id> resource_types()
{
    std::map<UString, XmlTag::Id> result;
    for (const XmlTag* tag : XmlTag::g_namespace_array[16]->wk_tags)
        result[tag->simple_name()] = tag->id();
    return result;
}

inline outcome_t parse(const UString& text)
{
    static const auto domain_map = domains();
    static const auto namespace_map = namespaces();
    static const auto type_map = resource_types();
    outcome_t result;

    const int colon = text.find(UString(u":"));
    if (colon < 0)
        return rejected(u"missing namespace seperator: \":\"");

    const UString field = text.substr(0, static_cast<unsigned int>(colon));
    const std::vector<UString> pieces = split_segments(field, UString(u"."));
    auto piece = pieces.begin();
    if (piece != pieces.end()) {
        if (domain_map.count(*piece) == 0)
            return rejected(u"unknown provider domain: ", *piece);
        result.domain = domain_map.at(*piece++);
    }
    if (piece != pieces.end()) {
        if (namespace_map.count(*piece) == 0)
            return rejected(u"unknown namespace: ", *piece);
        result.ns = namespace_map.at(*piece++);
    }
    if (piece != pieces.end() && result.ns == 38) {
        if (type_map.count(*piece) == 0)
            return rejected(u"unknown resource type: ", *piece);
        result.resource_type = type_map.at(*piece++);
    }
    if (piece != pieces.end())
        return rejected(u"extra segment before name and repository: ", *piece);

    const unsigned int p = static_cast<unsigned int>(colon) + 1;
    if (p >= text.length())
        return rejected(u"no name or repository segments");
    if (result.ns == 7 || result.ns == 43 || result.ns == 46) {
        result.repository = text.substr(p);
        return result;
    }
    const int found = text.find(UString(u"@"), p);
    if (found < 0)
        return rejected(u"missing repository seperator: \"@\"");
    const auto at = static_cast<unsigned int>(found);
    const bool is_repository = result.resource_type == 1010 || result.resource_type == 1023 ||
                               result.resource_type == 1027;
    if (at == p && !is_repository)
        return rejected(u"no name for non-repository resource type");
    result.name = text.substr(p, at - p);
    if (at + 1 >= text.length())
        return rejected(u"no repository segment");
    result.repository = text.substr(at + 1);
    return result;
}

}  // namespace literal

#endif
