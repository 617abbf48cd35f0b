// Any format with any arguments: the formatter never gets a conversion that reads its record as
// something that it is not. A formatter of our own checks that, then lets the real one fill it.
//
// Input: the number of arguments, one byte for each, and the format.

#include <kvutil/umessage.h>
#include <qmlogger/qmlogger.h>

#include <dlfcn.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

using Kvl::UMessage;
using Arg = UMessage::Arg;

namespace {

const long long INTEGERS[] = {'A', 7, -7, 70'000, INT_MIN, LLONG_MAX, 0};
const double FLOATS[] = {2.5, -3.75, 1e300, 40'000.0, 0.0};
const long long FLOATS_CUT[] = {2, -3, 40'000};  // those that fit, and are not above
const char* const TEXTS[] = {"text", "a longer text that is not stored inline", "%s%n", ""};
const char* const FLOAT_TEXTS[] = {"2.5", "-3.75", "1e+300", "40000", "0"};

class Named : public Kvl::Resource {
public:
    Resource* do_clone() const override { return new Named(*this); }
    Kvl::UString text() const override { return Kvl::UString(Kvl::Utf8String(TEXTS[1])); }
};

[[noreturn]] void fail(const char* what, const char* format)
{
    std::fprintf(stderr, "%s in '%s'\n", what, format);
    std::abort();
}

template <class Set, class Value>
bool is_one_of(const Set& set, const Value& value)
{
    return std::find(std::begin(set), std::end(set), value) != std::end(set);
}

bool is_known_integer(long long i)
{
    return is_one_of(INTEGERS, i) || is_one_of(FLOATS_CUT, i);
}

bool is_known_float(long double d)
{
    return is_one_of(FLOATS, d) ||
           std::any_of(std::begin(INTEGERS), std::end(INTEGERS),
                       [d](long long i) { return static_cast<long double>(i) == d; });
}

bool is_known_text(const char* text)
{
    const auto same = [text](const char* known) { return std::strcmp(known, text) == 0; };
    return text == nullptr || std::any_of(std::begin(TEXTS), std::end(TEXTS), same) ||
           std::any_of(std::begin(FLOAT_TEXTS), std::end(FLOAT_TEXTS), same);
}

/// Reads a format as C defines it and checks each record that it reads.
class checker {
public:
    checker(const char* format, const cxPrintfArgVal* records)
        : format_(format), at_(format), records_(records)
    {
    }

    /// @return  a bound of the length of the finished text
    std::size_t check()
    {
        while ((at_ = std::strchr(at_, '%')) != nullptr) {
            if (*++at_ == '%')
                ++at_;
            else
                check_conversion();
        }
        return bound_;
    }

private:
    void check_conversion()
    {
        const std::size_t number = argument_number();
        at_ += std::strspn(at_, "-+ #0");
        field();
        if (*at_ == '.') {
            ++at_;
            field();
        }
        at_ += std::strspn(at_, "hlLjzt");
        check_record(*at_++, record(number));
        bound_ += 400;
    }

    void check_record(char letter, const cxPrintfArgVal& record)
    {
        const bool is_known =
            letter == 's' ? is_known_text(static_cast<const char*>(record.p))
            : letter != 0 && std::strchr("diuoxXc", letter)  ? is_known_integer(record.i)
            : letter != 0 && std::strchr("eEfFgGaA", letter) ? is_known_float(record.d)
                                                             : false;
        if (!is_known)
            fail("record read as what it is not", format_);
    }

    void field()
    {
        if (*at_ != '*') {
            add_field(std::strtoll(at_, const_cast<char**>(&at_), 10));
            return;
        }
        ++at_;
        const long long value = record(argument_number()).i;
        if (!is_known_integer(value))
            fail("field read from what is no integer", format_);
        add_field(value);
    }

    void add_field(long long value)
    {
        if (value < -65'535 || value > 65'535)
            fail("field too large", format_);
        bound_ += static_cast<std::size_t>(std::abs(value));
    }

    std::size_t argument_number()
    {
        const std::size_t digits = std::strspn(at_, "0123456789");
        if (digits == 0 || at_[digits] != '$')
            return 0;
        const std::size_t number = std::strtoul(at_, nullptr, 10);
        at_ += digits + 1;
        return number;
    }

    const cxPrintfArgVal& record(std::size_t number)
    {
        return records_[number == 0 ? next_++ : number - 1];
    }

    const char* format_;
    const char* at_;
    const cxPrintfArgVal* records_;
    std::size_t next_ = 0;
    std::size_t bound_ = 0;
};

Arg argument_of(std::uint8_t byte)
{
    const std::size_t choice = byte / 10;
    const long long i = INTEGERS[choice % std::size(INTEGERS)];
    const double d = FLOATS[choice % std::size(FLOATS)];
    const char* const text = TEXTS[choice % std::size(TEXTS)];
    switch (byte % 10) {
    case 1:
        return 'A';
    case 2:
        return static_cast<int>(INTEGERS[choice % 5]);
    case 3:
        return static_cast<long>(i);
    case 4:
        return i;
    case 5:
        return d;
    case 6:
        return text;
    case 7:
        return std::string(text);
    case 8:
        return Kvl::UString(Kvl::Utf8String(text));
    case 9:
        return Named();
    default:
        return Arg();
    }
}

}  // namespace

const char* Log::QmMsg::format(const char* format, cxPrintfArgVal* args)
{
    constexpr std::size_t LONGEST_TEXT = 1 << 20;
    typedef const char* fill_t(const char*, cxPrintfArgVal*);
    static fill_t* const fill =
        reinterpret_cast<fill_t*>(dlsym(RTLD_NEXT, "_ZN3Log5QmMsg6formatEPKcP14cxPrintfArgVal"));
    if (fill == nullptr)
        fail("no formatter to pass it on to", format);
    return checker(format, args).check() > LONGEST_TEXT ? "" : fill(format, args);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::size_t count = size == 0 ? 0 : std::min<std::size_t>(data[0] % 16, size - 1);
    std::vector<Arg> args;
    std::vector<const Arg*> pointers;
    for (std::size_t i = 0; i < count; ++i)
        args.push_back(argument_of(data[1 + i]));
    for (const Arg& arg : args)
        pointers.push_back(arg.kind() == 0 ? nullptr : &arg);
    const std::size_t begin = std::min(size, count + 1);
    const std::string format(data + begin, data + size);
    const Kvl::UString text = UMessage::sprintf(format.c_str(), pointers);
    const auto is_plain = [](char c) { return c > 0 && c != '%'; };
    // Deliberate: this one text of the formatter means that it has none.
    const bool is_missing = format == "default QmLogger message";
    if (std::all_of(format.begin(), format.end(), is_plain) && !is_missing &&
        text.utf8_str() != format)
        fail("plain text changed", format.c_str());
    return 0;
}
