#include "log_line_impl.h"

#include "fork_lock_impl.h"

#include <array>
#include <charconv>
#include <cstdint>
#include <cstring>

namespace Log::LineImpl {
namespace {

using spdlog::memory_buf_t;

void append(memory_buf_t& out, std::string_view text)
{
    out.append(text.data(), text.data() + text.size());
}

void append_number(memory_buf_t& out, long number)
{
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof digits, number).ptr;
    out.append(digits, end);
}

/// A number of fixed width with leading zeros.
void append_padded(memory_buf_t& out, long number, int width)
{
    char digits[8];
    for (int i = width; i-- > 0; number /= 10)
        digits[i] = static_cast<char>('0' + number % 10);
    out.append(digits, digits + width);
}

void append_year(memory_buf_t& out, int year)
{
    if (year >= 0 && year <= 9999)
        append_padded(out, year, 4);
    else
        append_number(out, year);
}

void append_time(memory_buf_t& out, std::chrono::system_clock::time_point time)
{
    using namespace std::chrono;
    const auto day = floor<days>(time);
    const year_month_day date(day);
    const hh_mm_ss clock(floor<microseconds>(time - day));
    append_year(out, static_cast<int>(date.year()));
    out.push_back('-');
    append_padded(out, static_cast<unsigned>(date.month()), 2);
    out.push_back('-');
    append_padded(out, static_cast<unsigned>(date.day()), 2);
    out.push_back('T');
    append_padded(out, clock.hours().count(), 2);
    out.push_back(':');
    append_padded(out, clock.minutes().count(), 2);
    out.push_back(':');
    append_padded(out, clock.seconds().count(), 2);
    out.push_back('.');
    append_padded(out, clock.subseconds().count(), 6);
    out.push_back('Z');
}

void append_ids(memory_buf_t& out, int code)
{
    const auto ids = ForkImpl::current_ids();
    append_number(out, ids.process);
    out.push_back(':');
    append_number(out, ids.thread);
    if (code != 0) {
        out.push_back(':');
        append_number(out, code);
    }
}

// -- escapes --------------------------------------------------------------------------------------

/// The bytes that stand in a line as they are, whatever surrounds them.
constexpr auto PLAIN = [] {
    std::array<bool, 256> plain{};
    for (unsigned c = 0x20; c < 0x7F; ++c)
        plain[c] = c != '\\';
    return plain;
}();

unsigned byte_at(std::string_view text, std::size_t position)
{
    return static_cast<unsigned char>(text[position]);
}

bool is_plain(char c)
{
    return PLAIN[static_cast<unsigned char>(c)];
}

void append_hexadecimal(memory_buf_t& out, char kind, unsigned value, int digits)
{
    out.push_back('\\');
    out.push_back(kind);
    for (int i = digits; i-- > 0;)
        out.push_back("0123456789abcdef"[(value >> (4 * i)) & 15]);
}

void append_escaped_byte(memory_buf_t& out, unsigned byte)
{
    constexpr std::string_view BYTES = "\\\n\r\t";
    constexpr std::string_view LETTERS = "\\nrt";
    const std::size_t i = BYTES.find(static_cast<char>(byte));
    if (i == BYTES.npos)
        return append_hexadecimal(out, 'x', byte, 2);
    out.push_back('\\');
    out.push_back(LETTERS[i]);
}

struct character_t {
    char32_t code_point = 0;
    std::size_t size = 0;  // 0 = no UTF-8
};

std::size_t utf8_size(unsigned lead)
{
    return lead < 0xC2 ? 0 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : lead < 0xF5 ? 4 : 0;
}

bool is_scalar_value(char32_t c, std::size_t size)
{
    constexpr char32_t SMALLEST[] = {0, 0, 0x80, 0x800, 0x10000};
    return c >= SMALLEST[size] && c <= 0x10FFFF && (c < 0xD800 || c > 0xDFFF);
}

/// Reads a character of two to four bytes.
character_t read_character(std::string_view text, std::size_t position)
{
    const unsigned lead = byte_at(text, position);
    const std::size_t size = utf8_size(lead);
    if (size == 0 || text.size() - position < size)
        return {};
    char32_t c = lead & (0xFFu >> (size + 1));
    for (std::size_t i = 1; i < size; ++i) {
        const unsigned byte = byte_at(text, position + i);
        if ((byte & 0xC0) != 0x80)
            return {};
        c = c << 6 | (byte & 0x3F);
    }
    return is_scalar_value(c, size) ? character_t{c, size} : character_t{};
}

/// Characters beyond ASCII that end a line, drive a terminal or change the order in which the rest
/// of the line is shown.
bool is_harmful(char32_t c)
{
    return (c >= 0x80 && c <= 0x9F) || c == 0x2028 || c == 0x2029 || (c >= 0x202A && c <= 0x202E) ||
           (c >= 0x2066 && c <= 0x2069);
}

/// @return  how many bytes of the text have been dealt with
std::size_t append_beyond_ascii(memory_buf_t& out, std::string_view text, std::size_t position)
{
    const auto [code_point, size] = read_character(text, position);
    if (size == 0) {
        append_escaped_byte(out, byte_at(text, position));
        return 1;
    }
    if (is_harmful(code_point))
        append_hexadecimal(out, 'u', code_point, 4);
    else
        append(out, text.substr(position, size));
    return size;
}

void append_escaped(memory_buf_t& out, std::string_view text)
{
    for (std::size_t position = 0; position < text.size();) {
        std::size_t end = position;
        while (end < text.size() && is_plain(text[end]))
            ++end;
        append(out, text.substr(position, end - position));
        position = end;
        if (position == text.size())
            return;
        if (byte_at(text, position) < 0x80)
            append_escaped_byte(out, byte_at(text, position++));
        else
            position += append_beyond_ascii(out, text, position);
    }
}

}  // namespace

void append_line(memory_buf_t& out, const line_t& line)
{
    append_time(out, line.time);
    out.push_back(' ');
    append(out, line.level);
    out.push_back(' ');
    append(out, line.escaped_logger);
    out.push_back(' ');
    append_ids(out, line.code);
    out.push_back(' ');
    append_escaped(out, line.text);
    out.push_back('\n');
}

// An escaped text never ends in a single backslash otherwise.
std::string escaped_name(std::string_view name)
{
    if (name.empty())
        return "\\";
    memory_buf_t escaped;
    append_escaped(escaped, name);
    std::string word;
    for (const char c : escaped)
        word += c == ' ' ? std::string("\\x20") : std::string(1, c);
    return word;
}

}  // namespace Log::LineImpl
