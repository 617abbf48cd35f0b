#include <kvutil/resource.h>

namespace Kvl {

Resource::~Resource() = default;

UString Resource::text() const
{
    return UString();
}

Resource* Resource::clone() const
{
    return do_clone();
}

}  // namespace Kvl
