#include <kvutil/oid.h>

#include "failure_impl.h"
#include "hex_impl.h"
#include "ustring_impl.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <utility>

namespace Kvl {
namespace {

// ---- Bytes ----

/// The 16 bytes in the order of the text forms.
using bytes_t = std::array<unsigned char, 16>;

constexpr unsigned char low_byte(unsigned int value)
{
    return static_cast<unsigned char>(value);
}

constexpr unsigned short joined(unsigned char high, unsigned char low)
{
    return static_cast<unsigned short>(high << 8 | low);
}

constexpr std::uint64_t big_endian(std::uint64_t value)
{
    return std::endian::native == std::endian::big ? value : __builtin_bswap64(value);
}

bytes_t bytes_of(const tbs_uuid_s& s)
{
    // As one number, its bytes are stored at once.
    const std::uint64_t time = big_endian(std::uint64_t{s.time_low} << 32 |
                                          std::uint64_t{s.time_mid} << 16 | s.time_hi_and_version);
    bytes_t b;
    std::memcpy(b.data(), &time, sizeof time);
    std::memcpy(b.data() + sizeof time, reinterpret_cast<const unsigned char*>(&s) + sizeof time,
                b.size() - sizeof time);
    return b;
}

tbs_uuid_s fields_of(const bytes_t& b)
{
    tbs_uuid_s s{std::uint32_t{joined(b[0], b[1])} << 16 | joined(b[2], b[3]),
                 joined(b[4], b[5]),
                 joined(b[6], b[7]),
                 b[8],
                 b[9],
                 {}};
    std::memcpy(s.node, &b[10], sizeof s.node);
    return s;
}

// ---- The three forms ----

/// Where the digits and the separators of a form stand.
struct form_t {
    std::size_t length = 0;
    std::array<unsigned char, 16> digit_pairs{};
    std::size_t separator_count = 0;
    std::array<unsigned char, 8> separators{};
    std::string_view pattern;
};

/// @param pattern  "xx" for each byte, any other character for itself
consteval form_t form_of(std::string_view pattern)
{
    form_t form;
    std::size_t byte = 0;
    for (; form.length < pattern.size(); ++form.length) {
        const auto position = static_cast<unsigned char>(form.length);
        if (pattern[form.length] != 'x') {
            form.separators[form.separator_count++] = position;
        } else {
            form.digit_pairs[byte++] = position;
            ++form.length;
        }
    }
    form.pattern = pattern;
    return form;
}

constexpr form_t DOTTED = form_of("xxxxxxxx.xxxxxxxx.xxxx.xx:xx:xx:xx:xx:xx");
constexpr form_t HYPHENATED = form_of("xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx");
constexpr form_t COMPACT = form_of("xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx");

static_assert(DOTTED.length == 40 && HYPHENATED.length == 36 && COMPACT.length == 32);

// ---- Writing ----

// Each for one form, so that its length and its places are constants.

/// @param text  room for COMPACT.length units
template <class Unit>
void write_compact(const tbs_uuid_s& s, Unit* text)
{
    const bytes_t bytes = bytes_of(s);
    print_hex(bytes.data(), bytes.size(), text);
}

/// @param text  room for DOTTED.length units
template <class Unit>
void write_dotted(const tbs_uuid_s& s, Unit* text)
{
    const bytes_t bytes = bytes_of(s);
    for (std::size_t i = 0; i < bytes.size(); ++i)
        hex::print_byte(bytes[i], text + DOTTED.digit_pairs[i]);
    for (std::size_t i = 0; i < DOTTED.separator_count; ++i)
        text[DOTTED.separators[i]] = static_cast<Unit>(DOTTED.pattern[DOTTED.separators[i]]);
}

std::string compact_text(const tbs_uuid_s& s)
{
    std::string text(COMPACT.length, '\0');
    write_compact(s, text.data());
    return text;
}

std::string dotted_text(const tbs_uuid_s& s)
{
    std::string text(DOTTED.length, '\0');
    write_dotted(s, text.data());
    return text;
}

UString compact_ustring(const tbs_uuid_s& s)
{
    return owned_text_t::make(COMPACT.length, [&s](char16_t* text) { write_compact(s, text); });
}

UString dotted_ustring(const tbs_uuid_s& s)
{
    return owned_text_t::make(DOTTED.length, [&s](char16_t* text) { write_dotted(s, text); });
}

// ---- Reading texts as we write them ----

/// More than a byte, also behind a shift by one digit.
constexpr unsigned short NO_DIGIT = 0x100;

using digit_values_t = std::array<unsigned short, 256>;

consteval digit_values_t digit_values()
{
    digit_values_t values{};
    values.fill(NO_DIGIT);
    for (unsigned char value = 0; value < 16; ++value) {
        values[static_cast<unsigned char>("0123456789abcdef"[value])] = value;
        values[static_cast<unsigned char>("0123456789ABCDEF"[value])] = value;
    }
    return values;
}

constexpr digit_values_t DIGIT_VALUES = digit_values();

unsigned int digit_value(char c)
{
    return DIGIT_VALUES[static_cast<unsigned char>(c)];
}

unsigned int digit_value(char16_t unit)
{
    return DIGIT_VALUES[unit & 0xFF] | (unit & 0xFF00u);
}

/// The byte of two digits; more than 0xFF when one of them is none.
template <class Unit>
unsigned int byte_of(const Unit* digits)
{
    return digit_value(digits[0]) << 4 | digit_value(digits[1]);
}

/// Reads a text that begins with all digits and separators of the form. Written out pair by pair,
/// because the places are constants then.
template <const form_t& form, class Unit, std::size_t... pair, std::size_t... separator>
bool read_exact(const Unit* text, tbs_uuid_s& result, std::index_sequence<pair...>,
                std::index_sequence<separator...>)
{
    if (!(... && (text[form.separators[separator]] ==
                  static_cast<Unit>(form.pattern[form.separators[separator]]))))
        return false;
    const unsigned int values[] = {byte_of(text + form.digit_pairs[pair])...};
    if ((... | values[pair]) > 0xFF)
        return false;
    result = fields_of({low_byte(values[pair])...});
    return true;
}

template <const form_t& form, class Unit>
bool read_exact(std::basic_string_view<Unit> text, tbs_uuid_s& result)
{
    return text.size() >= form.length &&
           read_exact<form>(text.data(), result,
                            std::make_index_sequence<form.digit_pairs.size()>(),
                            std::make_index_sequence<form.separator_count>());
}

/// What reading by the rules would find too, in one go: each field has as many digits as it may
/// have, so none of them is part of a sign or of "0x".
bool read_exact(std::string_view text, tbs_uuid_s& result)
{
    constexpr std::size_t FIRST_SEPARATOR = 8;
    if (text.size() < COMPACT.length)
        return false;
    switch (text[FIRST_SEPARATOR]) {
    case '.':
        return read_exact<DOTTED>(text, result);
    case '-':
        return read_exact<HYPHENATED>(text, result);
    default:
        return read_exact<COMPACT>(text, result);
    }
}

/// The same of a text in UTF-16 with nothing behind the form, which spares its conversion.
bool read_exact(std::u16string_view text, tbs_uuid_s& result)
{
    switch (text.size()) {
    case DOTTED.length:
        return read_exact<DOTTED>(text, result);
    case HYPHENATED.length:
        return read_exact<HYPHENATED>(text, result);
    case COMPACT.length:
        return read_exact<COMPACT>(text, result);
    default:
        return false;
    }
}

// ---- Reading as leniently as sscanf() ----

/// Reads a zero-terminated text from left to right as sscanf() does, in the C locale.
class scanner_t {
public:
    explicit scanner_t(const char* text) noexcept : at_(text) {}

