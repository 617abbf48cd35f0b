#ifndef KVUTIL_SELECTOR_H
#define KVUTIL_SELECTOR_H

/// @file
/// The textual address of a resource: its parser, its text forms and the escapes of its segments.

#include <kvutil/export.h>
#include <kvutil/ustring.h>
#include <kvutil/xmltag.h>

#include <string>
#include <vector>

namespace Kvl {

namespace SelectorImpl {
struct fields_t;
}

/// The address of one resource of the server: a provider domain, a namespace, for repository
/// selectors a resource type, a name and a repository. The text that the constructor reads and
/// to_string_with_domain() writes is
/// @verbatim
/// selector        = namespace-field ":" ( repository           ; dbset, userdb, vob
///                                       / name "@" repository ) ; any other namespace
/// namespace-field = [ domain [ "." namespace [ "." resource-type ] ] ]
/// domain          = "vd" / "ob" / "<invalid>"
/// namespace       = one of the 52 texts of namespace_t
/// resource-type   = a well-known "RES:" name                   ; only after the namespace "repo"
/// name            = *unit                                      ; up to the first "@" after the ":"
/// repository      = 1*unit
/// @endverbatim
/// as in `vd.file:/src/main.c@/vobs/proj`, `vd.vob:/vobs/proj` and `vd.repo.vob:@/vobs/proj`. The
/// name is empty only where the resource type is `vob`, `ob-dbset` or `ob-userdb`. A field that the
/// text leaves out has its nil value.
///
/// Deliberate, because stored and exchanged texts rely on it: neither the name nor the repository
/// is decoded; the first "@" ends the name even after an escape, so a name that holds "%@" or "@@"
/// is cut there; empty pieces of the namespace field are dropped, not counted. The whole list
/// stands in docs/selector-grammar.md.
///
/// Any operation may throw std::bad_alloc, when memory or the 2^31 - 1 units of a text run out,
/// with every object as it was before.
/// @par Thread-safety
/// Distinct selectors may be used at once, and so may the static operations. One selector must not
/// be used by two threads without a lock of the caller's: selector() and to_string_with_domain()
/// write its cache.
/// @see docs/selector-grammar.md
class KVUTIL_EXPORT Selector {
public:
    /// What kind of thing a selector addresses. The values are exchanged and stored: never
    /// renumbered.
    enum namespace_t : int {
/// A row of the namespaces: here an enumerator.
#define KVUTIL_SELECTOR_NAMESPACE(value, enumerator, text) enumerator = value,
#include <kvutil/selector_namespaces.def>
#undef KVUTIL_SELECTOR_NAMESPACE
    };

    /// Which provider serves the resource.
    enum provider_domain_t : int {
/// A row of the provider domains: here an enumerator.
#define KVUTIL_SELECTOR_DOMAIN(value, enumerator, text) enumerator = value,
#include <kvutil/selector_domains.def>
#undef KVUTIL_SELECTOR_DOMAIN
    };

    static const UString NAMESPACE_FIELD_SEP;  ///< ":", ends the namespace field
    static const UString DOMAIN_FIELD_SEP;     ///< ".", between the pieces of the namespace field
    static const UString REPO_FIELD_SEP;       ///< "@", introduces the repository
    static const UString SEGMENT_SEP;          ///< "/", between the segments of a name
    static const UString OTHER_SEGMENT_SEP;  ///< "\", escaped in a segment like "/", splits nothing
    static const UString ESCAPE_CHAR;        ///< "%", starts an escape in a segment

    /// The texts that encode_segment() escapes, in the order "%", ":", "@", "/", "\".
    /// Deliberate: there is no "." among them, a dot inside a name is written as it stands.
    static const UString g_delimiters[5];
    static constexpr int g_delimiters_length = 5;  ///< the number of g_delimiters

    /// The nil selector: NS_NONE, PD_NONE, resource type 0, no name, no repository.
    Selector();

