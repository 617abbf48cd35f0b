#include <qmlogger/qmlogger.h>

#include "message_buffer_impl.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <new>
#include <string_view>

namespace Log {
namespace {

using MessageImpl::message_buffer;

constexpr int LARGEST_FIELD = 65'535;  // widths and precisions
constexpr int LARGEST_RECORD = 4096;   // n of `n$`

/// Where a width or a precision, or the value itself, comes from.
struct source_t {
    enum kind_t { NOTHING, NUMBER, NEXT_RECORD, RECORD } kind = NOTHING;
    int number = 0;
};

struct conversion_t {
    bool left = false, plus = false, blank = false, alternative = false, zero = false;
    source_t value{source_t::NEXT_RECORD, 0};
    source_t width_source, precision_source;
    int width = 0;
    int precision = -1;  // -1 = not given
    int narrow_bits = 64;
    char letter = 0;
};

// -- reading a conversion -------------------------------------------------------------------------

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

/// Reads digits; above LARGEST_FIELD the number stays there.
const char* read_number(const char* p, int& number)
{
    number = 0;
    for (; is_digit(*p); ++p)
        number = number > LARGEST_FIELD / 10 ? LARGEST_FIELD + 1 : number * 10 + (*p - '0');
    if (number > LARGEST_FIELD)
        number = LARGEST_FIELD;
    return p;
}

/// Reads `n$`. @return `p` when there is none, null when n is no record's number.
const char* read_record_number(const char* p, source_t& source)
{
    int number = 0;
    const char* const end = read_number(p, number);
    if (end == p || *end != '$')
        return p;
    if (number < 1 || number > LARGEST_RECORD)
        return nullptr;
    source = {source_t::RECORD, number};
    return end + 1;
}

const char* read_flags(const char* p, conversion_t& c)
{
    for (;; ++p) {
        switch (*p) {
        case '-':
            c.left = true;
            break;
        case '+':
            c.plus = true;
            break;
        case ' ':
            c.blank = true;
            break;
        case '#':
            c.alternative = true;
            break;
        case '0':
            c.zero = true;
            break;
        case '\'':
            break;
        default:
            return p;
        }
    }
}

/// Reads a width or what follows the `.` of a precision. @return null for a bad `*n$`.
const char* read_field(const char* p, source_t& source)
{
    if (*p == '*') {
        source.kind = source_t::NEXT_RECORD;
        return read_record_number(p + 1, source);
    }
    if (!is_digit(*p))
        return p;
    source.kind = source_t::NUMBER;
    return read_number(p, source.number);
}

const char* read_precision(const char* p, source_t& source)
{
    if (*p != '.')
        return p;
    source = {source_t::NUMBER, 0};
    return read_field(p + 1, source);
}

const char* read_length(const char* p, int& narrow_bits)
{
    switch (*p) {
    case 'h':
        narrow_bits = p[1] == 'h' ? 8 : 16;
        return p[1] == 'h' ? p + 2 : p + 1;
    case 'l':
        return p[1] == 'l' ? p + 2 : p + 1;
    case 'j':
    case 'z':
    case 't':
    case 'q':
    case 'L':
        return p + 1;
    default:
        return p;
    }
}

const char* read_letter(const char* p, char& letter)
{
    constexpr std::string_view LETTERS = "diuxXoceEfFgGaAs";
    letter = *p;
    return *p != '\0' && LETTERS.find(*p) != LETTERS.npos ? p + 1 : nullptr;
}

/// Reads what follows a `%`. @return the end of the conversion, null when it is none.
const char* read_conversion(const char* p, conversion_t& c)
{
    p = read_record_number(p, c.value);
    if (p == nullptr)
        return nullptr;
    p = read_field(read_flags(p, c), c.width_source);
    if (p == nullptr)
        return nullptr;
    p = read_precision(p, c.precision_source);
    if (p == nullptr)
        return nullptr;
    return read_letter(read_length(p, c.narrow_bits), c.letter);
}

// -- the records ----------------------------------------------------------------------------------

class records_t {
public:
    explicit records_t(const cxPrintfArgVal* args) : args_(args) {}

