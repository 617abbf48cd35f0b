#ifndef KVUTIL_XMLTAG_H
#define KVUTIL_XMLTAG_H

#include <kvutil/export.h>
#include <kvutil/ustring.h>

#include <atomic>
#include <map>
#include <vector>

namespace Kvl {

namespace XmlTagImpl {
class IdToTagMap;
struct kept_text_t;
struct tag_access_t;
}  // namespace XmlTagImpl

/// A qualified XML name, namespace and local name, with a numeric identity of the whole process.
///
/// The names that both sides of the protocol know in advance have fixed Ids (see WkTag and
/// WkTagId); every other name gets the next free Id when lookup() first meets it. An Id stands for
/// one pair of namespace and local name until the process ends, so Ids may be kept and compared
/// instead of texts. The registry never forgets: each registered name keeps about 320 bytes, and
/// one of more than 26 units its text, so names from the wire that need no identity are better left
/// unregistered.
///
/// Deliberate: a tag built from texts has Id 0 until it is given to lookup(XmlTag&), and prints as
/// "<nil-tag>" until then.
/// @par Thread-safety
/// Static operations may be called from any thread after load; look-ups of names, Ids and URIs
/// that are known already take no lock. A tag object is used like any value: reading it from
/// several threads is safe, changing it is not.
class KVUTIL_EXPORT XmlTag {
public:
    typedef int Id;    ///< 0 the nil tag, 1 to 1154 fixed, 1155 and up in order of registration
    typedef int NsId;  ///< -1 none, 0 to 20 fixed, 21 and up in order of creation

    /// The three text forms of format().
    enum Format : int {
        START_TAG = 0,  ///< `<A:acl-entry>`
        END_TAG = 1,    ///< `</A:acl-entry>`
        EMPTY_TAG = 2   ///< `<A:acl-entry/>`
    };

    /// One namespace, created once per URI and never destroyed. `tags` and `wk_tags` belong to the
    /// registry; the other fields never change.
    struct KVUTIL_EXPORT Namespace {
        /// @param uri          its URI, which outlives the namespace: only the reference is kept
        /// @param id           its number, 0 or above
        /// @param has_wk_tags  whether a name is looked for in `wk_tags` first
        /// @param open_names   whether users define the names
        Namespace(const UString& uri, NsId id, bool has_wk_tags, bool open_names);

        const UString& uri;  ///< the namespace URI, compared case-sensitively
        NsId id;             ///< never -1
        bool has_wk_tags;    ///< true for the well-known namespaces but "ATR:" and "FLD:"
        bool open_names;     ///< true for "ATR:" and "FLD:" only; the registry does not read it
        std::map<UString, const XmlTag*> tags;  ///< the tags registered at run time, by local name
        std::vector<const XmlTag*> wk_tags;     ///< the well-known tags, sorted by local name
    };

    /// Orders namespaces by URI, the order of g_sorted_namespace_vector. Never throws.
    struct KVUTIL_EXPORT CompareNamespacePtr {
        /// Whether the first URI comes before the second.
        bool operator()(const Namespace* a, const Namespace* b) const noexcept;
        bool operator()(const Namespace* a, const UString& uri) const noexcept;
        bool operator()(const UString& uri, const Namespace* b) const noexcept;
    };

    static constexpr Id NUM_WK_IDS = 1155;         ///< fixed Ids, and the first run-time Id
    static constexpr NsId NUM_WK_NAMESPACES = 21;  ///< fixed NsIds, and the first run-time NsId
    static const UString EMPTY_NS_PREFIX;          ///< the empty text; format() then writes xmlns

