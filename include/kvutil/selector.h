#ifndef KVUTIL_SELECTOR_H
#define KVUTIL_SELECTOR_H

#include <kvutil/export.h>
#include <kvutil/xmltag.h>
namespace Kvl {
class KVUTIL_EXPORT Selector {
public:
    enum namespace_t : int {
        NS_ACTION = 0,
        NS_ACTIVITY,
        NS_ATTYPE,
        NS_BASELINE,
        NS_BRTYPE,
        NS_COMPONENT,
        NS_DBID,
        NS_DBSET,
        NS_DEFAULT,
        NS_DOMAINSERVER,
        NS_CHOICELIST,
        NS_ELTYPE,
        NS_FAST,
        NS_FIELD,
        NS_FILE,
        NS_FOLDER,
        NS_FORM,
        NS_GROUP,
        NS_HLINK,
        NS_HLTYPE,
        NS_HOOK,
        NS_HTTP,
        NS_HTTPS,
        NS_INVALID,
        NS_LBTYPE,
        NS_LEGACYSERVER,
        NS_NONE,
        NS_OID,
        NS_PNAME,
        NS_IMPLICIT,
        NS_POOL,
        NS_PROJECT,
        NS_PROJCONFIG,
        NS_QUERY,
        NS_RECORD,
        NS_REGISTRYREGION,
        NS_REPLICA,
        NS_REPLICAUUID,
        NS_REPO,
        NS_RPTYPE,
        NS_STREAM,
        NS_TRTYPE,
        NS_USER,
        NS_USERDB,
        NS_VIEWTAG,
        NS_VIEWUUID,
        NS_VOB,
        NS_VOBTAG,
        NS_VOBTAGASDIRECTORY,
        NS_WORKSPACE,
        NS_BRANCH,
        NS_VOBUUID
    };
    enum provider_domain_t : int { PD_VD = 0, PD_OB = 1, PD_INVALID = 2, PD_NONE = 3 };
    static const UString NAMESPACE_FIELD_SEP, DOMAIN_FIELD_SEP, REPO_FIELD_SEP, SEGMENT_SEP,
        OTHER_SEGMENT_SEP, ESCAPE_CHAR;
    static const UString g_delimiters[5];
    static constexpr int g_delimiters_length = 5;
    Selector();                     // nil: NS_NONE, PD_NONE, 0, "", ""
    Selector(const UString& text);  // parses; implicit so that both spellings work
    Selector(namespace_t ns, provider_domain_t domain, XmlTag::Id resource_type,
             const UString& name, const UString& repository);
    namespace_t ns() const;
    provider_domain_t domain() const;
    XmlTag::Id resource_type() const;
    const UString& name() const;
    const UString& repository() const;
    bool is_nil() const;
    UString to_string_with_domain() const;
    UString selector() const;
    Selector child(const UString& child_name, namespace_t ns = NS_NONE) const;
    Selector parent() const;
    Selector recompose_with_name(const UString& name) const;
    static const UString& namespace_string(namespace_t ns);
    static const UString& provider_domain_string(provider_domain_t pd);
    static std::vector<UString> split_segments(const UString& text, const UString& separator);
    static UString replaceAll(const UString& source, const UString& from, const UString& to);
    static UString join_segments(const std::vector<UString>& segments, const UString& separator,
                                 unsigned int start = 0, unsigned int count = UString::npos);
    static UString encode_segment(const UString& segment);
    static UString decode_string(const UString& text);

private:
    namespace_t ns_;
    provider_domain_t domain_;
    XmlTag::Id resource_type_;
    UString name_;
    UString repository_;
    mutable UString text_cache_;
    mutable std::string narrow_cache_;
};
}  // namespace Kvl

#endif
