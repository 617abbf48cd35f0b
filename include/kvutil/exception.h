#ifndef KVUTIL_EXCEPTION_H
#define KVUTIL_EXCEPTION_H

#include <kvutil/export.h>
#include <kvutil/stpexception.h>  // so that either header gives the whole family
namespace Kvl {
class KVUTIL_EXPORT Exception {  // a root class, unrelated to STPException
public:
    explicit Exception(const UString& text);
    Exception(const Exception& o) = default;
    Exception& operator=(const Exception& o) = default;
    virtual ~Exception();                      // 1st
    virtual UString msg() const;               // 2nd
    virtual Exception& add(const UString& s);  // 3rd
    virtual int kind() const;                  // 4th
    void log_throw();
    [[noreturn]] static void raise(const UString& text);

private:
    UString text_;
};
}  // namespace Kvl

#endif
