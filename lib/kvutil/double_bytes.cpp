#include "double_bytes_impl.h"

#include "converter_pool_impl.h"

#include <new>
#include <optional>

namespace Kvl {

namespace {

constexpr unsigned int NOTHING = 0;

// To learn a page is to ask 256 times, which costs as much as to convert so many short texts.
constexpr unsigned int MISSES_BEFORE_LEARNING = 64;

// ---- asking a converter ----

// What the converter gives at once, and nothing when there is something that it waits with.
struct units_given_t {
    units_given_t(UConverter* converter, std::string_view bytes) noexcept
    {
        UErrorCode status = U_ZERO_ERROR;
        const char* from = bytes.data();
        char16_t* to = units.data();
        ucnv_reset(converter);
        ucnv_toUnicode(converter, &to, to + units.size(), &from, from + bytes.size(), nullptr,
                       static_cast<UBool>(false), &status);
        count = to - units.data();
        waiting = ucnv_toUCountPending(converter, &status);
        is_sound = U_SUCCESS(status);
    }
    std::array<char16_t, 8> units{};
    std::ptrdiff_t count;
    std::int32_t waiting;
    bool is_sound;
};

bool is_first_byte(UConverter* converter, char byte) noexcept
{
    const units_given_t given(converter, {&byte, 1});
    return given.is_sound && given.count == 0 && given.waiting == 1;
}

// Not what stands for bytes that are no character.
bool is_substitute(char16_t unit)
{
    return unit == u'\uFFFD' || unit == u'\u001A';
}

// The unit of these bytes in any text.
std::uint16_t unit_of(UConverter* converter, std::string_view bytes) noexcept
{
    const units_given_t given(converter, bytes);
    const bool is_one = given.is_sound && given.count == 1 && given.waiting == 0;
    return is_one && !is_substitute(given.units[0]) ? given.units[0] : NOTHING;
}

// The one or two bytes of this unit in any text, as a number. None is zero: that ends a result.
std::uint16_t bytes_of(UConverter* converter, char16_t unit) noexcept
{
    UErrorCode status = U_ZERO_ERROR;
    std::array<char, 32> bytes;
    const char16_t* from = &unit;
    char* to = bytes.data();
    ucnv_reset(converter);
    ucnv_fromUnicode(converter, &to, to + bytes.size(), &from, from + 1, nullptr,
                     static_cast<UBool>(false), &status);
    const std::ptrdiff_t count = to - bytes.data();
    if (ucnv_fromUCountPending(converter, &status) != 0 || U_FAILURE(status) || count > 2)
        return NOTHING;
    unsigned int number = 0;
    for (const char* p = bytes.data(); p < to; ++p) {
        if (*p == '\0')
            return NOTHING;
        number = number << 8 | static_cast<unsigned char>(*p);
    }
    return static_cast<std::uint16_t>(number);
}

// @param name  of a charset that had a converter once
const charset_converter_t* converter_or_null(const char* name) noexcept
{
    try {
        return take_converter(name);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

}  // namespace

bool double_bytes_t::can_serve(const UConverter* converter) noexcept
{
    const UConverterType type = ucnv_getType(converter);
    return type == UCNV_MBCS || type == UCNV_DBCS;
}

double_bytes_t::double_bytes_t(const char* name, UConverter* converter) noexcept
    : name_(name), single_units_(learn_single_units(converter))
{
}

double_bytes_t::~double_bytes_t()
{
    for (slots_t* const slots : {&units_, &bytes_})
        for (const slot_t& slot : *slots)
            delete slot.page.load(std::memory_order_relaxed);
}

// ---- learning ----

double_bytes_t::page_t double_bytes_t::learn_single_units(UConverter* converter) noexcept
{
    page_t page{};
    for (std::size_t byte = 0; byte < page.size(); ++byte) {
        const char bytes = static_cast<char>(byte);
        page[byte] = unit_of(converter, {&bytes, 1});
    }
    return page;
}

double_bytes_t::page_t double_bytes_t::learn_units(UConverter* converter,
                                                   unsigned int first_byte) noexcept
{
    page_t page{};
    std::array<char, 2> bytes = {static_cast<char>(first_byte)};
    if (!is_first_byte(converter, bytes[0]))
        return page;
    for (std::size_t second = 0; second < page.size(); ++second) {
        bytes[1] = static_cast<char>(second);
        page[second] = unit_of(converter, {bytes.data(), bytes.size()});
    }
    return page;
}

double_bytes_t::page_t double_bytes_t::learn_bytes(UConverter* converter,
                                                   unsigned int high_byte) noexcept
{
    page_t page{};
    for (std::size_t low = 0; low < page.size(); ++low)
        page[low] = bytes_of(converter, static_cast<char16_t>(high_byte << 8 | low));
    return page;
}

// @return  null when the page is not worth it yet, or there is no memory
const double_bytes_t::page_t* double_bytes_t::learned(slot_t& slot, unsigned int number,
                                                      learn_t learn) const noexcept
{
    if (slot.misses.fetch_add(1, std::memory_order_relaxed) < MISSES_BEFORE_LEARNING)
        return nullptr;
    const charset_converter_t* const converter = converter_or_null(name_);
    if (converter == nullptr)
        return nullptr;
    const page_t* const mine = new (std::nothrow) page_t(learn(converter->handle, number));
    give_back_converter(converter);
    const page_t* page = nullptr;
    if (mine == nullptr || slot.page.compare_exchange_strong(page, mine, std::memory_order_acq_rel))
        return mine;
    delete mine;
    return page;
}

// ---- converting ----

inline unsigned int double_bytes_t::look_up(slots_t& slots, unsigned int number,
                                            unsigned int in_page, learn_t learn) const noexcept
{
    slot_t& slot = slots[number];
    const page_t* page = slot.page.load(std::memory_order_acquire);
    if (page == nullptr)
        page = learned(slot, number, learn);
    return page == nullptr ? NOTHING : (*page)[in_page];
}

std::size_t double_bytes_t::decode(std::string_view bytes, char16_t* to) const noexcept
{
    const char16_t* const begin = to;
    const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
    for (const unsigned char* const end = p + bytes.size(); p < end; ++p) {
        unsigned int unit = single_units_[*p];
        if (unit == NOTHING && end - p > 1) {
            unit = look_up(units_, p[0], p[1], learn_units);
            ++p;
        }
        if (unit == NOTHING)
            return 0;
        *to++ = static_cast<char16_t>(unit);
    }
    return static_cast<std::size_t>(to - begin);
}

std::size_t double_bytes_t::encode(std::u16string_view text, char* to) const noexcept
{
    const char* const begin = to;
    for (const char16_t unit : text) {
        const unsigned int bytes = look_up(bytes_, unit >> 8, unit & 0xFF, learn_bytes);
        if (bytes == NOTHING)
            return 0;
        // One byte is written over the first of two.
        *to = static_cast<char>(bytes >> 8);
        to += bytes > 0xFF;
        *to++ = static_cast<char>(bytes);
    }
    return static_cast<std::size_t>(to - begin);
}

}  // namespace Kvl