    /// Registers a well-known tag, this very object, which must live until the process ends. For
    /// use while libraries are loaded, by one thread. A name is found by lookup(NsId, name) once
    /// sort_namespaces_sorted_wk_tag_vectors() has run.
    /// @param nsid  0 to 20; -1 for no namespace
    /// @param name  the local name; empty or null leaves the tag without a namespace
    /// @param id    0 to 1154, not yet taken
    /// @throws StateException  PLXSV0653E: `id` is taken, or `id` or `nsid` is out of range;
    ///                         nothing is registered
    /// @throws std::bad_alloc  nothing is registered
    XmlTag(NsId nsid, const unsigned short* name, Id id);
    XmlTag(NsId nsid, const char16_t* name, Id id);  ///< @overload

    /// A tag that is not registered: its Id is 0. The namespace is created when `ns_uri` is new,
    /// the empty URI included, and stays.
    /// @param ns_uri  the namespace URI, compared exactly; bogus is the empty one
    /// @param name    the local name; bogus is the empty one
    /// @throws std::bad_alloc  no namespace was created
    XmlTag(const UString& ns_uri, const UString& name);

    /// Namespace, name and Id; a copy is not registered in its own right.
    XmlTag(const XmlTag& o);
    XmlTag(XmlTag&& o) noexcept;
    XmlTag& operator=(const XmlTag& o);
    XmlTag& operator=(XmlTag&& o) noexcept;
    ~XmlTag();

    /// @return the namespace URI; empty for a tag without a namespace. Never throws.
    const UString& ns() const noexcept { return ns_ != nullptr ? ns_->uri : EMPTY_NS_PREFIX; }

    /// @return the namespace's number; -1 for a tag without a namespace. Never throws.
    NsId ns_id() const noexcept { return ns_ != nullptr ? ns_->id : -1; }

    /// @return whether the tag has one of the 21 well-known namespaces. Never throws.
    bool is_well_known_namespace() const noexcept
    {
        return ns_ != nullptr && ns_->id < NUM_WK_NAMESPACES;
    }

    /// @return the local name. Never throws.
    const UString& simple_name() const noexcept { return simple_name_; }

    /// @return the Id; 0 for the nil tag and for tags that are not registered. Never throws.
    Id id() const noexcept { return id_; }

    /// The URI, "/" and the local name; "<nil-tag>" when the Id is 0. A tag that has an Id but no
    /// namespace gives "/" and its local name.
    /// @throws std::bad_alloc  no memory, or more than 2^31 - 1 units of text
    UString to_string() const;

    /// The tag as XML. A tag without a namespace is written with xmlns="".
    /// @param f       which of the three forms
    /// @param prefix  used as it is, followed by ":"; give it without its colon. Empty: start and
    ///                empty-element tags carry an xmlns attribute instead
    /// @throws std::bad_alloc  no memory, or more than 2^31 - 1 units of text
    UString format(Format f, const UString& prefix = EMPTY_NS_PREFIX) const;

    /// format() of lookup(id), with the failures of both.
    /// @param f       which of the three forms
    /// @param id      an assigned Id
    /// @param prefix  as above
    static UString format(Format f, Id id, const UString& prefix = EMPTY_NS_PREFIX);

    /// The tag with an Id.
    /// @param id  an assigned Id
    /// @return    the registered tag, never null, valid until the process ends
    /// @throws IllegalArgException  PLXSV0655E: `id` is negative, or 1155 or above and not yet
    ///                              assigned
    /// @throws StateException       PLXSV0653E: `id` is one of the fixed numbers that no tag has
    static const XmlTag* lookup(Id id)
    {
        const auto index = static_cast<unsigned int>(id);
        constexpr auto first = static_cast<unsigned int>(NUM_WK_IDS);
        const XmlTag* const tag =
            index < first ? lookup_table[index] : find_run_time(index - first);
        return tag != nullptr ? tag : reject(id);
    }

    /// The tag with a name, registered now when it is new.
    /// @param nsid  an existing namespace
    /// @param name  the local name
    /// @return      the registered tag, never null, valid until the process ends
    /// @throws IllegalArgException  PLXSV0656E: there is no namespace `nsid`
    /// @throws std::bad_alloc       nothing was registered
    static const XmlTag* lookup(NsId nsid, const UString& name);

