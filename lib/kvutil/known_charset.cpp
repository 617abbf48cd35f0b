#include "known_charset_impl.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>

namespace Kvl {

namespace {

// ---- asking a converter ----

constexpr std::size_t ALL = 256;

// Room enough to see that there are more than were asked about.
using few_units_t = std::array<char16_t, 2 * ALL>;
using few_bytes_t = std::array<char, 2 * ALL>;

// The units of so many bytes; nothing when they are not as many.
std::optional<few_units_t> decoded(UConverter* converter, const char* bytes, std::size_t size)
{
    few_units_t units;
    UErrorCode status = U_ZERO_ERROR;
    const std::int32_t length =
        ucnv_toUChars(converter, units.data(), static_cast<std::int32_t>(units.size()), bytes,
                      static_cast<std::int32_t>(size), &status);
    const bool is_one_each = status == U_ZERO_ERROR && static_cast<std::size_t>(length) == size;
    return is_one_each ? std::optional(units) : std::nullopt;
}

std::optional<few_bytes_t> encoded(UConverter* converter, const char16_t* units, std::size_t length)
{
    few_bytes_t bytes;
    UErrorCode status = U_ZERO_ERROR;
    const std::int32_t size =
        ucnv_fromUChars(converter, bytes.data(), static_cast<std::int32_t>(bytes.size()), units,
                        static_cast<std::int32_t>(length), &status);
    const bool is_one_each = status == U_ZERO_ERROR && static_cast<std::size_t>(size) == length;
    return is_one_each ? std::optional(bytes) : std::nullopt;
}

constexpr std::array<char, ALL> make_all_bytes()
{
    std::array<char, ALL> bytes{};
    for (std::size_t i = 0; i < ALL; ++i)
        bytes[i] = static_cast<char>(i);
    return bytes;
}

constexpr std::array<char16_t, ALL> make_all_units()
{
    std::array<char16_t, ALL> units{};
    for (std::size_t i = 0; i < ALL; ++i)
        units[i] = static_cast<char16_t>(i);
    return units;
}

constexpr std::array<char, ALL> ALL_BYTES = make_all_bytes();
constexpr std::array<char16_t, ALL> ALL_UNITS = make_all_units();

bool is_plain_both_ways(UConverter* converter, char16_t first, char16_t last)
{
    const std::size_t count = last - first + 1u;
    const char* const bytes = ALL_BYTES.data() + first;
    const char16_t* const units = ALL_UNITS.data() + first;
    const std::optional<few_units_t> in = decoded(converter, bytes, count);
    const std::optional<few_bytes_t> out = encoded(converter, units, count);
    return in && out && std::equal(units, units + count, in->data()) &&
           std::equal(bytes, bytes + count, out->data());
}

// Whether each byte is a character, whatever stands beside it.
bool is_single_byte(UConverter* converter)
{
    const UConverterType type = ucnv_getType(converter);
    return (type == UCNV_SBCS || type == UCNV_LATIN_1 || type == UCNV_US_ASCII) &&
           ucnv_getMaxCharSize(converter) == 1;
}

// @param text  shorter than the room
template <class Room>
Room terminated(std::string_view text)
{
    Room room{};
    std::copy(text.begin(), text.end(), room.begin());
    return room;
}

}  // namespace

known_charset_t::known_charset_t(std::string_view name, std::string_view icu_name,
                                 UConverter* converter)
    : used_charset_t(true), name_room_(terminated<name_room_t>(name)),
      name_(std::string_view(name_room_.data(), name.size())),
      icu_name_(terminated<name_room_t>(icu_name))
{
    learn_plain(converter);
    if (is_single_byte(converter))
        learn_table(converter);
    characters_ = characters_of(name_room_.data(), converter);
}

void known_charset_t::learn_plain(UConverter* converter) noexcept
{
    struct range_t {
        char16_t first;
        char16_t last;
    };
    // Where a charset shifts, control characters do it; DOS code pages have some of their own.
    constexpr std::array<range_t, 3> ranges = {
        {{0, LAST_OF_LATIN1}, {0, LAST_OF_ASCII}, {u' ', u'~'}}};
    for (const auto& [first, last] : ranges) {
        const bool is_all = last == LAST_OF_LATIN1;
        if ((is_all && !is_single_byte(converter)) || !is_plain_both_ways(converter, first, last))
            continue;
        first_plain_ = first;
        last_plain_ = last;
        return;
    }
}

// A unit is in the table of bytes where its byte leads back to it: the substitution byte does not.
void known_charset_t::learn_table(UConverter* converter) noexcept
{
    const std::optional<few_units_t> units = decoded(converter, ALL_BYTES.data(), ALL);
    if (!units)
        return;
    std::copy_n(units->begin(), ALL, units_.begin());
    const std::optional<few_bytes_t> back = encoded(converter, units_.data(), ALL);
    if (!back)
        return;
    has_table_ = true;
    for (std::size_t i = 0; i < ALL && has_table_; ++i) {
        const char byte = (*back)[i];
        if (units_[static_cast<unsigned char>(byte)] == units_[i])
            has_table_ = put_in_table(units_[i], byte);
    }
}

// @return  false when there are too many pages
bool known_charset_t::put_in_table(char16_t unit, char byte) noexcept
{
    unsigned char& page = page_of_[unit >> 8];
    if (page == 0) {
        if (pages_ == PAGES)
            return false;
        page = static_cast<unsigned char>(pages_++);
    }
    bytes_[page][unit & 0xFF] = byte;
    return true;
}

// ---- converting ----

void known_charset_t::decode_other(std::string_view bytes, char16_t* to,
                                   const char16_t* limit) const noexcept
{
    if (!has_table_ || is_plain(bytes))
        return widen(bytes, to, limit);
    for (const char byte : bytes)
        *to++ = units_[static_cast<unsigned char>(byte)];
}

bool known_charset_t::encode_plain(std::u16string_view text, char* to) const noexcept
{
    return narrow_whole(text, std::max(last_plain_, LAST_OF_ASCII), to) &&
           (last_plain_ >= LAST_OF_ASCII || is_plain({to, text.size()}));
}

bool known_charset_t::encode_by_table(std::u16string_view text, char* to) const noexcept
{
    bool has_all = has_table_;
    for (const char16_t unit : text) {
        *to = bytes_[page_of_[unit >> 8]][unit & 0xFF];
        has_all &= *to++ != '\0';
    }
    return has_all;
}

bool known_charset_t::encode_each(std::u16string_view text, char* to) const noexcept
{
    return encode_plain(text, to) || (has_table_ && encode_by_table(text, to));
}

std::size_t known_charset_t::encode_other(std::u16string_view text, char* to) const noexcept
{
    if (encode_each(text, to))
        return text.size();
    return characters_ == nullptr ? 0 : characters_->encode(text, to);
}

void known_charset_t::encode(std::u16string_view text, std::string& bytes) const
{
    bytes.resize_and_overwrite(
        text.size(), [&](char* to, std::size_t size) { return encode_each(text, to) ? size : 0; });
    if (!bytes.empty() || characters_ == nullptr)
        return;
    bytes.resize_and_overwrite(characters_->most_bytes() * text.size(), [&](char* to, std::size_t) {
        return characters_->encode(text, to);
    });
    if (bytes.capacity() > 2 * bytes.size())
        bytes.shrink_to_fit();
}

// ---- what is known ----

namespace {

constexpr int SET_BITS = 6;
constexpr std::size_t SLOTS_PER_SET = 4;
using slot_t = std::atomic<const known_charset_t*>;
using slot_set_t = std::array<slot_t, SLOTS_PER_SET>;

// Filled from the front, and never changed or destroyed after that: whoever reads needs no lock.
constinit std::array<slot_set_t, 1 << SET_BITS> known_charsets{};

slot_set_t& slots_for(const charset_name_t& name)
{
    // Multiplied by it, the low bits of a number decide its high bits.
    constexpr std::uint64_t SPREAD = 0x9E3779B97F4A7C15u;
    return known_charsets[(name.first + 3 * name.last) * SPREAD >> (64 - SET_BITS)];
}

}  // namespace

constinit std::atomic<const known_charset_t*> g_latin1{nullptr};

const known_charset_t* known_charset(const char* name) noexcept
{
    const charset_name_t wanted{std::string_view(name)};
    for (const slot_t& slot : slots_for(wanted)) {
        const known_charset_t* const known = slot.load(std::memory_order_acquire);
        if (known == nullptr || known->sought_name() == wanted)
            return known;
    }
    return nullptr;
}

void learn_charset(const char* name, UConverter* converter)
{
    slot_set_t& slots = slots_for(charset_name_t(name));
    const bool has_room = slots.back().load(std::memory_order_relaxed) == nullptr;
    if (!has_room || !known_charset_t::can_be_known(name) || known_charset(name) != nullptr)
        return;
    UErrorCode status = U_ZERO_ERROR;
    const char* const icu_name = ucnv_getName(converter, &status);
    if (U_FAILURE(status) || !known_charset_t::can_be_known(icu_name))
        return;
    auto learned = std::make_unique<const known_charset_t>(name, icu_name, converter);
    for (slot_t& slot : slots) {
        const known_charset_t* empty = nullptr;
        if (learned && slot.compare_exchange_strong(empty, learned.get()))
            static_cast<void>(learned.release());
    }
    const known_charset_t* const known = known_charset(name);
    if (known != nullptr && known->is_latin1() && is_same_name(name, LATIN1_NAME))
        g_latin1.store(known, std::memory_order_release);
}

}  // namespace Kvl
