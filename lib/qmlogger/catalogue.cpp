#include <qmlogger/qmlogger.h>

#include "fork_lock_impl.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <nl_types.h>
#include <optional>
#include <span>
#include <string_view>

namespace Log {
namespace {

constexpr int LARGEST_COUNT = 9'999;
constexpr int TRANSLATED_SET = 1;

struct header_t {
    std::string_view name;
    int count = 0;
};

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

std::optional<int> count_of(std::string_view digits)
{
    if (digits.empty())
        return std::nullopt;
    int count = 0;
    for (const char c : digits) {
        if (!is_digit(c))
            return std::nullopt;
        count = count * 10 + (c - '0');
        if (count > LARGEST_COUNT)
            return std::nullopt;
    }
    return count;
}

/// Reads "<name> <count>".
std::optional<header_t> header_of(const char* const* catalogue)
{
    if (catalogue == nullptr || catalogue[0] == nullptr)
        return std::nullopt;
    const std::string_view header = catalogue[0];
    const std::size_t blank = header.find(' ');
    if (blank == 0 || blank == header.npos)
        return std::nullopt;
    const auto count = count_of(header.substr(blank + 1));
    if (!count)
        return std::nullopt;
    return header_t{header.substr(0, blank), *count};
}

// -- translations ---------------------------------------------------------------------------------

const nl_catd NO_TRANSLATION = reinterpret_cast<nl_catd>(-1);

/// What was found for one name. Names are written in programs, so a fixed number of places serves;
/// a catalogue without a place, or with a longer name, is not translated.
struct place_t {
    char name[64] = {};
    nl_catd translation = nullptr;
};

constinit place_t g_places[64];
/// The first so many places are filled and never change again.
constinit std::atomic<unsigned> g_num_places{0};

const place_t* find_place(std::string_view name)
{
    const std::span places(g_places, g_num_places.load(std::memory_order_acquire));
    const auto found = std::find_if(places.begin(), places.end(),
                                    [&](const place_t& place) { return place.name == name; });
    return found == places.end() ? nullptr : &*found;
}

/// A failure that says nothing about whether there is a translation.
bool may_succeed_later(int error)
{
    return error == ENOMEM || error == EMFILE || error == ENFILE || error == EINTR;
}

/// catopen() takes a name with "/" in it for a path; a header does not name files.
bool can_be_translated(std::string_view name)
{
    return name.size() < sizeof(place_t::name) && name.find('/') == name.npos;
}

nl_catd open_translation(std::string_view name)
{
    const std::lock_guard guard(ForkImpl::g_catalogues_lock);
    if (const place_t* const place = find_place(name))
        return place->translation;
    const unsigned used = g_num_places.load(std::memory_order_relaxed);
    if (used == std::size(g_places))
        return NO_TRANSLATION;
    place_t& place = g_places[used];
    std::ranges::copy(name, place.name);
    place.name[name.size()] = '\0';
    errno = 0;
    place.translation = catopen(place.name, NL_CAT_LOCALE);
    if (place.translation != NO_TRANSLATION || !may_succeed_later(errno))
        g_num_places.store(used + 1, std::memory_order_release);
    return place.translation;
}

nl_catd translation_of(std::string_view name)
{
    if (const place_t* const place = find_place(name))
        return place->translation;
    if (!can_be_translated(name))
        return NO_TRANSLATION;
    const int errno_of_caller = errno;
    const nl_catd translation = open_translation(name);
    errno = errno_of_caller;
    return translation;
}

const char* translated(nl_catd translation, int index, const char* text)
{
    const int errno_of_caller = errno;
    const char* const result = catgets(translation, TRANSLATED_SET, index, text);
    errno = errno_of_caller;
    return result;
}

}  // namespace

const char* QmMsg::format(const char** catalogue, int index, const char*)
{
    const auto header = header_of(catalogue);
    if (!header || index < 1 || index > header->count)
        return nullptr;
    const nl_catd translation = translation_of(header->name);
    if (translation == NO_TRANSLATION)
        return catalogue[index];
    return translated(translation, index, catalogue[index]);
}

}  // namespace Log
