#include "selector_impl.h"

#include "failure_impl.h"
#include "search_impl.h"
#include "storage_impl.h"
#include "unit_block_impl.h"
#include "ustring_impl.h"
#include "xmltag_impl.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <span>
#include <utility>
#include <vector>

namespace Kvl {

namespace {

using namespace SelectorImpl;  // the vocabulary and fields_t
using text_view_t = std::u16string_view;

// Nothing here edits a text in place: replacing within a text takes time that grows with the
// square of its length. Each text is measured first and then written once, into its own units.

/// Most names fit into the text object itself, which spares ICU a call.
template <class Write>
UString text_of_few(Write write)
{
    UString text;
    char16_t* const units = writable(text);
    set_length(text, static_cast<std::size_t>(write(units) - units));
    return text;
}

/// The text that `write` writes: at most `bound` units, from the place it is given up to the one it
/// returns.
template <class Write>
UString text_of_at_most(std::uint64_t bound, Write write)
{
    return bound <= INLINE_UNITS ? text_of_few(write) : owned_text_t::make_at_most(bound, write);
}

UString to_text(text_view_t units)
{
    return text_of_at_most(units.size(), [units](char16_t* out) {
        return std::copy(units.begin(), units.end(), out);
    });
}

struct counter_t {
    std::uint64_t length = 0;

    void put(char16_t) { ++length; }
    void put(text_view_t units) { length += units.size(); }
    void put(const UString& text) { put(view_of(text)); }
};

struct writer_t {
    char16_t* out;

    void put(char16_t unit) { *out++ = unit; }
    void put(text_view_t units) { out = std::copy(units.begin(), units.end(), out); }
    void put(const UString& text) { put(view_of(text)); }
};

/// The text that `compose` puts into the sink it is given: first a counter, then a writer.
template <class Compose>
UString composed(Compose compose)
{
    counter_t counter;
    compose(counter);
    return text_of_at_most(counter.length, [&](char16_t* out) {
        writer_t writer{out};
        compose(writer);
        return writer.out;
    });
}

// ---- Splitting -------------------------------------------------------------------------------

/// The pieces of a text between separators, one at a time, so that the parser needs no list.
/// `Find` gives the position of the first separator at or after a position, or npos.
template <class Find>
class Pieces {
public:
    Pieces(text_view_t text, std::size_t separator_length, Find find)
        : text_(text), separator_length_(separator_length), find_(find)
    {
    }

    /// @return whether there was one more
    bool next(text_view_t& piece)
    {
        for (;;) {
            const std::size_t at = find_(search_from_);
            if (at == text_view_t::npos)
                return take_rest(piece);
            const bool is_empty = at == search_from_;
            const bool is_escaped = !is_empty && has_escape_before(at);
            search_from_ = at + separator_length_;
            if (is_escaped)
                continue;
            const std::size_t start = std::exchange(start_, search_from_);
            // Deliberate: a separator that follows an escaped one directly counts as following a
            // separator, so what stood before both is lost. Pinned by
            // SelectorSplit.ASeparatorAfterAnEscapedOneLosesThePiece.
            if (is_empty)
                continue;
            piece = text_.substr(start, at - start);
            return true;
        }
    }

private:
    // Deliberate: a separator at position 1 splits even after '%'. Pinned by
    // SelectorSplit.PositionOneIgnoresTheEscape.
    bool has_escape_before(std::size_t at) const { return at != 1 && text_[at - 1] == ESCAPE_UNIT; }

    bool take_rest(text_view_t& piece)
    {
        piece = text_.substr(start_);
        start_ = search_from_ = text_.size();
        return !piece.empty();
    }

    text_view_t text_;
    std::size_t separator_length_;
    Find find_;
    std::size_t start_ = 0;
    std::size_t search_from_ = 0;
};

// ---- Parsing ---------------------------------------------------------------------------------

constexpr XmlTag::NsId RESOURCE_TYPES = 16;  // "RES:"

/// What is wrong with a text: the reason, and the piece that it ends with. Nothing is wrong with an
/// empty reason.
struct objection_t {
    text_view_t reason;
    text_view_t piece;

