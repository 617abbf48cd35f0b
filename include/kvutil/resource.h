#ifndef KVUTIL_RESOURCE_H
#define KVUTIL_RESOURCE_H

#include <kvutil/export.h>
#include <kvutil/ustring.h>
namespace Kvl {
class KVUTIL_EXPORT Resource {
public:
    virtual ~Resource();                     // 1st
    virtual Resource* do_clone() const = 0;  // 2nd: the virtual copy operation
    virtual UString text() const;  // 3rd: the resource's text; base version returns the empty text
    Resource* clone() const;       // non-virtual, returns do_clone()
};
}  // namespace Kvl

#endif
