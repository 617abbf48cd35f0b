#include "failure_impl.h"
#include "units_impl.h"
#include "ustring_impl.h"
#include "xmltag_impl.h"
#include "xmltag_index_impl.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <climits>
#include <functional>
#include <memory>
#include <new>

#include <pthread.h>

namespace Kvl {

constinit XmlTag::Namespace* XmlTag::g_namespace_array[21] = {};
constinit XmlTag::Id XmlTag::g_num_defined_tags = XmlTag::NUM_WK_IDS;
constinit std::vector<XmlTag::Namespace*>* XmlTag::g_sorted_namespace_vector = nullptr;
constinit std::vector<XmlTag::Namespace*>* XmlTag::g_nsid_to_namespace_map = nullptr;

namespace XmlTagImpl {
constinit const CriticalSectionLock& dynamic_tags_lock = g_storage.dynamic_tags_lock.value;
constinit IdToTagMap& all_dynamic_tags = g_storage.dynamic_tags.value;
}  // namespace XmlTagImpl

namespace {

using XmlTagImpl::all_dynamic_tags;
using XmlTagImpl::dynamic_tags_lock;
using XmlTagImpl::tag_access_t;
using XmlTagImpl::view_of;

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
    static std::uint32_t scope(const XmlTag& tag)
    {
        return static_cast<std::uint32_t>(tag_access_t::ns(tag)->id);
    }
    static std::u16string_view name(const XmlTag& tag) { return view_of(tag.simple_name()); }
};

struct namespace_traits_t {
    static std::uint32_t scope(const Namespace&) { return 0; }
    static std::u16string_view name(const Namespace& ns) { return view_of(ns.uri); }
};

constinit XmlTagImpl::name_index_t<const XmlTag, tag_traits_t> tags_by_name;
constinit XmlTagImpl::name_index_t<Namespace, namespace_traits_t> namespaces_by_uri;
constinit XmlTagImpl::parted_list_t<Namespace*> namespaces_by_nsid;

/// g_num_defined_tags for readers without the lock: an Id below it has its entry.
constinit std::atomic<XmlTag::Id> num_published_tags{XmlTag::NUM_WK_IDS};

bool is_well_known(XmlTag::NsId nsid)
{
    return static_cast<unsigned int>(nsid) < static_cast<unsigned int>(XmlTag::NUM_WK_NAMESPACES);
}

/// The namespace with a number, or null.
Namespace* find_namespace(XmlTag::NsId nsid)
{
    if (is_well_known(nsid))
        return XmlTag::g_namespace_array[nsid];
    const unsigned int index =
        static_cast<unsigned int>(nsid) - static_cast<unsigned int>(XmlTag::NUM_WK_NAMESPACES);
    return nsid < 0 || index >= namespaces_by_nsid.size() ? nullptr : namespaces_by_nsid[index];
}

Namespace* find_namespace(std::u16string_view uri)
{
    Namespace* const wk = XmlTagImpl::find_well_known_namespace(uri);
    return wk != nullptr ? wk : namespaces_by_uri.find(0, uri);
}

const XmlTag* find_tag(const Namespace& ns, std::u16string_view name)
{
    if (is_well_known(ns.id))
        if (const XmlTag* const wk = XmlTagImpl::find_well_known(ns.id, name.data(), name.size()))
            return wk;
    return tags_by_name.find(static_cast<std::uint32_t>(ns.id), name);
}

// ---- Registration: everything that can fail comes before the first change

struct release_t {
    void operator()(void* memory) const noexcept { ::operator delete(memory); }
};

/// Memory for a T and, behind it, for a copy of a text that T's own strings then alias: so a name
/// costs one allocation, and c_str() of it never writes.
template <class T>
class memory_with_text_t {
public:
    explicit memory_with_text_t(std::u16string_view text)
        : memory_(::operator new(sizeof(T) + (text.size() + 1) * sizeof(char16_t))),
          text_(::new (static_cast<char*>(memory_.get()) + sizeof(T)) char16_t[text.size() + 1],
                text.size())
    {
        char16_t* const end = std::ranges::copy(text, const_cast<char16_t*>(text_.data())).out;
        *end = 0;
    }
    T* object() const noexcept { return static_cast<T*>(memory_.get()); }
    std::u16string_view text() const noexcept { return text_; }
    UString alias() const noexcept
    {
        return constant_text_t::make(text_.data(), static_cast<int>(text_.size()));
    }
    T* release() noexcept { return static_cast<T*>(memory_.release()); }

private:
    std::unique_ptr<void, release_t> memory_;
    std::u16string_view text_;
};

/// Registers a name that `ns` does not have. The lock is held.
const XmlTag* register_tag(Namespace& ns, std::u16string_view name)
    KVUTIL_REQUIRES(dynamic_tags_lock)
{
    const XmlTag::Id id = XmlTag::g_num_defined_tags;
    if (id == INT_MAX)
        throw std::bad_alloc();
    memory_with_text_t<XmlTag> memory(name);
    const XmlTag*& entry = all_dynamic_tags[id];
    tags_by_name.make_room();
    // Names often come in order; the hint then saves the search and otherwise costs one comparison.
    ns.tags.emplace_hint(ns.tags.end(), memory.alias(), memory.object());
    const XmlTag* const tag = tag_access_t::construct(memory.object(), &ns, memory.text(), id);
    memory.release();
    entry = tag;
    XmlTag::g_num_defined_tags = id + 1;
    // The Id before the name: who finds the tag by name may ask for its Id at once.
    num_published_tags.store(id + 1, std::memory_order_release);
    tags_by_name.add(tag);
    return tag;
}

/// A namespace and the string that its `uri` refers to.
struct runtime_namespace_t {
    UString uri;
    Namespace ns;
};

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
    auto* const created = ::new (memory.object()) runtime_namespace_t{
        memory.alias(),
        Namespace(memory.object()->uri, static_cast<XmlTag::NsId>(sorted.size()), false, false)};
    memory.release();
    Namespace* const ns = &created->ns;
    XmlTag::g_nsid_to_namespace_map->push_back(ns);
    sorted.insert(
        std::lower_bound(sorted.begin(), sorted.end(), ns->uri, XmlTag::CompareNamespacePtr()), ns);
    // The number before the URI, as with tags.
    namespaces_by_nsid.push_back(ns);
    namespaces_by_uri.add(ns);
    return ns;
}

