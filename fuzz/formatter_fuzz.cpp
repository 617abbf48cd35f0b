// Conversions that C defines: the formatter prints what snprintf() prints of each of them, one
// behind the other, whether their records come in order or by number. What memory runs out for
// throws. The input is the failing allocation, then a letter for each conversion, followed by a
// byte for its flags, its width, its precision, its length and its value.

#include <qmlogger/qmlogger.h>

#include "allocation_fault.h"
#include "input.h"
#include "property.h"

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace {

// Room for the largest number with its sign and a precision.
constexpr std::size_t LONGEST_CONVERSION = 6000;

/// A format for the formatter, the records that it reads, and what it ought to print.
struct model_t {
    std::string format;
    std::vector<cxPrintfArgVal> records;
    std::string text;
};

bool is_in(char c, std::string_view set)
{
    return set.find(c) != set.npos;
}

/// Those that C defines for the letter.
std::string flags_of(std::uint8_t byte, char letter)
{
    std::string flags;
    if (byte & 1)
        flags += '-';
    if (byte & 2 && !is_in(letter, "cs"))
        flags += '0';
    if (byte & 4 && is_in(letter, "dieEfFgGaA"))
        flags += '+';
    if (byte & 8 && is_in(letter, "dieEfFgGaA"))
        flags += ' ';
    if (byte & 16 && is_in(letter, "xXoeEfFgGaA"))
        flags += '#';
    return flags;
}

/// A width or a precision as digits, and the same behind a "*", from a record.
struct field_t {
    std::string for_formatter;
    std::string for_c;
};

void set_integer(cxPrintfArgVal& record, long long value)
{
    std::memset(&record, 0, sizeof record);
    record.i = value;
}

void add_integer(std::vector<cxPrintfArgVal>& records, long long value)
{
    set_integer(records.emplace_back(), value);
}

field_t field_of(std::uint8_t byte, model_t& model)
{
    const std::string digits = std::to_string(byte % 40);
    if (byte < 80)
        return {};
    if (byte < 160)
        return {digits, digits};
    add_integer(model.records, byte % 40);
    return {"*", digits};
}

long long integer_of(std::uint8_t byte)
{
    static constexpr long long odd[] = {LLONG_MIN, LLONG_MAX, INT_MIN, INT_MAX,       -1,
                                        1LL << 32, UINT_MAX,  -65'536, INT_MIN - 1LL, 65'535,
                                        32'768,    255};
    return byte < 200 ? byte - 100 : odd[byte % std::size(odd)];
}

long double floating_of(std::uint8_t byte)
{
    static constexpr long double odd[] = {1e300L, -1e-300L, 0.1L, 2.5L, 1e15L, 123456.789L, -0.0L};
    return byte < 128 ? (byte - 64) / 8.0L : odd[byte % std::size(odd)];
}

const char* text_of_choice(std::uint8_t byte)
{
    static const char* const texts[] = {"", "text", "a text that is longer than any width of forty",
                                        "%s%n"};
    return texts[byte % std::size(texts)];
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

template <class Value>
std::string printed(const std::string& format, Value value)
{
    char text[LONGEST_CONVERSION];
    const int length = std::snprintf(text, sizeof text, format.c_str(), value);
    require(length >= 0 && static_cast<std::size_t>(length) < sizeof text);
    return {text, static_cast<std::size_t>(length)};
}

#pragma GCC diagnostic pop

/// As "hh" and "h" narrow it.
long long narrowed(long long value, std::string_view length)
{
    return length == "hh"  ? static_cast<signed char>(value)
           : length == "h" ? static_cast<short>(value)
                           : value;
}

unsigned long long without_sign(long long value, std::string_view length)
{
    if (length == "hh")
        return static_cast<unsigned char>(value);
    if (length == "h")
        return static_cast<unsigned short>(value);
    const bool is_of_32_bits = value >= INT_MIN && value < 0;
    return is_of_32_bits ? static_cast<unsigned int>(value)
                         : static_cast<unsigned long long>(value);
}

/// @param head  the conversion up to its precision
/// @return      what C prints of it; its record is set
std::string print_value(const std::string& head, char letter, std::string_view length,
                        std::uint8_t value, cxPrintfArgVal& record)
{
    set_integer(record, integer_of(value));
    if (is_in(letter, "di"))
        return printed(head + "ll" + letter, narrowed(record.i, length));
    if (is_in(letter, "uxXo"))
        return printed(head + "ll" + letter, without_sign(record.i, length));
    if (letter == 'c') {
        record.i = value % 2 == 0 ? 'A' : '%' + 256;
        return printed(head + "c", static_cast<int>(static_cast<unsigned char>(record.i)));
    }
    if (letter == 's') {
        record.p = text_of_choice(value);
        return printed(head + "s", text_of_choice(value));
    }
    record.d = floating_of(value);
    return printed(head + "L" + letter, record.d);
}

void add_conversion(char letter, input_t& input, model_t& model)
{
    static constexpr std::string_view lengths[] = {"", "h", "hh", "l", "ll", "j", "z", "t", "q"};
    const std::uint8_t form = input.byte();
    const std::string flags = flags_of(form, letter);
    const field_t width = field_of(input.byte(), model);
    field_t precision = letter == 'c' ? field_t() : field_of(input.byte(), model);
    if (!precision.for_c.empty() || form >= 224) {
        precision.for_formatter.insert(0, ".");
        precision.for_c.insert(0, ".");
    }
    if (letter == 'c')
        precision = {};
    const std::string_view length =
        is_in(letter, "diuxXo") ? lengths[input.byte() % std::size(lengths)] : std::string_view();
    cxPrintfArgVal record;
    model.text += print_value("%" + flags + width.for_c + precision.for_c, letter, length,
                              input.byte(), record);
    model.records.push_back(record);
    model.format += "%" + flags + width.for_formatter + precision.for_formatter;
    model.format += length;
    model.format += letter;
}

/// The last record again, by its number, which does not count.
void add_by_number(model_t& model)
{
    if (model.records.empty() || model.format.back() != 's')
        return;
    const char* const text = static_cast<const char*>(model.records.back().p);
    model.format += "%" + std::to_string(model.records.size()) + "$s";
    model.text += text;
}

void check(model_t& model, unsigned long fault)
{
    add_integer(model.records, 0);  // never read
    const char* text = nullptr;
    if (has_memory(fault,
                   [&] { text = Log::QmMsg::format(model.format.c_str(), model.records.data()); }))
        require(text == model.text);
    require(Log::QmMsg::format(model.format.c_str(), model.records.data()) == model.text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    input_t input(data, size);
    const unsigned long fault = fault_of(input);
    model_t model;
    while (!input.is_empty()) {
        const char letter = static_cast<char>(input.byte());
        if (is_in(letter, "diuxXoceEfFgGaAs")) {
            add_conversion(letter, input, model);
        } else if (letter == '$') {
            add_by_number(model);
        } else if (letter > 0) {
            model.format += letter == '%' ? "%%" : std::string(1, letter);
            model.text += letter;
        }
    }
    check(model, fault);
    return 0;
}