    bool skip(char expected)
    {
        const bool is_there = *at_ == expected;
        at_ += is_there ? 1 : 0;
        return is_there;
    }

    /// "%x": blanks; then, within the width, a sign, "0x" and digits. Deliberate: "0x" alone is 0.
    /// @param width  most characters, 2 or more
    bool read_number(int width, std::uint32_t& value)
    {
        while (is_blank(*at_))
            ++at_;
        const bool is_negative = *at_ == '-';
        if (is_negative || *at_ == '+')
            take(width);
        bool has_digits = skip_zero_and_x(width);
        for (value = 0; width > 0 && digit_value(*at_) != NO_DIGIT; has_digits = true)
            value = value << 4 | digit_value(take(width));
        if (is_negative)
            value = 0 - value;
        return has_digits;
    }

private:
    static bool is_blank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

    char take(int& width)
    {
        --width;
        return *at_++;
    }

    bool skip_zero_and_x(int& width)
    {
        if (*at_ != '0')
            return false;
        take(width);
        if (width > 0 && (*at_ == 'x' || *at_ == 'X'))
            take(width);
        return true;
    }

    const char* at_;
};

constexpr std::size_t FIELD_COUNT = 11;
constexpr std::array<int, FIELD_COUNT> WIDTHS = {8, 4, 4, 2, 2, 2, 2, 2, 2, 2, 2};

/// What stands before each field; 0 where nothing does.
using separators_t = std::array<char, FIELD_COUNT>;
constexpr separators_t DOTTED_FIELDS = {0, '.', 0, '.', 0, '.', ':', ':', ':', ':', ':'};
constexpr separators_t HYPHENATED_FIELDS = {0, '-', '-', '-', 0, '-', 0, 0, 0, 0, 0};
constexpr separators_t COMPACT_FIELDS = {};

bool scan(const char* text, const separators_t& separators, tbs_uuid_s& result)
{
    scanner_t scanner(text);
    std::array<std::uint32_t, FIELD_COUNT> v;
    for (std::size_t i = 0; i < FIELD_COUNT; ++i) {
        if (separators[i] != 0 && !scanner.skip(separators[i]))
            return false;
        if (!scanner.read_number(WIDTHS[i], v[i]))
            return false;
    }
    result = {v[0],
              static_cast<unsigned short>(v[1]),
              static_cast<unsigned short>(v[2]),
              low_byte(v[3]),
              low_byte(v[4]),
              {low_byte(v[5]), low_byte(v[6]), low_byte(v[7]), low_byte(v[8]), low_byte(v[9]),
               low_byte(v[10])}};
    return true;
}

bool read(const std::string& text, tbs_uuid_s& result)
{
    return read_exact(std::string_view(text), result) ||
           scan(text.c_str(), DOTTED_FIELDS, result) ||
           scan(text.c_str(), HYPHENATED_FIELDS, result) ||
           scan(text.c_str(), COMPACT_FIELDS, result);
}

// What makes up the message is gone before the throw, which then has nothing to unwind here.
[[gnu::cold, gnu::noinline]] IllegalArgException rejection(const std::string& text)
{
    const UString decoded{Utf8String(text)};
    return failure<IllegalArgException>(MSG_OID_FORMAT, text, decoded);
}

}  // namespace

// ---- Uuid ----

Uuid::Uuid(const Oid& o) noexcept : Uuid(o.uuid()) {}

Uuid Uuid::gen()
{
    tbs_uuid_s s;
    const int status = brenner_tbs_uuid_gen(&s);
    if (status != 0)
        throw_runtime(MSG_UUID_NOT_GENERATED, status);
    return s;
}

std::string Uuid::std_str(bool compact) const
{
    return compact ? compact_text(fields_) : dotted_text(fields_);
}

UString Uuid::str(bool compact) const
{
    return compact ? compact_ustring(fields_) : dotted_ustring(fields_);
}

Uuid Uuid::from_string(const std::string& s)
{
    tbs_uuid_s result;
    if (!read(s, result))
        throw rejection(s);
    return result;
}

// ---- Oid ----

Oid Oid::gen()
{
    return Uuid::gen();
}

std::string Oid::std_str(bool compact) const
{
    return uuid().std_str(compact);
}

UString Oid::str(bool compact) const
{
    return uuid().str(compact);
}

Oid Oid::from_string(const std::string& s)
{
    return Uuid::from_string(s);
}

Oid Oid::from_string(const UString& s)
{
    tbs_uuid_s result;
    return read_exact(view_of(s), result) ? Oid(result) : from_string(s.utf8_str());
}

// ---- Wide streams ----

std::wostream& operator<<(std::wostream& os, const Oid& o)
{
    wchar_t text[DOTTED.length + 1] = {};
    write_dotted(o, text);
    return os << text;
}

std::wistream& operator>>(std::wistream& is, Oid& o)
{
    UString word;
    is >> word;
    if (is.fail())
        return is;
    // A wide text that is not empty becomes a text that starts with U+0000.
    word.erase(0, 1);
    tbs_uuid_s s;
    if (read(word.utf8_str(), s))
        o = s;
    else
        is.setstate(std::ios_base::failbit);
    return is;
}

}  // namespace Kvl
