#include "message_format_impl.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <string_view>

namespace Kvl::MessageFormat {

namespace {

// Wider fields have no use in a message and would let a format ask for gigabytes of blanks.
constexpr unsigned int MAX_FIELD = 65535;

// Far above MAX_FIELD and any number of arguments, far below overflow.
constexpr unsigned int MAX_NUMBER = 10'000'000;

// The highest "n$" that a formatter has to know (POSIX: NL_ARGMAX, which is 4096 here).
constexpr std::size_t MAX_ARGUMENT_NUMBER = 4096;

/// A width or a precision.
struct field_t {
    enum source_t : unsigned char { ABSENT, LITERAL, ARGUMENT };
    source_t source = ABSENT;
    unsigned int number = 0;  // LITERAL: the value. ARGUMENT: n of "*n$", 0 for the next one.
};

enum flag_t : unsigned int {
    LEFT = 1,
    PLUS = 2,
    BLANK = 4,
    ALTERNATE = 8,
    ZERO = 16,
    GROUPING = 32,  // never passed on: what it does depends on the host's locale
};

/// Letters that are read alike. "%n" would write through its argument and "%p" is no part of the
/// formatter's language: both belong to none, as every unknown letter does.
enum class family_t : unsigned char { NONE, INTEGER, CHARACTER, FLOATING, TEXT };

/// One conversion as it is written.
struct conversion_t {
    unsigned int argument = 0;  // n of "n$", 0 for the next one
    unsigned int flags = 0;
    field_t width;
    field_t precision;
    std::string_view length;
    char letter = 0;
};

constexpr std::array<family_t, 256> families()
{
    std::array<family_t, 256> table{};
    const auto set = [&table](std::string_view letters, family_t family) {
        for (const char letter : letters)
            table[static_cast<unsigned char>(letter)] = family;
    };
    set("diouxX", family_t::INTEGER);
    set("cC", family_t::CHARACTER);
    set("eEfFgGaA", family_t::FLOATING);
    set("sS", family_t::TEXT);
    return table;
}

constexpr auto FAMILIES = families();

constexpr family_t family_of(char letter)
{
    return FAMILIES[static_cast<unsigned char>(letter)];
}

constexpr bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

unsigned int read_number(const char*& at)
{
    unsigned int number = 0;
    for (; is_digit(*at); ++at)
        number = std::min(number * 10 + static_cast<unsigned int>(*at - '0'), MAX_NUMBER);
    return number;
}

/// Reads "n$"; 0, and nothing consumed, when there is none.
unsigned int read_argument_number(const char*& at)
{
    const char* end = at;
    const unsigned int number = read_number(end);
    if (number == 0 || *end != '$')
        return 0;
    at = end + 1;
    return number;
}

unsigned int read_flags(const char*& at)
{
    constexpr std::string_view FLAGS = "-+ #0'";  // in the order of flag_t
    unsigned int flags = 0;
    for (; *at != 0; ++at) {
        const std::size_t index = FLAGS.find(*at);
        if (index == std::string_view::npos)
            break;
        flags |= 1u << index;
    }
    return flags;
}

field_t read_field(const char*& at)
{
    if (*at != '*')
        return {field_t::LITERAL, read_number(at)};
    ++at;
    return {field_t::ARGUMENT, read_argument_number(at)};
}

std::string_view read_length(const char*& at)
{
    const char* const begin = at;
    if (*at != 0 && std::strchr("hlLjztq", *at) != nullptr)
        ++at;
    if (at != begin && (*begin == 'h' || *begin == 'l') && *at == *begin)
        ++at;
    return {begin, static_cast<std::size_t>(at - begin)};
}

/// Reads a conversion.
/// @param at  points behind the "%"
/// @return    points behind the letter; null when this is no conversion
const char* read_conversion(const char* at, conversion_t& c)
{
    c.argument = read_argument_number(at);
    c.flags = read_flags(at);
    if (*at == '*' || is_digit(*at))
        c.width = read_field(at);
    if (*at == '.')
        c.precision = read_field(++at);
    c.length = read_length(at);
    c.letter = *at;
    if (c.letter == 'C' || c.letter == 'S') {  // the same as "%lc" and "%ls"
        c.length = "l";
        c.letter = c.letter == 'C' ? 'c' : 's';
    }
    return family_of(c.letter) == family_t::NONE ? nullptr : at + 1;
}

/// The flags that C defines for a conversion, of those that are passed on.
constexpr unsigned int defined_flags(char letter)
{
    switch (family_of(letter)) {
    case family_t::INTEGER:
        return LEFT | PLUS | BLANK | ZERO |
               (letter == 'd' || letter == 'i' || letter == 'u' ? 0u : ALTERNATE);
    case family_t::FLOATING:
        return LEFT | PLUS | BLANK | ZERO | ALTERNATE;
    default:
        return LEFT;
    }
}

constexpr bool precision_is_defined(char letter)
{
    return family_of(letter) != family_t::CHARACTER;
}

bool length_is_defined(const conversion_t& c)
{
    switch (family_of(c.letter)) {
    case family_t::INTEGER:
        return c.length != "L" && c.length != "q";
    case family_t::FLOATING:
        return c.length.empty() || c.length == "l" || c.length == "L";
    default:
        return c.length.empty();
    }
}

bool is_defined(const conversion_t& c)
{
    return (c.flags & ~defined_flags(c.letter)) == 0 && length_is_defined(c) &&
           (c.precision.source == field_t::ABSENT || precision_is_defined(c.letter));
}

/// Hands out arguments in the order in which conversions ask for them.
class cursor_t {
public:
    explicit cursor_t(const arguments_t& args) : args_(args) {}