    const cxPrintfArgVal* next() { return args_ == nullptr ? nullptr : &args_[next_++]; }

    const cxPrintfArgVal* from(const source_t& source)
    {
        if (source.kind == source_t::NEXT_RECORD)
            return next();
        return args_ == nullptr ? nullptr : &args_[source.number - 1];
    }

private:
    const cxPrintfArgVal* args_;
    std::size_t next_ = 0;
};

long long integer_of(const cxPrintfArgVal* record)
{
    return record == nullptr ? 0 : record->i;
}

const char* text_of(const cxPrintfArgVal* record)
{
    const void* const text = record == nullptr ? nullptr : record->p;
    return text == nullptr ? "(null)" : static_cast<const char*>(text);
}

/// A record may hold bits that are no number of the x87 format (an exponent, but no integer bit);
/// what printf makes of those is not defined.
long double floating_of(const cxPrintfArgVal* record)
{
    if (record == nullptr)
        return 0;
#if __LDBL_MANT_DIG__ == 64
    struct {
        std::uint64_t fraction;
        std::uint16_t sign_and_exponent;
    } bits;
    std::memcpy(&bits.fraction, record, 8);
    std::memcpy(&bits.sign_and_exponent, reinterpret_cast<const char*>(record) + 8, 2);
    if ((bits.sign_and_exponent & 0x7FFF) != 0 && (bits.fraction >> 63) == 0)
        return std::numeric_limits<long double>::quiet_NaN();
#endif
    return record->d;
}

int field_of(long long value)
{
    return value > LARGEST_FIELD ? LARGEST_FIELD : static_cast<int>(value);
}

void take_width(conversion_t& c, records_t& records)
{
    if (c.width_source.kind == source_t::NUMBER)
        c.width = c.width_source.number;
    if (c.width_source.kind <= source_t::NUMBER)
        return;
    const long long value = integer_of(records.from(c.width_source));
    c.left = c.left || value < 0;
    c.width = value < -LARGEST_FIELD ? LARGEST_FIELD : field_of(value < 0 ? -value : value);
}

void take_precision(conversion_t& c, records_t& records)
{
    if (c.precision_source.kind == source_t::NUMBER)
        c.precision = c.precision_source.number;
    if (c.precision_source.kind <= source_t::NUMBER)
        return;
    const long long value = integer_of(records.from(c.precision_source));
    c.precision = value < 0 ? -1 : field_of(value);
}

// -- printing -------------------------------------------------------------------------------------

/// Prints text between blanks up to the width.
void print_padded(message_buffer& out, const conversion_t& c, std::string_view text)
{
    const auto width = static_cast<std::size_t>(c.width);
    const std::size_t padding = width > text.size() ? width - text.size() : 0;
    if (!c.left)
        out.fill(padding, ' ');
    out.append(text.data(), text.size());
    if (c.left)
        out.fill(padding, ' ');
}

void print_character(message_buffer& out, const conversion_t& c, long long value)
{
    const char character = static_cast<char>(static_cast<unsigned char>(value));
    print_padded(out, c, {&character, 1});
}

/// How many bytes a UTF-8 character has that begins with `lead`; 1 for a byte that begins none.
std::size_t utf8_size(unsigned char lead)
{
    return lead < 0xC2 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : lead < 0xF5 ? 4 : 1;
}

/// The size of `text` without the beginning of a character that was cut off at its end. A message
/// with half a character in it would be no UTF-8 any more.
std::size_t without_partial_character(const char* text, std::size_t size)
{
    for (std::size_t back = 1; back <= 3 && back <= size; ++back) {
        const auto byte = static_cast<unsigned char>(text[size - back]);
        if ((byte & 0xC0) != 0x80)
            return utf8_size(byte) > back ? size - back : size;
    }
    return size;
}

void print_text(message_buffer& out, const conversion_t& c, const char* text)
{
    if (c.precision < 0)
        return print_padded(out, c, text);
    const auto most = static_cast<std::size_t>(c.precision);
    const std::size_t size = strnlen(text, most);
    print_padded(out, c, {text, size < most ? size : without_partial_character(text, size)});
}

/// Digits are written backwards from the end of a buffer that holds 64 bits in octal.
class digits_t {
public:
    digits_t(std::uint64_t value, unsigned base, const char* alphabet)
    {
        for (; value != 0; value /= base)
            *--begin_ = alphabet[value % base];
    }
    std::string_view view() const
    {
        return {begin_, static_cast<std::size_t>(buffer_ + sizeof buffer_ - begin_)};
    }

private:
    char buffer_[22];
    char* begin_ = buffer_ + sizeof buffer_;
};

/// How many zeros stand between the sign and the digits of a number.
std::size_t leading_zeros(const conversion_t& c, std::size_t prefix, std::size_t digits)
{
    auto wanted = static_cast<std::size_t>(c.precision < 0 ? 1 : c.precision);
    const auto width = static_cast<std::size_t>(c.width);
    if (c.precision < 0 && c.zero && !c.left && width > prefix)
        wanted = std::max(wanted, width - prefix);
    return wanted > digits ? wanted - digits : 0;
}

void print_number(message_buffer& out, const conversion_t& c, std::string_view prefix,
                  std::string_view digits)
{
    std::size_t zeros = leading_zeros(c, prefix.size(), digits.size());
    if (c.letter == 'o' && c.alternative && zeros == 0)
        zeros = 1;
    const std::size_t size = prefix.size() + zeros + digits.size();
    const auto width = static_cast<std::size_t>(c.width);
    const std::size_t padding = width > size ? width - size : 0;
    if (!c.left)
        out.fill(padding, ' ');
    out.append(prefix.data(), prefix.size());
    out.fill(zeros, '0');
    out.append(digits.data(), digits.size());
    if (c.left)
        out.fill(padding, ' ');
}

std::uint64_t magnitude_of(long long value)
{
    const auto bits = static_cast<std::uint64_t>(value);
    return value < 0 ? 0 - bits : bits;
}

void print_signed(message_buffer& out, const conversion_t& c, long long value)
{
    if (c.narrow_bits == 16)
        value = static_cast<std::int16_t>(value);
    if (c.narrow_bits == 8)
        value = static_cast<std::int8_t>(value);
    const char* const sign = value < 0 ? "-" : c.plus ? "+" : c.blank ? " " : "";
    print_number(out, c, sign, digits_t(magnitude_of(value), 10, "0123456789").view());
}

/// Arguments are widened with their sign, so a negative value of 32 bits stands for an unsigned
/// one.
std::uint64_t unsigned_value(const conversion_t& c, long long value)
{
    if (c.narrow_bits == 16)
        return static_cast<std::uint16_t>(value);
    if (c.narrow_bits == 8)
        return static_cast<std::uint8_t>(value);
    if (value < 0 && value >= std::numeric_limits<std::int32_t>::min())
        return static_cast<std::uint32_t>(value);
    return static_cast<std::uint64_t>(value);
}

void print_unsigned(message_buffer& out, const conversion_t& c, long long argument)
{
    const std::uint64_t value = unsigned_value(c, argument);
    const bool capitals = c.letter == 'X';
    const unsigned base = c.letter == 'u' ? 10 : c.letter == 'o' ? 8 : 16;
    const bool has_prefix = base == 16 && c.alternative && value != 0;
    const digits_t digits(value, base, capitals ? "0123456789ABCDEF" : "0123456789abcdef");
    print_number(out, c, !has_prefix ? "" : capitals ? "0X" : "0x", digits.view());
}

/// The C library's format of one floating conversion; width and precision are its arguments.
struct floating_format_t {
    explicit floating_format_t(const conversion_t& c)
    {
        char* p = text;
        *p++ = '%';
        const bool set[] = {c.left, c.plus, c.blank, c.alternative, c.zero};
        for (std::size_t i = 0; i < sizeof set; ++i)
            if (set[i])
                *p++ = "-+ #0"[i];
        std::memcpy(p, "*.*L", 4);
        p[4] = c.letter;
        p[5] = '\0';
    }
    char text[12];
};

void print_floating(message_buffer& out, const conversion_t& c, long double value)
{
    const floating_format_t format(c);
    std::size_t size = 63;
    for (;;) {
        char* const place = out.claim(size + 1);
        const int printed = snprintf(place, out.room(), format.text, c.width, c.precision, value);
        if (printed < 0)
            throw std::bad_alloc();
        size = static_cast<std::size_t>(printed);
        if (size < out.room())
            return out.advance(size);
    }
}

void print_value(message_buffer& out, const conversion_t& c, const cxPrintfArgVal* record)
{
    switch (c.letter) {
    case 's':
        return print_text(out, c, text_of(record));
    case 'c':
        return print_character(out, c, integer_of(record));
    case 'd':
    case 'i':
        return print_signed(out, c, integer_of(record));
    case 'u':
    case 'x':
    case 'X':
    case 'o':
        return print_unsigned(out, c, integer_of(record));
    default:
        return print_floating(out, c, floating_of(record));
    }
}

/// Prints the conversion behind a `%`. @return where reading goes on.
[[gnu::noinline]] const char* print_conversion(message_buffer& out, const char* p,
                                               records_t& records)
{
    conversion_t c;
    const char* const end = read_conversion(p, c);
    if (end == nullptr) {
        out.append('%');
        return p;
    }
    take_width(c, records);
    take_precision(c, records);
    print_value(out, c, records.from(c.value));
    return end;
}

/// The conversions of nearly every message, without the general way's detour.
void print_plain_text(message_buffer& out, const cxPrintfArgVal* record)
{
    const char* const text = text_of(record);
    out.append(text, std::strlen(text));
}

void print_plain_integer(message_buffer& out, const cxPrintfArgVal* record)
{
    constexpr std::size_t LONGEST = 20;  // 64 bits and a sign
    char* const place = out.claim(LONGEST);
    const char* const end = std::to_chars(place, place + LONGEST, integer_of(record)).ptr;
    out.advance(static_cast<std::size_t>(end - place));
}

/// With copies, so that who mostly has no need of this keeps the originals in registers.
const char* print_conversion_apart(message_buffer& out, const char* p, records_t& records)
{
    message_buffer copied_out = out;
    records_t copied_records = records;
    p = print_conversion(copied_out, p, copied_records);
    out = copied_out;
    records = copied_records;
    return p;
}

/// Prints what a `%` begins. @return where reading goes on.
const char* print_from_percent(message_buffer& out, const char* p, records_t& records)
{
    switch (*p) {
    case '%':
        out.append('%');
        return p + 1;
    case 's':
        print_plain_text(out, records.next());
        return p + 1;
    case 'd':
        print_plain_integer(out, records.next());
        return p + 1;
    default:
        return print_conversion_apart(out, p, records);
    }
}

/// Prints what stands in front of a `%` or the end. @return where that is.
const char* print_up_to_percent(message_buffer& out, const char* p)
{
    const char* const percent = strchrnul(p, '%');
    out.append(p, static_cast<std::size_t>(percent - p));
    return percent;
}

/// The same behind a conversion, where mostly a few characters follow: spares two calls for them.
const char* print_few_up_to_percent(message_buffer& out, const char* p)
{
    constexpr std::size_t FEW = 8;
    char* const place = out.claim(FEW);
    for (std::size_t i = 0; i < FEW; ++i) {
        if (p[i] == '%' || p[i] == '\0') {
            out.advance(i);
            return p + i;
        }
        place[i] = p[i];
    }
    out.advance(FEW);
    return print_up_to_percent(out, p + FEW);
}

void print_message(message_buffer& out, const char* format, records_t records)
{
    const char* p = print_up_to_percent(out, format);
    while (*p != '\0')
        p = print_few_up_to_percent(out, print_from_percent(out, p + 1, records));
}

}  // namespace

const char* QmMsg::format(const char* format, cxPrintfArgVal* args)
{
    if (format == nullptr)
        return nullptr;
    message_buffer out(MessageImpl::next_storage());
    print_message(out, format, records_t(args));
    const char* const text = out.finish();
    MessageImpl::keep_storage();
    return text;
}

}  // namespace Log
