#ifndef KVUTIL_PNAME_H
#define KVUTIL_PNAME_H

#include <kvutil/export.h>
#include <kvutil/ustring.h>
namespace Kvl {
class KVUTIL_EXPORT Pname {
public:
    Pname();
    Pname(const UString& path);
    Pname(const Pname& o);
    Pname& operator=(const UString& path);
    Pname& operator=(const Pname& other);
    const UString& path() const;
    const UString& leaf() const;
    const UString& parent_dir() const;
    void split_leaf() const;
    void strip_trailing_separator();

private:
    UString path_;
    mutable UString leaf_;
    mutable UString parent_dir_;
};
}  // namespace Kvl

#endif
