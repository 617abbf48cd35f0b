#include "failure_impl.h"
#include "units_impl.h"
#include "ustring_impl.h"
#include "xmltag_impl.h"
#include "xmltag_index_impl.h"
#include "xmltag_order_impl.h"
#include "xmltag_wk_table_impl.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <climits>
#include <functional>
#include <initializer_list>
#include <new>
#include <utility>

namespace Kvl {

constinit XmlTag::Namespace* XmlTag::g_namespace_array[21] = {};
constinit const XmlTag* XmlTag::lookup_table[XmlTag::NUM_WK_IDS] = {};
constinit XmlTag::run_time_tags_t XmlTag::run_time_tags{{0}, {nullptr}};
constinit XmlTag::Id XmlTag::g_num_defined_tags = XmlTag::NUM_WK_IDS;
constinit std::vector<XmlTag::Namespace*>* XmlTag::g_sorted_namespace_vector = nullptr;
constinit std::vector<XmlTag::Namespace*>* XmlTag::g_nsid_to_namespace_map = nullptr;

namespace XmlTagImpl {
constinit IdToTagMap& all_dynamic_tags = g_storage.dynamic_tags.value;
}  // namespace XmlTagImpl

namespace {

using XmlTagImpl::all_dynamic_tags;
using XmlTagImpl::dynamic_tags_lock;
using XmlTagImpl::kept_text_t;
using XmlTagImpl::tag_access_t;

typedef XmlTag::Namespace Namespace;

// ---- Failures

// Deliberate: the line is a literal of the message, not this file's. [sic]
[[noreturn]] void throw_internal_error(const char* function, const char* line)
{
    throw_state(MSG_INTERNAL_ERROR, function, line, "lib/kvutil/xmltag");
}

[[noreturn]] void throw_illegal_value(const char* function)
{
    throw_illegal_arg(MSG_ILLEGAL_VALUE, function);
}

// ---- What threads read without the lock. Every write happens with the lock held.

struct tag_traits_t {
    static std::u16string_view name(const XmlTag& tag) { return view_of(tag.simple_name()); }
};

/// A namespace has one of its own, which stays in the caches while its names are in use, however
/// many names others have.
typedef XmlTagImpl::name_index_t<const XmlTag, tag_traits_t> index_t;

/// How the run-time tags of one namespace are found: by readers without the lock, and where a new
/// one belongs in its `tags` by who holds it.
struct names_t {
    index_t index;
    XmlTagImpl::name_order_t order;
};

/// A namespace, the string that its `uri` refers to, and its tags.
struct runtime_namespace_t {
    runtime_namespace_t(const kept_text_t& own_uri, XmlTag::NsId id)
        : uri(own_uri), ns(uri, id, false, false)
    {
        uri.c_str();
    }
    const UString uri;
    Namespace ns;
    names_t names;
};

struct namespace_traits_t {
    static std::u16string_view name(const runtime_namespace_t& created)
    {
        return view_of(created.uri);
    }
};

typedef XmlTagImpl::name_index_t<runtime_namespace_t, namespace_traits_t> namespace_index_t;
constinit namespace_index_t namespaces_by_uri;
constinit XmlTagImpl::parted_list_t<runtime_namespace_t*> namespaces_by_nsid;
constinit names_t run_time_names_of_well_known[XmlTag::NUM_WK_NAMESPACES];

bool is_well_known(XmlTag::NsId nsid)
{
    return static_cast<unsigned int>(nsid) < static_cast<unsigned int>(XmlTag::NUM_WK_NAMESPACES);
}

/// The namespace that was created with a number, or null.
runtime_namespace_t* find_created(XmlTag::NsId nsid)
{
    const unsigned int index =
        static_cast<unsigned int>(nsid) - static_cast<unsigned int>(XmlTag::NUM_WK_NAMESPACES);
    return nsid < 0 || index >= namespaces_by_nsid.size() ? nullptr : namespaces_by_nsid[index];
}

/// The namespace with a number, or null.
Namespace* find_namespace(XmlTag::NsId nsid)
{
    if (is_well_known(nsid))
        return XmlTag::g_namespace_array[nsid];
    runtime_namespace_t* const created = find_created(nsid);
    return created != nullptr ? &created->ns : nullptr;
}

/// The run-time names of the namespace with a number, or null when there is no such namespace.
names_t* find_names(XmlTag::NsId nsid)
{
    if (is_well_known(nsid))
        return &run_time_names_of_well_known[nsid];
    runtime_namespace_t* const created = find_created(nsid);
    return created != nullptr ? &created->names : nullptr;
}

Namespace* find_namespace(std::u16string_view uri)
{
    if (Namespace* const wk = XmlTagImpl::find_well_known_namespace(uri))
        return wk;
    runtime_namespace_t* const created = namespaces_by_uri.find(uri);
    return created != nullptr ? &created->ns : nullptr;
}

// ---- Registration: everything that can fail comes before the first change

/// Memory that is never given back, in slabs: entries lie close together and cost no header each.
/// The lock is held. What was taken but not kept is given out again the next time.
class arena_t {
public:
    std::byte* take(std::size_t size)
    {
        if (size > left_) {
            const std::size_t slab = std::max(size, SLAB_SIZE);
            next_ = static_cast<std::byte*>(::operator new(slab));
            left_ = slab;
        }
        return next_;
    }
    void keep(std::size_t size) noexcept
    {
        next_ += size;
        left_ -= size;
    }

private:
    static constexpr std::size_t SLAB_SIZE = std::size_t{16} << 10;
    std::byte* next_ = nullptr;
    std::size_t left_ = 0;
};
constinit arena_t arena KVUTIL_GUARDED_BY(dynamic_tags_lock);

/// Memory for a T and, unless it is short, for the text that its string then aliases.
template <class T>
class memory_with_text_t {
    static_assert(alignof(T) == alignof(void*), "the arena gives no other");

public:
    explicit memory_with_text_t(std::u16string_view text) KVUTIL_REQUIRES(dynamic_tags_lock)
        : memory_(arena.take(size(text))), text_{text}
    {
        if (text_.is_short())
            return;
        char16_t* const copy = ::new (memory_ + sizeof(T)) char16_t[text.size() + 1];
        *std::copy(text.begin(), text.end(), copy) = 0;
        text_.units = {copy, text.size()};
    }
    void* object() const noexcept { return memory_; }
    /// Of the object's string; valid as long as it, if it is not short.
    kept_text_t text() const noexcept { return text_; }
    void keep() noexcept KVUTIL_REQUIRES(dynamic_tags_lock) { arena.keep(size(text_.units)); }

private:
    static std::size_t size(std::u16string_view text)
    {
        const std::size_t size_of_text =
            kept_text_t{text}.is_short() ? 0 : (text.size() + 1) * sizeof(char16_t);
        return (sizeof(T) + size_of_text + alignof(T) - 1) / alignof(T) * alignof(T);
    }