    explicit operator bool() const { return !reason.empty(); }
};

constexpr objection_t NO_OBJECTION{};

/// Reads the pieces that follow the domain and the namespace.
objection_t read_rest_of_namespace_field(auto& pieces, fields_t& fields)
{
    text_view_t piece;
    if (!pieces.next(piece))
        return NO_OBJECTION;
    if (fields.ns == Selector::NS_REPO) {
        // The name is looked up without registering it, so that a text from a client cannot grow
        // the registry. A name registered at run time is no resource type either way.
        const XmlTag* const tag =
            XmlTagImpl::find_well_known(RESOURCE_TYPES, piece.data(), piece.size());
        if (tag == nullptr)
            return {u"unknown resource type: ", piece};
        fields.resource_type = tag->id();
        if (!pieces.next(piece))
            return NO_OBJECTION;
    }
    return {u"extra segment before name and repository: ", piece};
}

objection_t read_namespace_field(text_view_t field, fields_t& fields)
{
    const auto find_dot = [field](std::size_t from) {
        return find_unit(field, DOMAIN_FIELD_UNIT, from);
    };
    Pieces pieces(field, 1, find_dot);
    text_view_t piece;
    if (!pieces.next(piece))
        return NO_OBJECTION;
    const auto* const domain = find_domain(piece);
    if (domain == nullptr)
        return {u"unknown provider domain: ", piece};
    fields.domain = *domain;
    if (!pieces.next(piece))
        return NO_OBJECTION;
    const auto* const ns = find_namespace(piece);
    if (ns == nullptr)
        return {u"unknown namespace: ", piece};
    fields.ns = *ns;
    return read_rest_of_namespace_field(pieces, fields);
}

bool has_no_name(Selector::namespace_t ns)
{
    return ns == Selector::NS_DBSET || ns == Selector::NS_USERDB || ns == Selector::NS_VOB;
}

bool is_repository_type(XmlTag::Id id)
{
    return id == WkTagId::RES_OB_DBSET || id == WkTagId::RES_OB_USERDB || id == WkTagId::RES_VOB;
}

// The first '@' ends the name even after a '%'. Deliberate: the name is never decoded here.
objection_t read_name_and_repository(text_view_t rest, fields_t& fields)
{
    const std::size_t at = find_unit(rest, REPO_FIELD_UNIT);
    if (at == text_view_t::npos)
        return {u"missing repository seperator: \"@\"", {}};  // [sic]
    if (at == 0 && !is_repository_type(fields.resource_type))
        return {u"no name for non-repository resource type", {}};
    fields.name = rest.substr(0, at);
    fields.repository = rest.substr(at + 1);
    if (fields.repository.empty())
        return {u"no repository segment", {}};
    return NO_OBJECTION;
}

/// Reads the fields up to the first objection.
objection_t parse(text_view_t text, fields_t& fields) noexcept
{
    const std::size_t colon = find_unit(text, NAMESPACE_FIELD_UNIT);
    if (colon == text_view_t::npos)
        return {u"missing namespace seperator: \":\"", {}};  // [sic]
    if (const objection_t objection = read_namespace_field(text.substr(0, colon), fields))
        return objection;
    const text_view_t rest = text.substr(colon + 1);
    if (rest.empty())
        return {u"no name or repository segments", {}};
    if (!has_no_name(fields.ns))
        return read_name_and_repository(rest, fields);
    fields.repository = rest;
    return NO_OBJECTION;
}

[[gnu::cold, gnu::noinline]] StateException rejection(const UString& text,
                                                      const objection_t& objection)
{
    const UString detail = composed([&](auto& sink) {
        sink.put(objection.reason);
        sink.put(objection.piece);
    });
    return failure<StateException>(MSG_SELECTOR_NOT_VALID, text, detail);
}

// A throw costs what it unwinds and searches, and clients send many a wrong text. So the checks
// throw nothing: here is the one place that does, in line in the constructor, the only frame
// between a rejection and the caller, with next to nothing in its tables.
[[gnu::always_inline]] inline fields_t accepted(const UString& text)
{
    fields_t fields;
    if (const objection_t objection = parse(view_of(text), fields)) [[unlikely]]
        throw rejection(text, objection);
    return fields;
}

bool is_pseudo(Selector::namespace_t ns)
{
    return ns == Selector::NS_DEFAULT || ns == Selector::NS_INVALID || ns == Selector::NS_NONE;
}

bool is_provider(Selector::provider_domain_t domain)
{
    return domain == Selector::PD_VD || domain == Selector::PD_OB;
}

/// All segments but the last, joined; empty when there is at most one.
UString without_last(const std::vector<UString>& segments)
{
    if (segments.empty())
        return {};
    return Selector::join_segments(segments, Selector::SEGMENT_SEP, 0,
                                   static_cast<unsigned int>(segments.size() - 1));
}

// ---- Printing --------------------------------------------------------------------------------

/// Puts the namespace and, for a repository, its type. A type without a well-known tag cannot come
/// from a text; it is left out, because printing never fails.
template <class Sink>
void put_namespace(const Selector& selector, char16_t separator, Sink& sink)
{
    sink.put(Selector::namespace_string(selector.ns()));
    if (selector.ns() != Selector::NS_REPO || selector.resource_type() == 0)
        return;
    const XmlTag* const type = XmlTagImpl::find_well_known(selector.resource_type());
    if (type == nullptr)
        return;
    sink.put(separator);
    sink.put(type->simple_name());
}

// ---- Escapes ---------------------------------------------------------------------------------

constexpr auto IS_DELIMITER = [] {
    std::array<bool, 128> table{};
    for (const char16_t unit : DELIMITERS)
        table[unit] = true;
    return table;
}();

constexpr bool is_delimiter(char16_t unit)
{
    return unit < IS_DELIMITER.size() && IS_DELIMITER[unit];
}

/// How many units encode() may add. Counting is dearer than room for a short segment.
std::size_t max_escapes(text_view_t segment)
{
    if (segment.size() <= 256)
        return segment.size();
    return count_units(segment, DELIMITERS[0], DELIMITERS[1], DELIMITERS[2], DELIMITERS[3],
                       DELIMITERS[4]);
}

/// Copies what needs no escape.
char16_t* copy_plain(const char16_t*& in, const char16_t* end, char16_t* out)
{
    return copy_until(in, end, out, DELIMITERS[0], DELIMITERS[1], DELIMITERS[2], DELIMITERS[3],
                      DELIMITERS[4]);
}

/// Writes the escaped segment, at most one unit more for each delimiter. The result is that of one
/// replacement a delimiter and one of "%@%@" by "@@": only two neighbouring '@' give "%@%@", and a
/// run of them pairs up from the left.
char16_t* encode(const char16_t* in, const char16_t* end, char16_t* out)
{
    for (;;) {
        out = copy_plain(in, end, out);
        if (in == end)
            return out;
        const bool is_pair = *in == REPO_FIELD_UNIT && end - in > 1 && in[1] == REPO_FIELD_UNIT;
        *out++ = is_pair ? *in++ : ESCAPE_UNIT;
        *out++ = *in++;
    }
}

/// Writes what a run of "%" leaves of itself, and of a delimiter behind it the delimiter.
char16_t* decode_run(const char16_t*& in, const char16_t* end, char16_t* out)
{
    const char16_t* const run = in;
    while (in != end && *in == ESCAPE_UNIT)
        ++in;
    const bool escapes_next = in != end && is_delimiter(*in);
    return std::fill_n(out, (in - run + 1) / 2 - escapes_next, ESCAPE_UNIT);
}

/// Writes the text without its escapes, at most as many units. The result is that of one
/// replacement a delimiter, "%%" first: that leaves k / 2 of k '%' in a row, rounded up, and the
/// last of these escapes a delimiter that follows. The replacements after the first never meet.
char16_t* decode(const char16_t* in, const char16_t* end, char16_t* out)
{
    for (;;) {
        out = copy_until(in, end, out, ESCAPE_UNIT);
        if (in == end)
            return out;
        const bool is_plain_escape = end - in > 1 && in[1] != ESCAPE_UNIT && is_delimiter(in[1]);
        if (is_plain_escape)  // nearly every one: nothing to count
            ++in;
        else
            out = decode_run(in, end, out);
    }
}

// ---- Replacing -------------------------------------------------------------------------------

/// Where a text stands in another, left to right and without overlap. A few places need no memory.
class Places {
public:
    Places(text_view_t source, text_view_t wanted)
    {
        if (wanted.empty())  // which is nowhere
            return;
        count_ = find_matches(source, wanted, few_);
        if (count_ == few_.size())
            find_rest(source, wanted);
    }