    /// Parses a selector. Not explicit, so that a text can stand where a selector is wanted.
    /// @param text  as in the grammar above; the namespace field matches case-sensitively
    /// @throws StateException PLXSV0671E with `text` and the first of these that holds, in this
    ///   order; a rejected text leaves nothing behind, in the XML registry either
    ///   - `missing namespace seperator: ":"` [sic]: it has no ":"
    ///   - `unknown provider domain: ` and the first piece of the namespace field
    ///   - `unknown namespace: ` and the second piece
    ///   - `unknown resource type: ` and the third piece, after the namespace "repo"
    ///   - `extra segment before name and repository: ` and the first piece left over
    ///   - `no name or repository segments`: it ends with the ":"
    ///   - `missing repository seperator: "@"` [sic]: there is no "@" after the ":"
    ///   - `no name for non-repository resource type`: the "@" follows the ":" directly
    ///   - `no repository segment`: it ends with that "@"
    Selector(const UString& text);

    /// The selector of these fields, as given: nothing is checked, escaped or normalised.
    /// @param ns             the namespace
    /// @param domain         the provider domain
    /// @param resource_type  the id of the well-known tag for the kind of repository when `ns` is
    ///                       NS_REPO, else 0
    /// @param name           the name, its segments encoded
    /// @param repository     the repository
    Selector(namespace_t ns, provider_domain_t domain, XmlTag::Id resource_type,
             const UString& name, const UString& repository);

    Selector(const Selector& o) = default;      ///< Copies the cached text too.
    Selector(Selector&& o) noexcept = default;  ///< Leaves `o` valid, its fields unspecified.
    Selector& operator=(const Selector& o);     ///< Unchanged when it throws.
    Selector& operator=(Selector&& o) noexcept = default;  ///< Leaves `o` as the move above.
    ~Selector() = default;                                 ///< Never throws.

    /// @return the namespace; NS_NONE when the text gave none
    namespace_t ns() const noexcept
    {
        return ns_;
    }

    /// @return the provider domain; PD_NONE when the text gave none
    provider_domain_t domain() const noexcept
    {
        return domain_;
    }

    /// @return the id of the well-known tag that names the kind of repository; 0 for none
    XmlTag::Id resource_type() const noexcept
    {
        return resource_type_;
    }

    /// @return the name as written, escapes kept; empty for none
    const UString& name() const noexcept
    {
        return name_;
    }

    /// @return the repository as written; empty for none
    const UString& repository() const noexcept
    {
        return repository_;
    }

    /// Whether the selector addresses nothing. Never throws.
    /// @return true when the namespace is NS_DEFAULT or NS_NONE, the domain PD_NONE, the resource
    ///         type 0, and name and repository are empty
    bool is_nil() const noexcept;

    /// The full text form, which the constructor parses. A selector that was parsed, has the domain
    /// vd or ob and no pseudo-namespace comes back with the same fields.
    /// Deliberate: it shares one cache with selector(), so whichever of the two runs first on a
    /// selector decides what both return from then on; use a fresh copy for each when both are
    /// wanted. The domain "<invalid>" is not written. A pseudo-namespace (NS_DEFAULT, NS_INVALID,
    /// NS_NONE) is not written either: `ob:x`. A resource type without a well-known tag is left
    /// out.
    /// @return the text; empty when no field has one
    UString to_string_with_domain() const;

    /// The short text form, which the constructor does not read: the namespace first, the domain in
    /// front of the repository, as in
    /// @verbatim
    /// file:/src/main.c@vd./vobs/proj
    /// repo/vob:@vd./vobs/proj
    /// @endverbatim
    /// Deliberate: it shares its cache with to_string_with_domain(), see there.
    /// @return the text; empty for a pseudo-namespace unless a text is cached
    UString selector() const;

