// Messages of catalogues: any header, any index, and formats of texts and numbers, in order and by
// number, give the text that a plain filler makes; copies and sequences give the same. What memory
// runs out for changes nothing.
// The input is the failing allocation, the header, the index, the arguments, and a piece of the
// format for each byte that is left.

#include <kvutil/umessage.h>
#include <qmlogger/qmlogger.h>

#include "allocation_fault.h"
#include "input.h"
#include "property.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

using Kvl::UMessage;
using Kvl::UString;
using Kvl::Utf8String;

namespace {

constexpr int NUM_ENTRIES = 10'000;
const std::string NOT_LOCATED = "Could not locate Catalog File";

class Named : public Kvl::Resource {
public:
    explicit Named(const std::string& name) : name_(name) {}
    Resource* do_clone() const override { return new Named(*this); }
    UString text() const override { return UString(Utf8String(name_)); }

private:
    std::string name_;
};

// ---- The model. ----

/// What an argument prints as.
struct printed_t {
    std::string as_text;
    std::string as_number;
};

/// The count of a header, read the plain way; -1 for another form.
long count_of(const std::string& header)
{
    const std::size_t blank = header.find(' ');
    if (blank == 0 || blank == header.npos || blank + 1 == header.size())
        return -1;
    const std::string digits = header.substr(blank + 1);
    if (digits.find_first_not_of("0123456789") != digits.npos)
        return -1;
    const std::size_t significant = digits.find_first_not_of('0');
    if (significant == digits.npos)
        return 0;
    return digits.size() - significant > 4 ? -1 : std::stol(digits.substr(significant));
}

/// A piece of a format: a text, or the argument of a number (from 1; 0 for the next one).
struct piece_t {
    enum kind_t { LITERAL, TEXT, NUMBER };
    kind_t kind;
    std::string literal;
    std::size_t argument;
};

std::string format_of(const std::vector<piece_t>& pieces)
{
    std::string format;
    for (const piece_t& piece : pieces) {
        const std::string number = piece.argument == 0 ? "" : std::to_string(piece.argument) + "$";
        if (piece.kind == piece_t::LITERAL)
            format += piece.literal == "%" ? "%%" : piece.literal;
        else
            format += "%" + number + (piece.kind == piece_t::TEXT ? "s" : "d");
    }
    return format;
}

std::string filled(const std::vector<piece_t>& pieces, const std::vector<printed_t>& arguments)
{
    std::string text;
    std::size_t next = 0;
    for (const piece_t& piece : pieces) {
        if (piece.kind == piece_t::LITERAL) {
            text += piece.literal;
            continue;
        }
        const std::size_t i = piece.argument == 0 ? next++ : piece.argument - 1;
        const printed_t printed = i < arguments.size() ? arguments[i] : printed_t{"(null)", "0"};
        text += piece.kind == piece_t::TEXT ? printed.as_text : printed.as_number;
    }
    return text;
}

// ---- What an input chooses. ----

const char* text_of_choice(unsigned int choice)
{
    static const char* const texts[] = {"text", "", "a text that is too long to be stored inline",
                                        "%s%n", "caf\xC3\xA9 \xF0\x9F\x98\x80"};
    return texts[choice % std::size(texts)];
}

UMessage::Arg argument_of(std::uint8_t byte, std::vector<printed_t>& printed)
{
    const unsigned int choice = byte / 8;
    const char* const text = text_of_choice(choice);
    const long long number = (choice % 2 == 0 ? 1LL : -1LL) << (2 * choice);
    const std::string decimal = std::to_string(number);
    switch (byte % 8) {
    case 0:
        return {};
    case 1:
        printed.push_back({std::string(1, static_cast<char>('A' + choice % 26)),
                           std::to_string('A' + choice % 26)});
        return static_cast<char>('A' + choice % 26);
    case 2:
        printed.push_back({std::to_string(static_cast<int>(choice) - 16),
                           std::to_string(static_cast<int>(choice) - 16)});
        return static_cast<int>(choice) - 16;
    case 3:
        printed.push_back({decimal, decimal});
        return number;
    case 4:
        printed.push_back({text, text});
        return text;
    case 5:
        printed.push_back({text, text});
        return std::string(text);
    case 6:
        printed.push_back({text, text});
        return UString(Utf8String(text));
    default:
        printed.push_back({text, text});
        return Named(text);
    }
}

piece_t piece_of(std::uint8_t byte)
{
    switch (byte) {
    case 's':
        return {piece_t::TEXT, "", 0};
    case 'd':
        return {piece_t::NUMBER, "", 0};
    case '1':
    case '2':
    case '3':
    case '4':
        return {piece_t::TEXT, "", static_cast<std::size_t>(byte - '0')};
    case '6':
    case '7':
        return {piece_t::NUMBER, "", static_cast<std::size_t>(byte - '5')};
    default:
        return {piece_t::LITERAL,
                byte == 0 || byte > 127 ? "\xC3\xA9" : std::string(1, static_cast<char>(byte)), 0};
    }
}

std::string header_of(input_t& input)
{
    const std::uint8_t length = input.byte();
    if (length >= 16)
        return "fuzz " + std::to_string(length);
    const std::string header(input.bytes(length));
    return header.substr(0, header.find('\0'));
}

int index_of(input_t& input)
{
    static constexpr int odd[] = {-1, 0, 9'999, NUM_ENTRIES};
    const std::uint8_t byte = input.byte();
    return byte < 252 ? byte : odd[byte - 252];
}

// ---- The library. ----

UMessage message_of(const char** catalogue, int index, const std::vector<UMessage::Arg>& a)
{
    return UMessage(catalogue, index, a[0], a[1], a[2], a[3]);
}

std::string rendered(const UMessage& message)
{
    return message.message_string().utf8_str();
}

void check_rendering(const UMessage& message, const std::string& expected, unsigned long fault)
{
    has_memory(fault, [&] { require(rendered(message) == expected); });
    require(rendered(message) == expected);
}

void check_copies(const UMessage& message, const std::string& expected, unsigned long fault)
{
    has_memory(fault, [&] { require(rendered(UMessage(message)) == expected); });
    const char* catalogue[] = {"old 1", "old"};
    UMessage target(catalogue, 1, "an argument");
    const bool is_done = has_memory(fault, [&] { target = message; });
    require(rendered(target) == (is_done ? expected : "old"));
    target = message;
    const UMessage moved(std::move(target));
    require(rendered(moved) == expected && target.is_nil());
}

void check_sequence(const UMessage& message, const std::string& expected, unsigned long fault)
{
    UMessage::collection_t sequence;
    unsigned int size = 0;
    for (int i = 0; i < 3; ++i)
        size += has_memory(fault, [&] { sequence.push_back(message); });
    require(sequence.size() == size);
    size *= has_memory(fault, [&] { sequence += sequence; }) ? 2u : 1u;
    require(sequence.size() == size && sequence.empty() == (size == 0));
    for (const UMessage& element : sequence)
        require(rendered(element) == expected);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static std::vector<const char*> catalogue(NUM_ENTRIES + 1, "another text");
    input_t input(data, size);
    const unsigned long fault = fault_of(input);
    const std::string header = header_of(input);
    const int index = index_of(input);
    std::vector<UMessage::Arg> arguments;
    std::vector<printed_t> printed;
    for (int i = 0; i < 4; ++i)
        arguments.push_back(argument_of(input.byte(), printed));
    std::vector<piece_t> pieces;
    while (!input.is_empty())
        pieces.push_back(piece_of(input.byte()));
    const std::string format = format_of(pieces);
    // Deliberate: this one text of the formatter means that it has none.
    if (format == "default QmLogger message")
        return 0;

    catalogue[0] = header.c_str();
    if (index > 0)
        catalogue[static_cast<std::size_t>(index)] = format.c_str();
    const bool is_there = index >= 1 && index <= count_of(header);
    const std::string expected = is_there      ? filled(pieces, printed)
                                 : index == -1 ? ""
                                               : NOT_LOCATED;
    const UMessage message = message_of(catalogue.data(), index, arguments);
    require(message.arguments().size() == printed.size());
    require(message.index() == index && message.catalogue() == catalogue.data());
    check_rendering(message, expected, fault);
    check_copies(message, expected, fault);
    check_sequence(message, expected, fault);
    if (index > 0)
        catalogue[static_cast<std::size_t>(index)] = "another text";
    return 0;
}