const XmlTag* find_or_register(Namespace& ns, std::u16string_view name, bool& is_new)
{
    is_new = false;
    if (const XmlTag* const known = find_tag(ns, name))
        return known;
    const CriticalSection section(dynamic_tags_lock);
    if (const XmlTag* const known = find_tag(ns, name))  // another thread was first
        return known;
    is_new = true;
    return register_tag(ns, name);
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

/// The length as reserve() takes it.
unsigned int checked_length(std::uint64_t length_units)
{
    if (length_units > INT_MAX)
        throw std::bad_alloc();
    return static_cast<unsigned int>(length_units);
}

}  // namespace

// ---- XmlTag

XmlTag::XmlTag(NsId nsid, const unsigned short* name, Id id)
    : ns_(nullptr), simple_name_(name), id_(id)
{
    if (id < 0 || id >= NUM_WK_IDS || nsid < -1 || nsid >= NUM_WK_NAMESPACES ||
        XmlTagImpl::lookup_table[id] != nullptr)
        throw_internal_error("XmlTag::XmlTag", "703");
    simple_name_.c_str();
    if (nsid != -1 && !simple_name_.empty()) {
        ns_ = g_namespace_array[nsid];
        ns_->wk_tags.push_back(this);
    }
    XmlTagImpl::lookup_table[id] = this;
}

XmlTag::XmlTag(NsId nsid, const char16_t* name, Id id) : XmlTag(nsid, to_units(name), id) {}

