#include "platform_text_impl.h"

#include <kvutil/critsec.h>

#include <array>
#include <span>
#include <string.h>

namespace Kvl {
namespace {

const char* description(int error, std::span<char> room)
{
    const CriticalSection section(error_text_lock);
    return strerror_r(error, room.data(), room.size());
}

}  // namespace

UString platform_text(const std::string& bytes)
{
    // The name in capitals would reject the whole text for one malformed byte. "DEFAULT" does not,
    // even where it stands for UTF-8.
    static constexpr char SUBSTITUTING_UTF8[] = "utf-8";
    UString text;
    if (text.assign(bytes, "DEFAULT") == nullptr || text.empty())
        text.assign(bytes, SUBSTITUTING_UTF8);
    return text;
}

UString error_text(int error)
{
    std::array<char, 256> room;
    return platform_text(description(error, room));
}

}  // namespace Kvl
