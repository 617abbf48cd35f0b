#include "log_line_impl.h"

#include "fork_lock_impl.h"
#include "plain_text_impl.h"

#include <charconv>
#include <cstdint>
#include <cstring>
#include <iterator>

namespace Log::LineImpl {
namespace {

using spdlog::memory_buf_t;

void append(memory_buf_t& out, std::string_view text)
{
    out.append(text.data(), text.data() + text.size());
}

/// A short text that is put together before it is appended. Its parts fit by their nature: a time
/// has at most 32 characters, ids and a code at most 34.
class short_text_t {
public:
    void add(char c) { *end_++ = c; }
    void add_number(long number) { end_ = std::to_chars(end_, std::end(text_), number).ptr; }

    /// A number of fixed width with leading zeros.
    void add_padded(long number, int width)
    {
        for (int i = width; i-- > 0; number /= 10)
            end_[i] = static_cast<char>('0' + number % 10);
        end_ += width;
    }

    std::string_view view() const { return {text_, static_cast<std::size_t>(end_ - text_)}; }

private:
    char text_[64] = {};
    char* end_ = text_;
};

void append_date(short_text_t& out, std::chrono::year_month_day date)
{
    const int year = static_cast<int>(date.year());
    if (year >= 0 && year <= 9999)
        out.add_padded(year, 4);
    else
        out.add_number(year);
    out.add('-');
    out.add_padded(static_cast<unsigned>(date.month()), 2);
    out.add('-');
    out.add_padded(static_cast<unsigned>(date.day()), 2);
}

void append_clock(short_text_t& out, std::chrono::hh_mm_ss<std::chrono::microseconds> clock)
{
    out.add_padded(clock.hours().count(), 2);
    out.add(':');
    out.add_padded(clock.minutes().count(), 2);
    out.add(':');
    out.add_padded(clock.seconds().count(), 2);
    out.add('.');
    out.add_padded(clock.subseconds().count(), 6);
}

void append_time(memory_buf_t& out, std::chrono::system_clock::time_point time)
{
    using namespace std::chrono;
    const auto day = floor<days>(time);
    short_text_t text;
    append_date(text, day);
    text.add('T');
    append_clock(text, hh_mm_ss(floor<microseconds>(time - day)));
    text.add('Z');
    append(out, text.view());
}

void append_ids(memory_buf_t& out, int code)
{
    const auto ids = ForkImpl::current_ids();
    short_text_t text;
    text.add_number(ids.process);
    text.add(':');
    text.add_number(ids.thread);
    if (code != 0) {
        text.add(':');
        text.add_number(code);
    }
    append(out, text.view());
}

// -- escapes --------------------------------------------------------------------------------------

unsigned byte_at(std::string_view text, std::size_t position)
{
    return static_cast<unsigned char>(text[position]);
}

/// @return  the end of the bytes from `position` that are ASCII and need no escape
std::size_t end_of_plain(std::string_view text, std::size_t position)
{
    return position + count_plain(text.substr(position));
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

/// @return  the end of the text from `position` that stands in a line as it is
std::size_t end_of_clean(std::string_view text, std::size_t position)
{
    for (;;) {
        position = end_of_plain(text, position);
        if (position == text.size() || byte_at(text, position) < 0x80)
            return position;
        const auto [code_point, size] = read_character(text, position);
        if (size == 0 || is_harmful(code_point))
            return position;
        position += size;
    }
}

/// @return  the end of what has been escaped: a byte or a character
std::size_t append_escape(memory_buf_t& out, std::string_view text, std::size_t position)
{
    const auto [code_point, size] = read_character(text, position);
    if (size != 0) {
        append_hexadecimal(out, 'u', code_point, 4);
        return position + size;
    }
    append_escaped_byte(out, byte_at(text, position));
    return position + 1;
}

void append_escaped(memory_buf_t& out, std::string_view text)
{
    for (std::size_t position = 0;;) {
        const std::size_t end = end_of_clean(text, position);
        append(out, text.substr(position, end - position));
        if (end == text.size())
            return;
        position = append_escape(out, text, end);
    }
}

void append_head(memory_buf_t& out, const line_t& line)
{
    append_time(out, line.time);
    out.push_back(' ');
    append(out, line.level);
    out.push_back(' ');
    append(out, line.escaped_logger);
    out.push_back(' ');
    append_ids(out, line.code);
    out.push_back(' ');
}

std::string_view view(const memory_buf_t& text)
{
    return {text.data(), text.size()};
}

}  // namespace

pieces_t pieces_of(const line_t& line, memory_buf_t& memory)
{
    append_head(memory, line);
    const bool is_short = line.text.size() < memory.capacity() - memory.size();
    if (!is_short && end_of_clean(line.text, 0) == line.text.size())
        return {view(memory), line.text, "\n"};
    append_escaped(memory, line.text);
    memory.push_back('\n');
    return {view(memory), {}, {}};
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
