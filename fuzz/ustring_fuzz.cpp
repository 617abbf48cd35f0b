// Edits, searches and comparisons: whatever is done to a text, it is what the same does to a plain
// std::u16string; an edit that memory runs out for changes nothing.
// The input is a letter for each operation, followed by a byte for each of its arguments.

#include <kvutil/ustring.h>

#include "allocation_fault.h"
#include "input.h"
#include "property.h"

#include <unicode/uchar.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

using Kvl::UString;

namespace {

// Long enough to leave the object, short enough to be quick.
constexpr std::size_t LONGEST_TEXT = 300;

bool is_lead(char16_t unit)
{
    return unit >= 0xD800 && unit <= 0xDBFF;
}

bool is_trail(char16_t unit)
{
    return unit >= 0xDC00 && unit <= 0xDFFF;
}

// ---- The model: a std::u16string, and the rules of positions and pairs. ----

std::size_t pinned(unsigned int pos, std::size_t length)
{
    return pos >= 0x80000000u ? 0 : std::min<std::size_t>(pos, length);
}

void replace(std::u16string& text, unsigned int pos, unsigned int n, const std::u16string& with)
{
    const std::size_t from = pinned(pos, text.size());
    text.replace(from, std::min<std::size_t>(n, text.size() - from), with);
}

/// Whether `needle` is at `at`, and not with half of a pair that lies in `text`.
bool is_at(std::u16string_view text, std::size_t at, std::u16string_view needle)
{
    const std::size_t end = at + needle.size();
    if (text.substr(at, needle.size()) != needle)
        return false;
    const bool cuts_front = at > 0 && is_lead(text[at - 1]) && is_trail(needle.front());
    const bool cuts_back = end < text.size() && is_lead(needle.back()) && is_trail(text[end]);
    return !cuts_front && !cuts_back;
}

int found(std::u16string_view text, std::u16string_view needle, unsigned int start, bool is_last)
{
    const std::size_t from = pinned(start, text.size());
    int result = -1;
    if (needle.empty())
        return result;
    // What is searched begins at `start`: what is before is not looked at.
    text.remove_prefix(from);
    for (std::size_t at = 0; at + needle.size() <= text.size(); ++at)
        if (is_at(text, at, needle) && (is_last || result < 0))
            result = static_cast<int>(from + at);
    return result;
}

unsigned int found_first_of(std::u16string_view text, std::u16string_view set, unsigned int start)
{
    for (std::size_t at = pinned(start, text.size()); at < text.size(); ++at)
        if (set.find(text[at]) != set.npos)
            return static_cast<unsigned int>(at);
    return UString::npos;
}

int order(std::u16string_view a, std::u16string_view b)
{
    const int result = a.compare(b);
    return (result > 0) - (result < 0);
}

bool is_white(char16_t unit)
{
    return unit == ' ' || u_isWhitespace(unit) != 0;
}

void trim(std::u16string& text)
{
    while (!text.empty() && is_white(text.back()))
        text.pop_back();
    while (!text.empty() && is_white(text.front()))
        text.erase(0, 1);
}

// ---- The two beside each other. ----

struct pair_t {
    UString text;
    std::u16string model;

    bool agrees() const
    {
        return std::u16string_view(text.getBuffer(), text.length()) == model &&
               text.empty() == model.empty() && text.capacity() >= text.length();
    }
};

/// The text of an operation: one of its own, the other one, the edited one, or what stands in the
/// edited one from a unit on up to a zero.
struct argument_t {
    const UString* text = nullptr;
    const unsigned short* units = nullptr;  // null: the text as an object
    std::u16string model;
};

class run_t {
public:
    void step(input_t& input)
    {
        const step_t next(input);
        fault_ = next.fault;
        edit(next.letter, input);
        require(main_.agrees() && other_.agrees() && own_.agrees());
        if (main_.model.size() > LONGEST_TEXT)
            main_ = pair_t();
    }

private:
    void edit(std::uint8_t letter, input_t& input)
    {
        switch (letter) {
        case 'a':
            append(input);
            break;
        case 'u':
            append_unit(input.unit());
            break;
        case 'i':
            insert(input);
            break;
        case 'j':
            insert_unit(input);
            break;
        case 'r':
            replace_part(input);
            break;
        case 's':
            set_at(position_of(input), input.unit());
            break;
        case 'e':
            erase(position_of(input), position_of(input));
            break;
        case 'c':
            main_.text.clear();
            main_.model.clear();
            break;
        case 't':
            if (done([&] { require(&main_.text.trim() == &main_.text); }))
                trim(main_.model);
            break;
        case 'z':
            reserve(input.byte());
            break;
        case '=':
            assign(input);
            break;
        default:
            look(letter, input);
            break;
        }
    }

