#include "characters_impl.h"

#include "double_bytes_impl.h"
#include "escaped_bytes_impl.h"

namespace Kvl {

std::unique_ptr<const characters_t> characters_of(const char* charset, UConverter* converter)
{
    if (double_bytes_t::can_serve(converter))
        return std::make_unique<const double_bytes_t>(charset, converter);
    if (escaped_bytes_t::can_serve(converter))
        return std::make_unique<const escaped_bytes_t>(charset, converter);
    return nullptr;
}

}  // namespace Kvl