    std::byte* memory_;
    kept_text_t text_;
};

/// Registers a name that `ns` does not have. The lock is held.
/// @param names  of `ns`, with room in the index
const XmlTag* register_tag(Namespace& ns, names_t& names, const index_t::hashed_t& name)
    KVUTIL_REQUIRES(dynamic_tags_lock)
{
    const XmlTag::Id id = XmlTag::g_num_defined_tags;
    if (id == INT_MAX)
        throw std::bad_alloc();
    memory_with_text_t<XmlTag> memory(name.name);
    const XmlTag*& entry = all_dynamic_tags[id];
    const auto place = names.order.find(ns.tags, name.name);
    const auto element = ns.tags.emplace_hint(place.hint, memory.text(), nullptr);
    names.order.add(place, element);
    element->first.c_str();
    const XmlTag* const tag = tag_access_t::construct(memory.object(), &ns, memory.text(), id);
    element->second = tag;
    memory.keep();
    entry = tag;
    XmlTag::g_num_defined_tags = id + 1;
    // The Id before the name: who finds the tag by name may ask for its Id at once.
    tag_access_t::publish_last(all_dynamic_tags);
    names.index.add(name, tag);
    return tag;
}

void make_room(std::vector<Namespace*>& list)
{
    if (list.size() == list.capacity())
        list.reserve(list.size() * 2 + 1);
}

/// Creates the namespace of a URI that has none. The lock is held.
Namespace* create_namespace(std::u16string_view uri) KVUTIL_REQUIRES(dynamic_tags_lock)
{
    std::vector<Namespace*>& sorted = *XmlTag::g_sorted_namespace_vector;
    if (sorted.size() == INT_MAX)
        throw std::bad_alloc();
    memory_with_text_t<runtime_namespace_t> memory(uri);
    make_room(sorted);
    make_room(*XmlTag::g_nsid_to_namespace_map);
    namespaces_by_nsid.make_room();
    namespaces_by_uri.make_room();
    auto* const created = ::new (memory.object())
        runtime_namespace_t(memory.text(), static_cast<XmlTag::NsId>(sorted.size()));
    memory.keep();
    Namespace* const ns = &created->ns;
    XmlTag::g_nsid_to_namespace_map->push_back(ns);
    sorted.insert(
        std::lower_bound(sorted.begin(), sorted.end(), ns->uri, XmlTag::CompareNamespacePtr()), ns);
    // The number before the URI, as with tags.
    namespaces_by_nsid.push_back(created);
    namespaces_by_uri.add(namespace_index_t::hashed_t(uri), created);
    return ns;
}

/// What a look-up without the lock has not found. Another thread may have been first.
/// @param when_new  (const XmlTag&): called with the tag when it is registered now
template <class WhenNew>
const XmlTag* find_or_register(Namespace& ns, names_t& names, std::u16string_view name,
                               WhenNew when_new)
{
    const CriticalSection section(dynamic_tags_lock);
    names.index.make_room();
    const index_t::hashed_t hashed(name);
    if (const XmlTag* const known = names.index.find(hashed))
        return known;
    const XmlTag* const registered = register_tag(ns, names, hashed);
    when_new(*registered);
    return registered;
}

/// Out of line, so that look-ups that find carry nothing of it.
[[gnu::noinline]] const XmlTag* register_now(XmlTag::NsId nsid, std::u16string_view name)
{
    names_t* const names = find_names(nsid);
    if (names == nullptr)
        throw_illegal_arg(MSG_ILLEGAL_NAMESPACE_ID);
    return find_or_register(*find_namespace(nsid), *names, name, [](const XmlTag&) {});
}

/// Out of line, so that look-ups of well-known names carry nothing of it either.
[[gnu::noinline]] const XmlTag* find_or_register_now(XmlTag::NsId nsid, std::u16string_view name)
{
    const names_t* const names = find_names(nsid);
    const XmlTag* const known = names != nullptr ? names->index.find(name) : nullptr;
    return known != nullptr ? known : register_now(nsid, name);
}

Namespace* find_or_create_namespace(std::u16string_view uri)
{
    if (Namespace* const known = find_namespace(uri))
        return known;
    const CriticalSection section(dynamic_tags_lock);
    if (Namespace* const known = find_namespace(uri))
        return known;
    return create_namespace(uri);
}

// ---- Texts

/// The pieces one behind the other, in a text whose room is exact and reserved at once.
UString joined(std::initializer_list<std::u16string_view> pieces)
{
    std::size_t length = 0;
    for (const std::u16string_view piece : pieces)
        length += piece.size();
    if (length > INT_MAX)
        throw std::bad_alloc();
    UString text;
    text.reserve(static_cast<unsigned int>(length));
    char16_t* out = text.getBuffer(-1);
    for (const std::u16string_view piece : pieces)
        out = std::copy(piece.begin(), piece.end(), out);
    text.releaseBuffer(static_cast<std::int32_t>(length));
    return text;
}

}  // namespace

// ---- XmlTag

XmlTag::XmlTag(NsId nsid, const unsigned short* name, Id id)
    : ns_(nullptr), simple_name_(name), id_(id)
{
    if (id < 0 || id >= NUM_WK_IDS || nsid < -1 || nsid >= NUM_WK_NAMESPACES ||
        lookup_table[id] != nullptr)
        throw_internal_error("XmlTag::XmlTag", "703");
    simple_name_.c_str();
    if (nsid != -1 && !simple_name_.empty()) {
        ns_ = g_namespace_array[nsid];
        ns_->wk_tags.push_back(this);
        XmlTagImpl::tags_were_added = true;
    }
    lookup_table[id] = this;
}

XmlTag::XmlTag(NsId nsid, const char16_t* name, Id id) : XmlTag(nsid, to_units(name), id) {}

XmlTag::XmlTag(const UString& ns_uri, const UString& name)
    : ns_(nullptr), simple_name_(name), id_(0)
{
    if (simple_name_.isBogus())
        simple_name_.clear();  // as the look-up takes it, so that the registered tag is equal
    simple_name_.c_str();
    ns_ = find_or_create_namespace(view_of(ns_uri));
}

XmlTag::XmlTag(Namespace* ns, const XmlTagImpl::kept_text_t& name, Id id) noexcept
    : ns_(ns), simple_name_(name), id_(id)
{
    simple_name_.c_str();
}

// A copy owns its name, terminated so that threads that share the copy only read it.
XmlTag::XmlTag(const XmlTag& o) : ns_(o.ns_), simple_name_(o.simple_name_), id_(o.id_)
{
    simple_name_.c_str();
}

XmlTag::XmlTag(XmlTag&& o) noexcept = default;

XmlTag& XmlTag::operator=(const XmlTag& o)
{
    return *this = XmlTag(o);
}

XmlTag& XmlTag::operator=(XmlTag&& o) noexcept = default;

XmlTag::~XmlTag() = default;

UString XmlTag::to_string() const
{
    // Deliberate: a tag that is not registered yet prints like the nil tag.
    if (id_ == 0)
        return UString(u"<nil-tag>");
    return joined({view_of(ns()), u"/", view_of(simple_name_)});
}

UString XmlTag::format(Format f, const UString& prefix) const
{
    const std::u16string_view begin = f == END_TAG ? u"</" : u"<";
    const std::u16string_view end = f == EMPTY_TAG ? u"/>" : u">";
    if (!prefix.empty())
        return joined({begin, view_of(prefix), u":", view_of(simple_name_), end});
    if (f == END_TAG)
        return joined({begin, view_of(simple_name_), end});
    return joined({begin, view_of(simple_name_), u" xmlns=\"", view_of(ns()), u"\"", end});
}

UString XmlTag::format(Format f, Id id, const UString& prefix)
{
    return lookup(id)->format(f, prefix);
}

const XmlTag* XmlTag::reject(Id id)
{
    if (id < 0 || id >= NUM_WK_IDS)
        throw_illegal_arg(MSG_ILLEGAL_TAG_ID);
    throw_internal_error("XmlTag::lookup", "502");
}

const XmlTag* XmlTag::lookup(NsId nsid, const UString& name)
{
    if (is_well_known(nsid))
        if (const XmlTag* const tag = XmlTagImpl::find_well_known(nsid, view_of(name)))
            return tag;
    return find_or_register_now(nsid, view_of(name));
}

const XmlTag* XmlTag::lookup(XmlTag& tag)
{
    if (tag.ns_ == nullptr)
        throw_illegal_arg(MSG_ILLEGAL_NAMESPACE_ID);
    const std::u16string_view name = view_of(tag.simple_name_);
    if (tag.is_well_known_namespace())
        if (const XmlTag* const well_known = XmlTagImpl::find_well_known(tag.ns_id(), name))
            return well_known;
    names_t& names = *find_names(tag.ns_id());
    if (const XmlTag* const known = names.index.find(name))
        return known;
    return find_or_register(*tag.ns_, names, name, [&](const XmlTag& registered) {
        tag_access_t::set_id(tag, registered.id());
    });
}

const UString& XmlTag::ns_abbreviation(NsId nsid)
{
    if (!is_well_known(nsid))
        throw_illegal_value("XmlTag::ns_abbreviation");
    return XmlTagImpl::wk_namespaces_array[nsid].abbreviation;
}

const UString& XmlTag::ns_URI(NsId nsid)
{
    const Namespace* const ns = find_namespace(nsid);
    if (ns == nullptr)
        throw_illegal_value("XmlTag::ns_URI");
    return ns->uri;
}

XmlTag::NsId XmlTag::ns_lookup_abbreviation(const UString& abbreviation) noexcept
{
    for (const XmlTagImpl::wk_namespace_t& row : XmlTagImpl::wk_namespaces_array)
        if (row.abbreviation == abbreviation)
            return row.nsid;
    return -1;
}

bool XmlTag::is_well_known_namespace(const UString& uri) noexcept
{
    return XmlTagImpl::find_well_known_namespace(view_of(uri)) != nullptr;
}

// Addresses of unrelated objects are ordered by std::less only.
bool XmlTag::operator<(const XmlTag& o) const noexcept
{
    if (ns_ != o.ns_)
        return std::less<const Namespace*>()(ns_, o.ns_);
    return this != &o && simple_name_ < o.simple_name_;
}

bool XmlTag::operator==(const XmlTag& o) const noexcept
{
    return this == &o || (ns_ == o.ns_ && simple_name_ == o.simple_name_);
}

bool XmlTag::operator!=(const XmlTag& o) const noexcept
{
    return !(*this == o);
}

KVUTIL_AT_LOAD XmlTag::Namespace::Namespace(const UString& uri_, NsId id_, bool has_wk_tags_,
                                            bool open_names_)
    : uri(uri_), id(id_), has_wk_tags(has_wk_tags_), open_names(open_names_)
{
}

bool XmlTag::CompareNamespacePtr::operator()(const Namespace* a, const Namespace* b) const noexcept
{
    return a->uri < b->uri;
}

bool XmlTag::CompareNamespacePtr::operator()(const Namespace* a, const UString& uri) const noexcept
{
    return a->uri < uri;
}

bool XmlTag::CompareNamespacePtr::operator()(const UString& uri, const Namespace* b) const noexcept
{
    return uri < b->uri;
}

XmlTag create(const unsigned short* abbreviation, const unsigned short* name, XmlTag::Id id)
{
    return XmlTag(XmlTag::ns_lookup_abbreviation(UString(abbreviation)), name, id);
}

XmlTag create(const char16_t* abbreviation, const char16_t* name, XmlTag::Id id)
{
    return create(to_units(abbreviation), to_units(name), id);
}

bool sort_namespaces_sorted_wk_tag_vectors()
{
    for (Namespace* const ns : XmlTag::g_namespace_array)
        if (ns->has_wk_tags)
            std::sort(ns->wk_tags.begin(), ns->wk_tags.end(),
                      XmlTagImpl::CompareXmlTagSimpleName());
    return true;
}

// ---- Private machinery

namespace XmlTagImpl {

XmlTag* tag_access_t::construct(void* place, XmlTag::Namespace* ns, const kept_text_t& name,
                                XmlTag::Id id) noexcept
{
    return ::new (place) XmlTag(ns, name, id);
}

bool CompareXmlTagSimpleName::operator()(const XmlTag* a, const XmlTag* b) const noexcept
{
    return a->simple_name() < b->simple_name();
}

bool CompareXmlTagSimpleName::operator()(const XmlTag* a, const UString& name) const noexcept
{
    return a->simple_name() < name;
}

bool CompareXmlTagSimpleName::operator()(const UString& name, const XmlTag* b) const noexcept
{
    return name < b->simple_name();
}

IdToTagMap::~IdToTagMap()
{
    void** directory = directory_;
    for (unsigned int i = 0; i < num_chunks_; ++i)
        delete[] static_cast<const XmlTag**>(directory[i]);
    while (directory != nullptr) {
        void** const first = directory - 1;
        directory = static_cast<void**>(*first);
        delete[] first;
    }
}

const XmlTag*& IdToTagMap::operator[](XmlTag::Id id)
{
    if (id < XmlTag::NUM_WK_IDS)
        throw_illegal_arg(MSG_ILLEGAL_TAG_ID);
    const auto index = static_cast<unsigned int>(id - XmlTag::NUM_WK_IDS);
    if (index / XmlTag::CHUNK_SIZE >= num_chunks_)
        append_chunk();
    void* const chunk = directory_[std::min(index / XmlTag::CHUNK_SIZE, num_chunks_ - 1)];
    return static_cast<const XmlTag**>(chunk)[index % XmlTag::CHUNK_SIZE];
}

void IdToTagMap::append_chunk()
{
    if (num_chunks_ == capacity_chunks_)
        grow_directory();
    directory_[num_chunks_] = new const XmlTag*[XmlTag::CHUNK_SIZE]();
    ++num_chunks_;
}

void IdToTagMap::grow_directory()
{
    const unsigned int capacity = capacity_chunks_ == 0 ? 64 : capacity_chunks_ * 2;
    void** const directory = new void*[std::size_t{1} + capacity]() + 1;
    directory[-1] = directory_;
    std::copy_n(directory_, num_chunks_, directory);
    directory_ = directory;
    capacity_chunks_ = capacity;
}

}  // namespace XmlTagImpl

}  // namespace Kvl