    /// The selector of something below this one's name: the segments of both, joined with "/".
    /// Deliberate: this normalises the name, which then neither begins nor ends with "/" and holds
    /// no "//": `/src` with the child `a.c` is `src/a.c`.
    /// @param child_name  one or more segments, already encoded; empty adds none
    /// @param ns          the namespace of the result; NS_NONE keeps this one's
    Selector child(const UString& child_name, namespace_t ns = NS_NONE) const;

    /// The selector one level up. It loses the first of these that it has: the last segment of the
    /// name, the last segment of the repository, the resource type, the namespace, the domain. So
    /// repeated calls reach the nil selector, which is its own parent.
    /// Deliberate: what is shortened is normalised as by child(); a name or repository of nothing
    /// but separators has no segment and is emptied besides.
    Selector parent() const;

    /// This selector with another name.
    /// @param name  taken as given: neither encoded nor normalised
    Selector recompose_with_name(const UString& name) const;

    /// The text of a namespace. Never throws.
    /// @param ns  a namespace
    /// @return its text; the empty text for a value outside the enumeration
    static const UString& namespace_string(namespace_t ns) noexcept;

    /// The text of a provider domain. Never throws.
    /// @param pd  a provider domain
    /// @return its text; the empty text for a value outside the enumeration
    static const UString& provider_domain_string(provider_domain_t pd) noexcept;

    /// The pieces of a text between separators, not decoded. A separator after "%" is escaped: it
    /// stays inside its piece, with the "%". Empty pieces are dropped.
    /// Deliberate: a separator at position 1 always splits, even after a leading "%"; an escaped
    /// separator with another one directly after it takes its piece away (`a%//b` gives only `b`).
    /// @param text       the text to split
    /// @param separator  one or more units; an empty one is never found
    /// @return the pieces in order; none when the text is empty or holds only separators
    static std::vector<UString> split_segments(const UString& text, const UString& separator);

    /// A text with a part of it replaced wherever it occurs.
    /// @param source  the text to copy
    /// @param from    what to replace, found as by UString::find(); empty is never found
    /// @param to      what to put there; never searched again
    /// @return `source` with every occurrence of `from` replaced, left to right, without overlap
    static UString replaceAll(const UString& source, const UString& from, const UString& to);

    /// A run of segments as one text.
    /// @param segments   the segments
    /// @param separator  what to write between two of them
    /// @param start      index of the first one wanted; past the last gives the empty text
    /// @param count      how many at most; what runs past the last is cut without failure
    /// @return the segments from `start` on, `separator` between neighbours
    static UString join_segments(const std::vector<UString>& segments, const UString& separator,
                                 unsigned int start = 0, unsigned int count = UString::npos);

    /// Escapes a segment, so that it can stand in a name: "%" goes before each of g_delimiters.
    /// Deliberate: a doubled at-sign stays as it is, because "@@" is a marker that must survive
    /// inside a segment; a single one becomes "%@" (`@@@` becomes `@@%@`).
    /// @param segment  any text
    /// @return the escaped segment
    static UString encode_segment(const UString& segment);

    /// Removes the escapes of encode_segment().
    /// Deliberate: as if "%%" were replaced in the whole text first and the other escapes after it,
    /// so a text that no encoding produces can lose two levels: `%%:` gives `:`. What follows a "%"
    /// and is no delimiter is kept with it. For every segment without "%@@" this is the exact
    /// inverse; "%@@" is encoded to "%%@@" and comes back as "@@".
    /// @param text  an escaped segment, or any text
    /// @return the text without its escapes
    static UString decode_string(const UString& text);

private:
    explicit Selector(const SelectorImpl::fields_t& fields);

    UString full_text() const;
    UString short_text() const;
    UString keep(UString&& text) const;
    void generalise() noexcept;

    namespace_t ns_ = NS_NONE;
    provider_domain_t domain_ = PD_NONE;
    XmlTag::Id resource_type_ = 0;
    UString name_;
    UString repository_;
    mutable UString text_cache_;        // what the first text form that was asked for gave
    mutable std::string narrow_cache_;  // a narrow form of the same, cleared together with it
};

}  // namespace Kvl

#endif
