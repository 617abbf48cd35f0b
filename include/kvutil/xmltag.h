#ifndef KVUTIL_XMLTAG_H
#define KVUTIL_XMLTAG_H

#include <kvutil/export.h>
#include <kvutil/ustring.h>
namespace Kvl {
class KVUTIL_EXPORT XmlTag {
public:
    typedef int Id;
    typedef int NsId;
    enum Format { START_TAG = 0, END_TAG = 1, EMPTY_TAG = 2 };
    struct KVUTIL_EXPORT Namespace {  // public record; g_namespace_array hands it out
        Namespace(const UString& uri, NsId id, bool has_wk_tags, bool open_names);
        const UString& uri;
        NsId id;
        bool has_wk_tags;
        bool open_names;
        std::map<UString, const XmlTag*> tags;
        std::vector<const XmlTag*> wk_tags;
    };
    struct KVUTIL_EXPORT CompareNamespacePtr {
        bool operator()(const Namespace* a, const Namespace* b) const;
        bool operator()(const Namespace* a, const UString& uri) const;
        bool operator()(const UString& uri, const Namespace* b) const;
    };
    static constexpr Id NUM_WK_IDS = 1155;
    static constexpr NsId NUM_WK_NAMESPACES = 21;
    static const UString EMPTY_NS_PREFIX;
    XmlTag(NsId nsid, const unsigned short* name, Id id);  // registers; load time only
    XmlTag(NsId nsid, const char16_t* name, Id id);
    XmlTag(const UString& ns_uri, const UString& name);
    const UString& ns() const;
    NsId ns_id() const;
    bool is_well_known_namespace() const;
    const UString& simple_name() const;
    Id id() const;
    UString to_string() const;
    UString format(Format f, const UString& prefix = EMPTY_NS_PREFIX) const;
    static UString format(Format f, Id id, const UString& prefix = EMPTY_NS_PREFIX);
    static const XmlTag* lookup(Id id);
    static const XmlTag* lookup(NsId nsid, const UString& name);
    static const XmlTag* lookup(XmlTag& tag);
    static const UString& ns_abbreviation(NsId nsid);
    static const UString& ns_URI(NsId nsid);
    static NsId ns_lookup_abbreviation(const UString& abbreviation);
    static bool is_well_known_namespace(const UString& uri);
    static std::vector<Namespace*>* create_wk_namespaces();
    bool operator<(const XmlTag& o) const;
    bool operator==(const XmlTag& o) const;
    bool operator!=(const XmlTag& o) const;
    static Namespace* g_namespace_array[21];
    static Id g_num_defined_tags;
    static std::vector<Namespace*>* g_sorted_namespace_vector;
    static std::vector<Namespace*>* g_nsid_to_namespace_map;

private:
    Namespace* ns_;
    UString simple_name_;
    Id id_;
};
namespace XmlTagImpl {
struct KVUTIL_EXPORT CompareXmlTagSimpleName {
    bool operator()(const XmlTag* a, const XmlTag* b) const;
    bool operator()(const XmlTag* a, const UString& name) const;
    bool operator()(const UString& name, const XmlTag* b) const;
};
class KVUTIL_EXPORT IdToTagMap {
public:
    IdToTagMap();
    ~IdToTagMap();
    const XmlTag*& operator[](XmlTag::Id id);
};
}  // namespace XmlTagImpl
KVUTIL_EXPORT XmlTag create(const unsigned short* abbreviation, const unsigned short* name,
                            XmlTag::Id id);  // must return a prvalue
KVUTIL_EXPORT XmlTag create(const char16_t* abbreviation, const char16_t* name, XmlTag::Id id);
KVUTIL_EXPORT bool sort_namespaces_sorted_wk_tag_vectors();
namespace WkTag {                // in the real header: one line per row, from xmltag_wk.def
extern const XmlTag& NIL_TAG;    // Id 0
extern const XmlTag& ACL_ENTRY;  // Id 3
}  // namespace WkTag
namespace WkTagId {
enum : XmlTag::Id { NIL_TAG = 0, ACL_ENTRY = 3 };
}  // namespace WkTagId
}  // namespace Kvl

#endif