    void look(std::uint8_t letter, input_t& input)
    {
        switch (letter) {
        case 'f':
            find(input);
            break;
        case 'F':
            find_unit(input.unit(), position_of(input));
            break;
        case '<':
            compare(input);
            break;
        case '[':
            require_unit(position_of(input));
            break;
        case '0':
            terminate();
            break;
        case 'p':
            take_part(position_of(input), position_of(input));
            break;
        case '+':
            add(input);
            break;
        case 'x':
            main_.text.swap(other_.text);
            main_.model.swap(other_.model);
            break;
        case 'm':
            move(input.byte());
            break;
        case 'b':
            make_bogus();
            break;
        default:
            break;
        }
    }

    template <class Operation>
    bool done(Operation operation) const
    {
        return has_memory(fault_, operation);
    }

    static unsigned int position_of(input_t& input)
    {
        static constexpr unsigned int odd[] = {UString::npos, 0x7FFFFFFF, 0x80000000, 0x80000001};
        const std::uint8_t value = input.byte();
        return value < 252 ? value : odd[value - 252];
    }

    argument_t argument_of(input_t& input)
    {
        argument_t argument;
        const std::uint8_t form = input.byte();
        pair_t& source = form % 4 == 0 ? main_ : form % 4 == 1 ? other_ : own_;
        if (form % 4 > 1)
            own_.text = UString(own_.model = input.units(20));
        argument.text = &source.text;
        argument.model = source.model;
        if (form < 128)
            return argument;
        const std::size_t from = pinned(input.byte(), source.model.size());
        argument.units = source.text.c_str() + from;
        argument.model = source.model.c_str() + from;  // up to a zero
        return argument;
    }

    void append(input_t& input)
    {
        const argument_t with = argument_of(input);
        if (done([&] {
                const UString& result =
                    with.units ? main_.text.append(with.units) : main_.text.append(*with.text);
                require(&result == &main_.text);
            }))
            main_.model += with.model;
    }

    void append_unit(char16_t unit)
    {
        if (done([&] { require(&main_.text.append(unit) == &main_.text); }))
            main_.model += unit;
    }

    void insert(input_t& input)
    {
        const argument_t with = argument_of(input);
        const unsigned int pos = position_of(input);
        if (done([&] {
                const UString& result = with.units ? main_.text.insert(pos, with.units)
                                                   : main_.text.insert(pos, *with.text);
                require(&result == &main_.text);
            }))
            replace(main_.model, pos, 0, with.model);
    }

    void insert_unit(input_t& input)
    {
        const unsigned int pos = position_of(input);
        const char16_t unit = input.unit();
        if (done([&] { main_.text.insert(pos, unit); }))
            replace(main_.model, pos, 0, std::u16string(1, unit));
    }

    void replace_part(input_t& input)
    {
        const argument_t with = argument_of(input);
        const unsigned int pos = position_of(input);
        const unsigned int n = position_of(input);
        if (done([&] {
                const UString& result = with.units ? main_.text.replace(pos, n, with.units)
                                                   : main_.text.replace(pos, n, *with.text);
                require(&result == &main_.text);
            }))
            replace(main_.model, pos, n, with.model);
    }

    void set_at(unsigned int pos, char16_t unit)
    {
        if (done([&] { main_.text.set_at(pos, unit); }) && !main_.model.empty())
            main_.model[std::min(pinned(pos, main_.model.size()), main_.model.size() - 1)] = unit;
    }

    void erase(unsigned int pos, unsigned int n)
    {
        if (done([&] { main_.text.erase(pos, n); }))
            replace(main_.model, pos, n, {});
    }

    void reserve(unsigned int n)
    {
        if (done([&] { main_.text.reserve(n); }))
            require(main_.text.capacity() >= n);
    }