    argument_t take_next() { return args_[next_++]; }

    /// @param number  which argument, from 1; 0 for the next one
    argument_t take(unsigned int number)
    {
        if (number == 0)
            return take_next();
        numbered_ = true;
        number_is_beyond_ |= number > std::min(args_.size(), MAX_ARGUMENT_NUMBER);
        return args_[number - 1];
    }

    /// Whether all conversions took the next argument, or all named one that is there.
    bool is_plain() const { return !number_is_beyond_ && !(numbered_ && next_ != 0); }

    /// How many arguments were taken in sequence.
    std::size_t taken() const { return next_; }

private:
    const arguments_t& args_;
    std::size_t next_ = 0;
    bool numbered_ = false;
    bool number_is_beyond_ = false;
};

bool is_number(const argument_t& arg)
{
    return arg.held == held_t::INTEGER || arg.held == held_t::CHARACTER;
}

bool field_agrees(const field_t& field, cursor_t& cursor)
{
    if (field.source != field_t::ARGUMENT)
        return field.number <= MAX_FIELD;
    const argument_t arg = cursor.take(field.number);
    constexpr long long LIMIT = MAX_FIELD;
    return arg.held == held_t::NOTHING ||
           (is_number(arg) && arg.record.i >= -LIMIT && arg.record.i <= LIMIT);
}

constexpr unsigned int set_of(held_t held)
{
    return 1u << static_cast<unsigned int>(held);
}

/// What a conversion may be given, as a set of held_t.
constexpr unsigned int readable_by(family_t family)
{
    constexpr unsigned int NUMBERS = set_of(held_t::INTEGER) | set_of(held_t::CHARACTER);
    switch (family) {
    case family_t::INTEGER:
        return NUMBERS | set_of(held_t::NOTHING);
    case family_t::CHARACTER:
        return NUMBERS;
    case family_t::FLOATING:
        return set_of(held_t::FLOATING) | set_of(held_t::NOTHING);
    case family_t::TEXT:
        return set_of(held_t::TEXT) | set_of(held_t::NOTHING);
    default:
        return 0;
    }
}

bool conversion_agrees(const conversion_t& c, cursor_t& cursor)
{
    return is_defined(c) && field_agrees(c.width, cursor) && field_agrees(c.precision, cursor) &&
           (readable_by(family_of(c.letter)) & set_of(cursor.take(c.argument).held)) != 0;
}

/// Passes over a conversion.
/// @param at  points behind the "%"
/// @return    points behind the letter; null when it is no conversion, or one that does not agree
const char* conversion_if_it_agrees(const char* at, cursor_t& cursor)
{
    if (*at == '%')
        return at + 1;
    conversion_t c;
    at = read_conversion(at, c);
    return at != nullptr && conversion_agrees(c, cursor) ? at : nullptr;
}

/// Whether all conversions agree, and none that names an argument is among others.
/// @param taken  set to the number of arguments that were taken in sequence
bool conversions_agree(const char* format, const arguments_t& args, std::size_t& taken)
{
    cursor_t cursor(args);
    for (const char* at = format; (at = std::strchr(at, '%')) != nullptr;) {
        at = conversion_if_it_agrees(at + 1, cursor);
        if (at == nullptr)
            return false;
    }
    taken = cursor.taken();
    return cursor.is_plain();
}

// ---- Formats of bare conversions, as nearly all are ----

/// What each letter reads that may be all of a conversion.
constexpr std::array<unsigned char, 256> bare_letters()
{
    std::array<unsigned char, 256> table{};
    for (std::size_t letter = 0; letter < table.size(); ++letter) {
        if (letter != 'C' && letter != 'S')  // these have a length besides
            table[letter] = static_cast<unsigned char>(readable_by(FAMILIES[letter]));
    }
    return table;
}

constexpr auto READABLE_BY_BARE = bare_letters();

/// strchr() behind a conversion, where mostly a few characters follow: spares the call.
/// @return  null when there is no "%"
const char* next_percent(const char* at)
{
    constexpr int FEW = 8;
    for (int i = 0; i < FEW; ++i, ++at) {
        if (*at == '%')
            return at;
        if (*at == 0)
            return nullptr;
    }
    return std::strchr(at, '%');
}

/// Whether every conversion is nothing but its letter, and agrees. This is agrees() without its
/// look at what other conversions may have.
/// @param taken  set to the number of arguments that they read
bool bare_conversions_agree(const char* format, const arguments_t& args, std::size_t& taken)
{
    std::size_t next = 0;
    for (const char* at = std::strchr(format, '%'); at != nullptr; at = next_percent(at + 2)) {
        const auto letter = static_cast<unsigned char>(at[1]);
        if (letter != '%' && (READABLE_BY_BARE[letter] & set_of(args.held(next++))) == 0)
            return false;
    }
    taken = next;
    return true;
}

}  // namespace

bool agrees(const char* format, const arguments_t& args, std::size_t& records)
{
    std::size_t taken = 0;
    const bool agree =
        bare_conversions_agree(format, args, taken) || conversions_agree(format, args, taken);
    records = std::max(args.size(), taken);
    return agree;
}

namespace {

/// Makes a conversion print its argument with nothing but its width.
void print_plainly(conversion_t& c, char letter)
{
    c.letter = letter;
    c.flags &= LEFT;
    c.precision = {};
    c.length = {};
}

// A zero byte would end the finished text, so a character that is not there prints nothing.
void print_no_character(conversion_t& c, cxPrintfArgVal& record)
{
    print_plainly(c, 's');
    record.p = "";
}

void fit_integer(conversion_t& c, const argument_t& arg, cxPrintfArgVal& record)
{
    if (family_of(c.letter) == family_t::FLOATING)
        record.d = static_cast<long double>(arg.record.i);
    else if (family_of(c.letter) != family_t::TEXT)
        return;
    else if (arg.held == held_t::INTEGER)
        print_plainly(c, 'd');
    else if (arg.record.i != 0)
        print_plainly(c, 'c');
    else
        print_no_character(c, record);
}

bool fits_64_bits(long double d)
{
    constexpr long double LIMIT = 9223372036854775808.0L;  // 2^63
    return d >= -LIMIT && d < LIMIT;
}

class rewriter_t {
public:
    rewriter_t(const arguments_t& args, safe_format_t& out) : cursor_(args), out_(out) {}