    std::span<const std::uint32_t> all() const
    {
        return many_.empty() ? std::span(few_.data(), count_) : std::span(many_);
    }

private:
    void find_rest(text_view_t source, text_view_t wanted)
    {
        many_.assign(few_.begin(), few_.end());
        while (count_ == few_.size()) {
            const std::size_t done = many_.back() + wanted.size();
            count_ = find_matches(source.substr(done), wanted, few_);
            for (const std::uint32_t at : std::span(few_.data(), count_))
                many_.push_back(static_cast<std::uint32_t>(done + at));
        }
    }

    std::array<std::uint32_t, 256> few_;
    std::size_t count_ = 0;
    std::vector<std::uint32_t> many_;
};

}  // namespace

// ---- Construction ----------------------------------------------------------------------------

Selector::Selector() = default;

[[gnu::flatten]] Selector::Selector(const UString& text) : Selector(accepted(text)) {}

Selector::Selector(const fields_t& fields)
    : ns_(fields.ns), domain_(fields.domain), resource_type_(fields.resource_type),
      name_(to_text(fields.name)), repository_(to_text(fields.repository))
{
}

Selector::Selector(namespace_t ns, provider_domain_t domain, XmlTag::Id resource_type,
                   const UString& name, const UString& repository)
    : ns_(ns), domain_(domain), resource_type_(resource_type), name_(name), repository_(repository)
{
}

Selector& Selector::operator=(const Selector& o)
{
    return *this = Selector(o);
}

bool Selector::is_nil() const noexcept
{
    return (ns_ == NS_DEFAULT || ns_ == NS_NONE) && domain_ == PD_NONE && resource_type_ == 0 &&
           name_.empty() && repository_.empty();
}

// ---- Text forms ------------------------------------------------------------------------------

UString Selector::to_string_with_domain() const
{
    return text_cache_.empty() ? keep(full_text()) : text_cache_;
}

UString Selector::selector() const
{
    return text_cache_.empty() && !is_pseudo(ns_) ? keep(short_text()) : text_cache_;
}

// The copy comes first: when it fails, the form that is cached is still undecided.
UString Selector::keep(UString&& text) const
{
    UString result(text);
    text_cache_ = std::move(text);
    return result;
}

UString Selector::full_text() const
{
    const bool is_proper = !is_pseudo(ns_);
    return composed([&](auto& sink) {
        if (is_provider(domain_)) {
            sink.put(provider_domain_string(domain_));
            sink.put(is_proper ? DOMAIN_FIELD_UNIT : NAMESPACE_FIELD_UNIT);
        }
        if (is_proper) {
            put_namespace(*this, DOMAIN_FIELD_UNIT, sink);
            sink.put(NAMESPACE_FIELD_UNIT);
        }
        sink.put(name_);
        if (!repository_.empty() && (!name_.empty() || ns_ == NS_REPO))
            sink.put(REPO_FIELD_UNIT);
        sink.put(repository_);
    });
}

UString Selector::short_text() const
{
    return composed([&](auto& sink) {
        put_namespace(*this, SEGMENT_UNIT, sink);
        sink.put(NAMESPACE_FIELD_UNIT);
        sink.put(name_);
        sink.put(REPO_FIELD_UNIT);
        if (is_provider(domain_)) {
            sink.put(provider_domain_string(domain_));
            sink.put(DOMAIN_FIELD_UNIT);
        }
        sink.put(repository_);
    });
}

// ---- Relatives -------------------------------------------------------------------------------

Selector Selector::child(const UString& child_name, namespace_t ns) const
{
    std::vector<UString> segments = split_segments(name_, SEGMENT_SEP);
    std::vector<UString> added = split_segments(child_name, SEGMENT_SEP);
    segments.insert(segments.end(), std::move_iterator(added.begin()),
                    std::move_iterator(added.end()));
    return Selector(ns == NS_NONE ? ns_ : ns, domain_, resource_type_,
                    join_segments(segments, SEGMENT_SEP), repository_);
}

// Deliberate: a name or repository that holds only separators has no segment to lose and is emptied
// on the way, or repeated calls would not end at the nil selector.
Selector Selector::parent() const
{
    const std::vector<UString> names = split_segments(name_, SEGMENT_SEP);
    if (!names.empty())
        return recompose_with_name(without_last(names));
    const std::vector<UString> repositories = split_segments(repository_, SEGMENT_SEP);
    Selector result(ns_, domain_, resource_type_, {}, without_last(repositories));
    if (repositories.empty())
        result.generalise();
    return result;
}

void Selector::generalise() noexcept
{
    if (resource_type_ != 0)
        resource_type_ = 0;
    else if (ns_ != NS_NONE)
        ns_ = NS_NONE;
    else
        domain_ = PD_NONE;
}

Selector Selector::recompose_with_name(const UString& name) const
{
    return Selector(ns_, domain_, resource_type_, name, repository_);
}

// ---- Segments --------------------------------------------------------------------------------

std::vector<UString> Selector::split_segments(const UString& text, const UString& separator)
{
    const auto find = [&](std::size_t from) {
        const int at = text.find(separator, static_cast<unsigned int>(from));
        return at < 0 ? text_view_t::npos : static_cast<std::size_t>(at);
    };
    std::vector<UString> segments;
    Pieces pieces(view_of(text), separator.length(), find);
    for (text_view_t piece; pieces.next(piece);)
        segments.push_back(to_text(piece));
    return segments;
}

UString Selector::replaceAll(const UString& source, const UString& from, const UString& to)
{
    const text_view_t units = view_of(source);
    const text_view_t inserted = view_of(to);
    const Places places(units, view_of(from));
    const std::uint64_t count = places.all().size();
    const std::uint64_t length = units.size() - count * from.length() + count * inserted.size();
    return text_of_at_most(length, [&](char16_t* out) {
        std::size_t done = 0;
        for (const std::uint32_t at : places.all()) {
            out = copy_units(units.substr(done, at - done), out);
            out = copy_units(inserted, out);
            done = at + from.length();
        }
        return copy_units(units.substr(done), out);
    });
}

UString Selector::join_segments(const std::vector<UString>& segments, const UString& separator,
                                unsigned int start, unsigned int count)
{
    if (start >= segments.size())
        return {};
    const std::size_t wanted = std::min<std::size_t>(count, segments.size() - start);
    return composed([&](auto& sink) {
        for (std::size_t i = 0; i < wanted; ++i) {
            if (i != 0)
                sink.put(separator);
            sink.put(segments[start + i]);
        }
    });
}

UString Selector::encode_segment(const UString& segment)
{
    const text_view_t units = view_of(segment);
    return text_of_at_most(units.size() + max_escapes(units), [units](char16_t* out) {
        return encode(units.data(), units.data() + units.size(), out);
    });
}

UString Selector::decode_string(const UString& text)
{
    const text_view_t units = view_of(text);
    return text_of_at_most(units.size(), [units](char16_t* out) {
        return decode(units.data(), units.data() + units.size(), out);
    });
}

}  // namespace Kvl