    void assign(input_t& input)
    {
        const argument_t with = argument_of(input);
        const unsigned int n = input.byte();
        if (!done([&] {
                if (with.units == nullptr)
                    n % 2 == 0 ? main_.text.assign(*with.text) : main_.text = *with.text;
                else
                    main_.text.assign(with.units, n <= with.model.size() ? n : 0);
            }))
            return;
        const bool is_prefix = with.units != nullptr && n != 0 && n <= with.model.size();
        main_.model = is_prefix ? with.model.substr(0, n) : with.model;
    }

    void find(input_t& input)
    {
        const argument_t needle = argument_of(input);
        const unsigned int start = position_of(input);
        const UString& text = main_.text;
        const std::u16string& model = main_.model;
        const int first = found(model, needle.model, start, false);
        const int last = found(model, needle.model, start, true);
        const unsigned int first_of = found_first_of(model, needle.model, start);
        if (needle.units != nullptr) {
            require(text.find(needle.units, start) == first);
            require(text.find_last(needle.units, start) == last);
            require(text.find_first_of(needle.units, start) == first_of);
        } else {
            require(text.find(*needle.text, start) == first);
            require(text.find_last(*needle.text, start) == last);
            require(text.find_first_of(*needle.text, start) == first_of);
        }
    }

    void find_unit(char16_t unit, unsigned int start) const
    {
        const std::u16string needle(1, unit);
        const int first = found(main_.model, needle, start, false);
        require(main_.text.find(unit, start) == first);
        require(main_.text.find_first_of(unit, start) == first);
        require(main_.text.find_last(unit, start) == found(main_.model, needle, start, true));
    }

    void compare(input_t& input)
    {
        const argument_t with = argument_of(input);
        const unsigned int pos = position_of(input);
        const unsigned int n = position_of(input);
        const int expected = order(main_.model, with.model);
        if (with.units != nullptr) {
            require(main_.text.compare(with.units) == expected);
            return;
        }
        require(main_.text.compare(*with.text) == expected);
        require((main_.text == *with.text) == (expected == 0));
        require((main_.text < *with.text) == (expected < 0));
        const std::hash<UString> hash;
        require(expected != 0 || hash(main_.text) == hash(*with.text));
        const std::size_t from = pinned(pos, main_.model.size());
        require(main_.text.compare(pos, n, *with.text) ==
                order(main_.model.substr(from, n), with.model));
    }

    void require_unit(unsigned int pos) const
    {
        const bool is_inside = pos < main_.model.size();
        require(main_.text[pos] == (is_inside ? main_.model[pos] : 0xFFFF));
    }

    void terminate() const
    {
        const unsigned short* units = nullptr;
        if (!done([&] { units = main_.text.c_str(); }))
            return;
        for (std::size_t i = 0; i <= main_.model.size(); ++i)
            require(units[i] == main_.model.c_str()[i]);
    }

    void take_part(unsigned int pos, unsigned int n)
    {
        UString part;
        if (!done([&] { part = main_.text.substr(pos, n); }))
            return;
        const bool is_inside = pos < main_.model.size();
        other_ = {std::move(part), is_inside ? main_.model.substr(pos, n) : std::u16string()};
    }

    void add(input_t& input)
    {
        const argument_t with = argument_of(input);
        UString sum;
        if (done([&] { sum = main_.text + *with.text; }))
            require((pair_t{sum, main_.model +
                                     std::u16string(with.text->getBuffer(), with.text->length())}
                         .agrees()));
    }

    void move(std::uint8_t way)
    {
        if (way % 2 == 0) {
            UString taken(std::move(main_.text));
            require(main_.text.empty());
            main_.text = std::move(taken);
        } else {
            other_.text = std::move(main_.text);
            other_.model = std::exchange(main_.model, {});
        }
    }

    // A bogus text is less than any other, and the next edit starts from the empty one.
    void make_bogus()
    {
        main_.text.setToBogus();
        require(main_.text.compare(other_.text) == -1 && other_.text.compare(main_.text) == 1);
        require(main_.text.find(other_.text) == -1 && main_.text.c_str() == nullptr);
        main_ = pair_t();
        main_.text.setToBogus();
        main_.text.append(u'b');
        main_.model = u"b";
    }

    pair_t main_;
    pair_t other_;
    pair_t own_;  // what an argument refers to
    unsigned long fault_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    input_t input(data, size);
    run_t run;
    while (!input.is_empty())
        run.step(input);
    return 0;
}