    void add_text(const char* begin, const char* end) { out_.format.append(begin, end); }
    void add_percent() { out_.format += "%%"; }
    void add_conversion(conversion_t c);

private:
    void settle_width(conversion_t& c);
    void settle_precision(conversion_t& c);
    long long field_argument(const field_t& field);
    void fit(conversion_t& c, const argument_t& arg, cxPrintfArgVal& record);
    void fit_floating(conversion_t& c, const argument_t& arg, cxPrintfArgVal& record);
    void write(const conversion_t& c);

    cursor_t cursor_;
    safe_format_t& out_;
};

void rewriter_t::add_conversion(conversion_t c)
{
    settle_width(c);
    settle_precision(c);
    const argument_t arg = cursor_.take(c.argument);
    out_.records.push_back(arg.record);
    fit(c, arg, out_.records.back());
    write(c);
}

void rewriter_t::settle_width(conversion_t& c)
{
    if (c.width.source == field_t::ARGUMENT) {
        const long long width = field_argument(c.width);
        if (width < 0)
            c.flags |= LEFT;
        c.width = {field_t::LITERAL, static_cast<unsigned int>(width < 0 ? -width : width)};
    }
    c.width.number = std::min(c.width.number, MAX_FIELD);
}

void rewriter_t::settle_precision(conversion_t& c)
{
    if (c.precision.source == field_t::ARGUMENT) {
        const long long precision = field_argument(c.precision);
        c.precision = {field_t::LITERAL, static_cast<unsigned int>(std::max(precision, 0LL))};
        if (precision < 0)
            c.precision = {};
    }
    c.precision.number = std::min(c.precision.number, MAX_FIELD);
}

/// The value of an argument that serves as width or precision; 0 when it is no number.
long long rewriter_t::field_argument(const field_t& field)
{
    const argument_t arg = cursor_.take(field.number);
    constexpr long long LIMIT = MAX_FIELD;
    if (is_number(arg))
        return std::clamp(arg.record.i, -LIMIT, LIMIT);
    if (arg.held == held_t::FLOATING && !std::isnan(arg.record.d))
        return static_cast<long long>(
            std::clamp<long double>(arg.record.d, -static_cast<long double>(LIMIT), LIMIT));
    return 0;
}

void rewriter_t::fit(conversion_t& c, const argument_t& arg, cxPrintfArgVal& record)
{
    if (is_number(arg)) {
        fit_integer(c, arg, record);
    } else if (arg.held == held_t::FLOATING) {
        fit_floating(c, arg, record);
    } else if (arg.held == held_t::TEXT) {
        if (family_of(c.letter) != family_t::TEXT)
            print_plainly(c, 's');
    } else if (family_of(c.letter) == family_t::CHARACTER) {
        print_no_character(c, record);
    }
}

void rewriter_t::fit_floating(conversion_t& c, const argument_t& arg, cxPrintfArgVal& record)
{
    const long double d = arg.record.d;
    if (family_of(c.letter) == family_t::FLOATING)
        return;
    if (family_of(c.letter) == family_t::INTEGER && fits_64_bits(d)) {
        record.i = static_cast<long long>(d);
        return;
    }
    char text[32];  // the shortest form of a double has at most 24 characters
    const auto end = std::to_chars(std::begin(text), std::end(text), static_cast<double>(d)).ptr;
    print_plainly(c, 's');
    record.p = out_.texts.emplace_front(text, end).c_str();
}

void rewriter_t::write(const conversion_t& c)
{
    out_.format += '%';
    for (unsigned int i = 0; i < 5; ++i) {
        if ((c.flags & defined_flags(c.letter) & (1u << i)) != 0)
            out_.format += "-+ #0"[i];
    }
    if (c.width.number != 0)
        out_.format += std::to_string(c.width.number);
    if (c.precision.source == field_t::LITERAL && precision_is_defined(c.letter))
        out_.format += '.' + std::to_string(c.precision.number);
    if (length_is_defined(c))
        out_.format += c.length;
    out_.format += c.letter;
}

}  // namespace

safe_format_t make_safe(const char* format, const arguments_t& args)
{
    safe_format_t safe;
    rewriter_t rewriter(args, safe);
    for (const char* percent; (percent = std::strchr(format, '%')) != nullptr;) {
        rewriter.add_text(format, percent);
        conversion_t c;
        const char* const end = read_conversion(percent + 1, c);
        if (end != nullptr)
            rewriter.add_conversion(c);
        else
            rewriter.add_percent();
        format = end != nullptr ? end : percent + (percent[1] == '%' ? 2 : 1);
    }
    rewriter.add_text(format, format + std::strlen(format));
    return safe;
}

}  // namespace Kvl::MessageFormat