XmlTag::XmlTag(const UString& ns_uri, const UString& name)
    : ns_(nullptr), simple_name_(name), id_(0)
{
    simple_name_.c_str();
    ns_ = find_or_create_namespace(view_of(ns_uri));
}

XmlTag::XmlTag(Namespace* ns, const char16_t* simple_name, int length_units, Id id) noexcept
    : ns_(ns), simple_name_(constant_text_t::make(simple_name, length_units)), id_(id)
{
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

const UString& XmlTag::ns() const
{
    return ns_ != nullptr ? ns_->uri : EMPTY_NS_PREFIX;
}

XmlTag::NsId XmlTag::ns_id() const
{
    return ns_ != nullptr ? ns_->id : -1;
}

bool XmlTag::is_well_known_namespace() const
{
    return is_well_known(ns_id());
}

const UString& XmlTag::simple_name() const
{
    return simple_name_;
}

XmlTag::Id XmlTag::id() const
{
    return id_;
}

UString XmlTag::to_string() const
{
    // Deliberate: a tag that is not registered yet prints like the nil tag.
    if (id_ == 0)
        return UString(u"<nil-tag>");
    UString text;
    text.reserve(checked_length(std::uint64_t{ns().length()} + 1 + simple_name_.length()));
    text.append(ns()).append(u'/').append(simple_name_);
    return text;
}

UString XmlTag::format(Format f, const UString& prefix) const
{
    const bool has_prefix = !prefix.empty();
    const bool has_xmlns = !has_prefix && f != END_TAG;
    UString text;
    text.reserve(checked_length(std::uint64_t{simple_name_.length()} + 2 +
                                (has_prefix ? std::uint64_t{prefix.length()} + 1 : 0) +
                                (has_xmlns ? std::uint64_t{ns().length()} + 9 : 0) +
                                (f != START_TAG ? 1 : 0)));
    text.append(u'<');
    if (f == END_TAG)
        text.append(u'/');
    if (has_prefix)
        text.append(prefix).append(u':');
    text.append(simple_name_);
    if (has_xmlns)
        text.append(to_units(u" xmlns=\"")).append(ns()).append(u'"');
    if (f == EMPTY_TAG)
        text.append(u'/');
    text.append(u'>');
    return text;
}

UString XmlTag::format(Format f, Id id, const UString& prefix)
{
    return lookup(id)->format(f, prefix);
}

const XmlTag* XmlTag::lookup(Id id)
{
    if (static_cast<unsigned int>(id) < static_cast<unsigned int>(NUM_WK_IDS)) {
        if (const XmlTag* const tag = XmlTagImpl::lookup_table[id])
            return tag;
        throw_internal_error("XmlTag::lookup", "502");
    }
    if (id < 0 || id >= num_published_tags.load(std::memory_order_acquire))
        throw_illegal_arg(MSG_ILLEGAL_TAG_ID);
    return all_dynamic_tags.find(id);
}

const XmlTag* XmlTag::lookup(NsId nsid, const UString& name)
{
    Namespace* const ns = find_namespace(nsid);
    if (ns == nullptr)
        throw_illegal_arg(MSG_ILLEGAL_NAMESPACE_ID);
    bool is_new = false;
    return find_or_register(*ns, view_of(name), is_new);
}

const XmlTag* XmlTag::lookup(XmlTag& tag)
{
    if (tag.ns_ == nullptr)
        throw_illegal_arg(MSG_ILLEGAL_NAMESPACE_ID);
    bool is_new = false;
    const XmlTag* const registered = find_or_register(*tag.ns_, view_of(tag.simple_name_), is_new);
    if (is_new)
        tag.id_ = registered->id_;
    return registered;
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

XmlTag::NsId XmlTag::ns_lookup_abbreviation(const UString& abbreviation)
{
    for (const XmlTagImpl::wk_namespace_t& row : XmlTagImpl::wk_namespaces_array)
        if (row.abbreviation == abbreviation)
            return row.nsid;
    return -1;
}

bool XmlTag::is_well_known_namespace(const UString& uri)
{
    return XmlTagImpl::find_well_known_namespace(view_of(uri)) != nullptr;
}

// Addresses of unrelated objects are ordered by std::less only.
bool XmlTag::operator<(const XmlTag& o) const
{
    if (ns_ != o.ns_)
        return std::less<const Namespace*>()(ns_, o.ns_);
    return this != &o && simple_name_ < o.simple_name_;
}

bool XmlTag::operator==(const XmlTag& o) const
{
    return this == &o || (ns_ == o.ns_ && simple_name_ == o.simple_name_);
}

bool XmlTag::operator!=(const XmlTag& o) const
{
    return !(*this == o);
}

XmlTag::Namespace::Namespace(const UString& uri_, NsId id_, bool has_wk_tags_, bool open_names_)
    : uri(uri_), id(id_), has_wk_tags(has_wk_tags_), open_names(open_names_)
{
}

bool XmlTag::CompareNamespacePtr::operator()(const Namespace* a, const Namespace* b) const
{
    return a->uri < b->uri;
}

bool XmlTag::CompareNamespacePtr::operator()(const Namespace* a, const UString& uri) const
{
    return a->uri < uri;
}

bool XmlTag::CompareNamespacePtr::operator()(const UString& uri, const Namespace* b) const
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

XmlTag* tag_access_t::construct(void* place, XmlTag::Namespace* ns, std::u16string_view name,
                                XmlTag::Id id) noexcept
{
    return ::new (place) XmlTag(ns, name.data(), static_cast<int>(name.size()), id);
}

bool CompareXmlTagSimpleName::operator()(const XmlTag* a, const XmlTag* b) const
{
    return a->simple_name() < b->simple_name();
}

bool CompareXmlTagSimpleName::operator()(const XmlTag* a, const UString& name) const
{
    return a->simple_name() < name;
}

bool CompareXmlTagSimpleName::operator()(const UString& name, const XmlTag* b) const
{
    return name < b->simple_name();
}

IdToTagMap::~IdToTagMap()
{
    for (unsigned int chunk = 0; chunk < num_chunks_; ++chunk)
        delete[] parts_[place_of(chunk).part][place_of(chunk).offset];
    for (entry_t** const part : parts_)
        delete[] part;
}

const XmlTag*& IdToTagMap::operator[](XmlTag::Id id)
{
    if (id < XmlTag::NUM_WK_IDS)
        throw_illegal_arg(MSG_ILLEGAL_TAG_ID);
    const auto index = static_cast<unsigned int>(id - XmlTag::NUM_WK_IDS);
    if (index / CHUNK_SIZE >= num_chunks_)
        append_chunk();
    const place_t place = place_of(std::min(index / CHUNK_SIZE, num_chunks_ - 1));
    return parts_[place.part][place.offset][index % CHUNK_SIZE];
}

const XmlTag* IdToTagMap::find(XmlTag::Id id) const noexcept
{
    const auto index = static_cast<unsigned int>(id - XmlTag::NUM_WK_IDS);
    const place_t place = place_of(index / CHUNK_SIZE);
    return parts_[place.part][place.offset][index % CHUNK_SIZE];
}

void IdToTagMap::append_chunk()
{
    const place_t place = place_of(num_chunks_);
    if (parts_[place.part] == nullptr)
        parts_[place.part] = new entry_t*[size_of_part(place.part)]();
    parts_[place.part][place.offset] = new entry_t[CHUNK_SIZE]();
    ++num_chunks_;
}

// The child of a fork() has only the thread that called it: what another one was changing would
// stay half done. Nothing to do in the child, where every lock starts free.
void hold_registry_over_forks()
{
    pthread_atfork([]() KVUTIL_NO_THREAD_SAFETY_ANALYSIS { dynamic_tags_lock.lock(); },
                   []() KVUTIL_NO_THREAD_SAFETY_ANALYSIS { dynamic_tags_lock.unlock(); }, nullptr);
}

}  // namespace XmlTagImpl

}  // namespace Kvl
