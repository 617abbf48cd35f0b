#include "kvutil_msg_impl.h"

#include <algorithm>
#include <array>
#include <functional>
#include <iterator>
#include <string_view>

namespace {

constexpr int INDEXES[] = {
#define KVUTIL_MSG(index, name, text) index,
#include "kvutil.msg"
#undef KVUTIL_MSG
};
constexpr int NUM_MESSAGES = std::size(INDEXES);

static_assert(INDEXES[0] == 1 && INDEXES[NUM_MESSAGES - 1] == NUM_MESSAGES,
              "indexes run from 1 without a gap");
static_assert(std::ranges::adjacent_find(INDEXES, std::greater_equal<>{}) == std::end(INDEXES),
              "indexes rise, each once");
static_assert(std::size(kvutil) == NUM_MESSAGES + 1, "the header entry and the messages");

/// The catalogue's name, a blank and the number of messages, so that the count follows the rows.
constexpr auto header_text()
{
    static_assert(NUM_MESSAGES >= 10 && NUM_MESSAGES <= 99, "the count has two digits");
    constexpr std::string_view NAME = "kvutil ";
    std::array<char, NAME.size() + 3> text{};
    auto* end = std::ranges::copy(NAME, text.begin()).out;
    *end++ = static_cast<char>('0' + NUM_MESSAGES / 10);
    *end = static_cast<char>('0' + NUM_MESSAGES % 10);
    return text;
}
constexpr auto HEADER = header_text();

}  // namespace

constinit const char* kvutil[] = {
    HEADER.data(),
#define KVUTIL_MSG(index, name, text) text,
#include "kvutil.msg"
#undef KVUTIL_MSG
};
