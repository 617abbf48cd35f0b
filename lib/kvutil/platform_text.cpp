#include "platform_text_impl.h"

#include <array>
#include <cstring>

namespace Kvl {

UString platform_text(const std::string& bytes)
{
    // The name in capitals would reject the whole text for one malformed byte.
    static constexpr char SUBSTITUTING_UTF8[] = "utf-8";
    const char* const charset = UString::default_charset();
    UString text;
    if (std::strcmp(charset, "UTF-8") == 0 || text.assign(bytes, charset) == nullptr)
        text.assign(bytes, SUBSTITUTING_UTF8);
    return text;
}

UString error_text(int error)
{
    std::array<char, 256> room;
    return platform_text(strerror_r(error, room.data(), room.size()));
}

}  // namespace Kvl