    /// The registered tag equal to `tag`, registered now when there is none.
    ///
    /// Deliberate: the Id of `tag` is written only when a new one is assigned; a tag that was
    /// known keeps the Id it had. Use the result, not the argument.
    /// @param tag  a tag with a namespace
    /// @return     the registered tag, never null, valid until the process ends
    /// @throws IllegalArgException  PLXSV0656E: `tag` has no namespace
    /// @throws std::bad_alloc       nothing was registered, `tag` is unchanged
    static const XmlTag* lookup(XmlTag& tag);

    /// The short name of a well-known namespace, with its colon.
    /// @param nsid  0 to 20
    /// @throws IllegalArgException  PLXSV0654E: any other value; run-time namespaces have none
    static const UString& ns_abbreviation(NsId nsid);

    /// The URI of a namespace.
    /// @param nsid  an existing namespace, well-known or run-time
    /// @throws IllegalArgException  PLXSV0654E: there is no namespace `nsid`
    static const UString& ns_URI(NsId nsid);

    /// @param abbreviation  compared exactly, colon included ("ACL:")
    /// @return              0 to 20; -1 for an unknown one. Never throws.
    static NsId ns_lookup_abbreviation(const UString& abbreviation) noexcept;

    /// @param uri  compared exactly
    /// @return     whether it is the URI of one of the 21 well-known namespaces. Never throws.
    static bool is_well_known_namespace(const UString& uri) noexcept;

    /// Builds the 21 well-known namespaces when the library is loaded; later calls change nothing.
    /// @return g_sorted_namespace_vector
    static std::vector<Namespace*>* create_wk_namespaces();

    /// Orders by namespace, then by local name. The order of namespaces is that of their
    /// addresses: stable within the process, not alphabetical. Ids are not compared. Never throws.
    bool operator<(const XmlTag& o) const noexcept;

    /// Same namespace and local name, whatever the Ids. Never throws.
    bool operator==(const XmlTag& o) const noexcept;
    bool operator!=(const XmlTag& o) const noexcept;  ///< @overload

    /// @name State of the registry
    /// For reading. The first is complete after load; the others change whenever a name or a URI
    /// is registered, so reading them while another thread may register is a data race.
    /// @{
    static Namespace* g_namespace_array[21];  ///< the well-known namespaces by NsId
    static Id g_num_defined_tags;             ///< the next Id to assign; 1155 at first
    static std::vector<Namespace*>* g_sorted_namespace_vector;  ///< all namespaces, by URI
    static std::vector<Namespace*>* g_nsid_to_namespace_map;    ///< run-time namespaces, by NsId
    /// @}

private:
    friend class XmlTagImpl::IdToTagMap;
    friend struct XmlTagImpl::tag_access_t;
    inline XmlTag(Namespace* ns, const char16_t* simple_name, int length_units, Id id) noexcept;
    XmlTag(Namespace* ns, const XmlTagImpl::kept_text_t& name, Id id) noexcept;

    /// The run-time tag with Id NUM_WK_IDS + `index`, or null. Takes no lock.
    static const XmlTag* find_run_time(unsigned int index)
    {
        if (index >= run_time_tags.count.load(std::memory_order_acquire))
            return nullptr;
        // Acquired in its own right: it may be a directory of a tag later than the number says.
        const void* const chunk =
            run_time_tags.chunks.load(std::memory_order_acquire)[index / CHUNK_SIZE];
        return static_cast<const XmlTag* const*>(chunk)[index % CHUNK_SIZE];
    }
    [[noreturn]] static const XmlTag* reject(Id id);

    // The well-known tags by Id; null where an Id is not assigned. Constant after load.
    static const XmlTag* lookup_table[NUM_WK_IDS];

