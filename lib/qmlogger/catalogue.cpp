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
std::optional<header_t> header_of(std::string_view header)
{
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

// -- headers that were read before ----------------------------------------------------------------

/// What a header said and what was found for its name: spares reading it for each message. It is
/// the same header while it stands at the same place with the same text, for an array may be used
/// again for another catalogue. A header without a place, or a longer one, is read each time.
struct known_header_t {
    const char* header = nullptr;
    char text[80] = {};
    int count = 0;
    nl_catd translation = nullptr;
};

constinit known_header_t g_known_headers[64];
/// The first so many are filled and never change again.
constinit std::atomic<unsigned> g_num_known_headers{0};

const known_header_t* find_known(const char* header)
{
    const std::span all(g_known_headers, g_num_known_headers.load(std::memory_order_acquire));
    for (const known_header_t& known : all)
        if (known.header == header && std::strcmp(known.text, header) == 0)
            return &known;
    return nullptr;
}

/// Only what is final: a name that was not looked for, or is to be looked for again, has no place.
void remember(const char* header, const header_t& read)
{
    const place_t* const place = find_place(read.name);
    const std::size_t size = std::strlen(header) + 1;
    if (place == nullptr || size > sizeof(known_header_t::text) ||
        g_num_known_headers.load(std::memory_order_relaxed) == std::size(g_known_headers))
        return;
    const std::lock_guard guard(ForkImpl::g_catalogues_lock);
    const unsigned used = g_num_known_headers.load(std::memory_order_relaxed);
    if (used == std::size(g_known_headers) || find_known(header) != nullptr)
        return;
    known_header_t& known = g_known_headers[used];
    known.header = header;
    std::memcpy(known.text, header, size);
    known.count = read.count;
    known.translation = place->translation;
    g_num_known_headers.store(used + 1, std::memory_order_release);
}

// -- the texts ------------------------------------------------------------------------------------

const char* text_of(const char** catalogue, int index, nl_catd translation)
{
    const char* const text = catalogue[index];
    return translation == NO_TRANSLATION ? text : translated(translation, index, text);
}

const char* text_by_reading(const char** catalogue, int index)
{
    const auto header = header_of(catalogue[0]);
    if (!header || index < 1 || index > header->count)
        return nullptr;
    const nl_catd translation = translation_of(header->name);
    remember(catalogue[0], *header);
    return text_of(catalogue, index, translation);
}

}  // namespace

const char* QmMsg::format(const char** catalogue, int index, const char*)
{
    if (catalogue == nullptr || catalogue[0] == nullptr)
        return nullptr;
    const known_header_t* const known = find_known(catalogue[0]);
    if (known == nullptr)
        return text_by_reading(catalogue, index);
    if (index < 1 || index > known->count)
        return nullptr;
    return text_of(catalogue, index, known->translation);
}

}  // namespace Log
