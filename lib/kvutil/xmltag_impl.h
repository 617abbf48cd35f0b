#ifndef KVUTIL_XMLTAG_IMPL_H
#define KVUTIL_XMLTAG_IMPL_H

#include "undying_impl.h"
#include "ustring_impl.h"

#include <kvutil/critsec.h>
#include <kvutil/xmltag.h>

#include <atomic>
#include <bit>
#include <cstddef>
#include <string_view>

namespace Kvl {

inline XmlTag::XmlTag(Namespace* ns, const char16_t* simple_name, int length_units, Id id) noexcept
    : ns_(ns), simple_name_(constant_text_t::make(simple_name, length_units)), id_(id)
{
}

namespace XmlTagImpl {

/// The well-known tag with a name, or null; nothing is registered. Takes no lock, allocates
/// nothing. Never throws.
/// @param nsid  0 to 20
/// @param name  `length` units
const XmlTag* find_well_known(XmlTag::NsId nsid, const char16_t* name, std::size_t length) noexcept;

/// Whether a program has registered well-known tags of its own. Set while libraries are loaded.
extern bool tags_were_added;

/// The well-known namespace with a URI, or null. Takes no lock, allocates nothing. Never throws.
XmlTag::Namespace* find_well_known_namespace(std::u16string_view uri) noexcept;

/// Builds the whole registry. Called once, by statics.cpp.
/// @return true
bool load();

/// One of the 21 well-known namespaces as the tables list it.
struct wk_namespace_t {
    XmlTag::NsId nsid;
    UString uri;
    UString abbreviation;  // with its colon
};

constexpr std::size_t NUM_WK_TAGS = 1143;  // the nil tag included

/// Everything of the registry that cannot be constant-initialised. load() constructs it.
struct storage_t {
    undying_t<wk_namespace_t[XmlTag::NUM_WK_NAMESPACES]> wk_namespaces;
    undying_t<XmlTag::Namespace[XmlTag::NUM_WK_NAMESPACES]> namespaces;
    undying_t<XmlTag[NUM_WK_TAGS]> tags;  // in order of Id
    undying_t<std::vector<XmlTag::Namespace*>> sorted_namespaces;
    undying_t<std::vector<XmlTag::Namespace*>> runtime_namespaces;
    undying_t<IdToTagMap> dynamic_tags;
};
extern storage_t g_storage;

extern const wk_namespace_t (&wk_namespaces_array)[XmlTag::NUM_WK_NAMESPACES];

/// Guards everything that changes after load. Held over fork(), so that the child finds the
/// registry whole.
extern const CriticalSectionLock dynamic_tags_lock;

extern IdToTagMap& all_dynamic_tags;

/// Lists that grow without moving anything: part k has room for 64 * 2^k elements.
struct place_t {
    unsigned int part;
    unsigned int offset;
};

constexpr unsigned int size_of_part(unsigned int part)
{
    return 64u << part;
}

/// @param index  below 2^31
constexpr place_t place_of(unsigned int index)
{
    const auto part = static_cast<unsigned int>(std::bit_width(index / 64 + 1)) - 1;
    return {part, index + 64 - size_of_part(part)};
}

/// A list whose elements are read without a lock, while one thread at a time appends more.
template <class T>
class parted_list_t {
public:
    unsigned int size() const noexcept { return size_.load(std::memory_order_acquire); }

    /// @param index  below a size() that was read before
    const T& operator[](unsigned int index) const noexcept
    {
        const place_t place = place_of(index);
        return parts_[place.part][place.offset];
    }

    /// Makes the next push_back() possible.
    void make_room()
    {
        T*& part = parts_[place_of(size()).part];
        if (part == nullptr)
            part = new T[size_of_part(place_of(size()).part)]();
    }

    void push_back(const T& element) noexcept
    {
        const place_t place = place_of(size());
        parts_[place.part][place.offset] = element;
        size_.store(size_.load(std::memory_order_relaxed) + 1, std::memory_order_release);
    }

private:
    T* parts_[26] = {};  // never freed: a process has one list, until it ends
    std::atomic<unsigned int> size_{0};
};

/// What becomes a string that stays where it is: of a short text a copy inside the string itself,
/// so that who compares it needs not go elsewhere, of any other an alias. Its c_str() is to be
/// called once, to terminate it.
struct kept_text_t {
    bool is_short() const noexcept { return units.size() < INLINE_UNITS; }
    operator UString() const noexcept
    {
        return is_short() ? owned_text_t::make(units)
                          : constant_text_t::make(units.data(), static_cast<int>(units.size()));
    }
    std::u16string_view units;
};

/// What the registry needs of private parts.
struct tag_access_t {
    /// Constructs a tag whose local name aliases `name`, which is terminated and outlives it.
    static XmlTag* construct(void* place, XmlTag::Namespace* ns, std::u16string_view name,
                             XmlTag::Id id) noexcept
    {
        return ::new (place) XmlTag(ns, name.data(), static_cast<int>(name.size()), id);
    }
    /// The same with a name that is not short only where it is terminated and outlives the tag.
    static XmlTag* construct(void* place, XmlTag::Namespace* ns, const kept_text_t& name,
                             XmlTag::Id id) noexcept;
    static XmlTag::Namespace* ns(const XmlTag& tag) noexcept { return tag.ns_; }
    static void set_id(XmlTag& tag, XmlTag::Id id) noexcept { tag.id_ = id; }

    static const XmlTag* well_known(XmlTag::Id id) noexcept { return XmlTag::lookup_table[id]; }
    static void set_well_known(const XmlTag& tag) noexcept { XmlTag::lookup_table[tag.id_] = &tag; }

    /// Lets readers without the lock find one tag more, the last one of `map`.
    static void publish_last(const IdToTagMap& map) noexcept
    {
        XmlTag::run_time_tags.chunks.store(map.directory_, std::memory_order_release);
        // One thread at a time comes here.
        const unsigned int count = XmlTag::run_time_tags.count.load(std::memory_order_relaxed);
        XmlTag::run_time_tags.count.store(count + 1, std::memory_order_release);
    }
};

/// The well-known tag with an Id, or null.
inline const XmlTag* find_well_known(XmlTag::Id id) noexcept
{
    return id >= 0 && id < XmlTag::NUM_WK_IDS ? tag_access_t::well_known(id) : nullptr;
}

}  // namespace XmlTagImpl
}  // namespace Kvl

#endif