    // The run-time tags for readers without the lock: so many are complete, in these chunks.
    static constexpr unsigned int CHUNK_SIZE = 128;
    struct run_time_tags_t {
        std::atomic<unsigned int> count;
        std::atomic<const void* const*> chunks;
    };
    static run_time_tags_t run_time_tags;

    Namespace* ns_;
    UString simple_name_;
    Id id_;
};

namespace XmlTagImpl {

/// Orders tags by local name, the order of XmlTag::Namespace::wk_tags. Never throws.
struct KVUTIL_EXPORT CompareXmlTagSimpleName {
    /// Whether the first name comes before the second.
    bool operator()(const XmlTag* a, const XmlTag* b) const noexcept;
    bool operator()(const XmlTag* a, const UString& name) const noexcept;
    bool operator()(const UString& name, const XmlTag* b) const noexcept;
};

/// Run-time tags by Id: a list of chunks of 128 entries that never move, so that a reference to an
/// entry stays valid. The tags are not owned.
/// @par Thread-safety
/// As any container: one thread at a time.
class KVUTIL_EXPORT IdToTagMap {
public:
    constexpr IdToTagMap() noexcept = default;
    ~IdToTagMap();
    IdToTagMap(const IdToTagMap&) = delete;
    IdToTagMap& operator=(const IdToTagMap&) = delete;

    /// The entry of an Id, null until it is written. An Id past the last chunk appends exactly one
    /// chunk and gives the entry at the Id's place in it: Ids come one after the other.
    /// @param id  1155 or above
    /// @throws IllegalArgException  PLXSV0655E: `id` is below 1155
    /// @throws std::bad_alloc       no chunk was appended
    const XmlTag*& operator[](XmlTag::Id id);

private:
    friend struct tag_access_t;
    void append_chunk();
    void grow_directory();

    // The chunks. A directory that has become too small is kept, for threads that are reading it;
    // the place before a directory's first chunk refers to the one before it.
    void** directory_ = nullptr;
    unsigned int capacity_chunks_ = 0;
    unsigned int num_chunks_ = 0;
};

}  // namespace XmlTagImpl

/// Constructs a well-known tag in place from a namespace abbreviation: the object that the result
/// initialises is the one that is registered. For use while libraries are loaded, by one thread.
/// @param abbreviation  with its colon; one that names no namespace leaves the tag without
/// @param name          the local name
/// @param id            0 to 1154, not yet taken
/// @throws StateException  PLXSV0653E: `id` is taken or out of range; nothing is registered
/// @throws std::bad_alloc  nothing is registered
KVUTIL_EXPORT XmlTag create(const unsigned short* abbreviation, const unsigned short* name,
                            XmlTag::Id id);
KVUTIL_EXPORT XmlTag create(const char16_t* abbreviation, const char16_t* name,
                            XmlTag::Id id);  ///< @overload

/// Sorts the well-known tags of every namespace by local name, so that look-ups find those that
/// create() added. For use while libraries are loaded, by one thread.
/// @return true
KVUTIL_EXPORT bool sort_namespaces_sorted_wk_tag_vectors();

/// The well-known tags: ACL_ENTRY is the registered tag with Id 3, and so on for each row of
/// kvutil/xmltag_wk.def. `&WkTag::ACL_ENTRY == XmlTag::lookup(WkTagId::ACL_ENTRY)`.
namespace WkTag {
#define KVUTIL_WK_TAG(id, constant, abbreviation, name) extern KVUTIL_EXPORT const XmlTag& constant;
#include <kvutil/xmltag_wk.def>
#undef KVUTIL_WK_TAG
}  // namespace WkTag

/// The Ids of the well-known tags: ACL_ENTRY is 3, and so on for each row of
/// kvutil/xmltag_wk.def.
namespace WkTagId {
enum : XmlTag::Id {
#define KVUTIL_WK_TAG(id, constant, abbreviation, name) constant = id,
#include <kvutil/xmltag_wk.def>
#undef KVUTIL_WK_TAG
};
}  // namespace WkTagId

}  // namespace Kvl

#endif
