#include <kvutil/exception.h>

namespace Kvl {

Exception::Exception(const UString& text) : text_(text) {}

Exception::~Exception() = default;

UString Exception::msg() const
{
    return text_;
}

Exception& Exception::add(const UString& s)
{
    text_.append(s);
    return *this;
}

int Exception::kind() const
{
    return 0;
}

void Exception::log_throw()
{
    // Deliberate: nothing. The one place where logging at the time of a throw would go.
}

void Exception::raise(const UString& text)
{
    Exception e(text);
    e.log_throw();
    // NOLINTNEXTLINE(cert-err60-cpp): a copy owns its text; without memory it is std::bad_alloc.
    throw e;
}

}  // namespace Kvl
