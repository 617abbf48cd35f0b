// Texts against what a caller would hold them in instead: Qt's, ICU's, glib's and the standard
// library's.

#include "contest.h"

#include <kvutil/selector.h>
#include <kvutil/ustring.h>

#include <benchmark/benchmark.h>
#include <unicode/ucnv.h>
#include <unicode/ustring.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#ifdef KVUTIL_BENCH_GLIB
#include <glib.h>
#endif
#ifdef KVUTIL_BENCH_QT
#include <QByteArray>
#include <QString>
#include <QTextCodec>
#endif

using Kvl::Selector;
using Kvl::UString;
using Kvl::Utf8String;

namespace {

constexpr std::size_t KIB = 1024;

void add(const std::string& name, const std::function<void(benchmark::State&)>& contest)
{
    benchmark::RegisterBenchmark(name.c_str(), contest);
}

// Repeats what makes a result, which ends with each turn.
template <class Make>
void time_making(benchmark::State& state, Make make)
{
    for (auto _ : state) {
        const auto made = make();
        benchmark::DoNotOptimize(&made);
        benchmark::ClobberMemory();
    }
}

// ---- texts ----

std::string ascii_text(std::size_t size)
{
    static const std::string sentence = "The quick brown fox jumps over the lazy dog; ";
    std::string text;
    while (text.size() < size)
        text += sentence;
    return text.substr(0, size);
}

// ASCII, two- and three-byte characters in no order that a branch predictor could learn.
std::string mixed_text(std::size_t size)
{
    static const std::vector<std::string> characters = {
        "e", " ", "\xC3\xA9", "\xD0\xB8", "t", "\xE4\xB8\xAD", "\xE3\x81\x82", "a", "\xCE\xB1"};
    std::string text;
    unsigned int state = 12345;
    while (text.size() + 3 <= size) {
        state = state * 1664525u + 1013904223u;
        text += characters[(state >> 16) % characters.size()];
    }
    return text + ascii_text(size - text.size());
}

std::u16string units_of(const icu::UnicodeString& text)
{
    return std::u16string(text.getBuffer(), static_cast<std::size_t>(text.length()));
}

std::u16string utf16(const std::string& utf8)
{
    return units_of(icu::UnicodeString::fromUTF8(utf8));
}

using text_of_size_t = std::string (*)(std::size_t);

struct text_case_t {
    const char* size_name;
    std::size_t size;
};

constexpr std::array<text_case_t, 3> ascii_cases = {{{"12", 12}, {"60", 60}, {"64 KiB", 64 * KIB}}};
constexpr std::array<text_case_t, 2> mixed_cases = {{{"200 bytes", 200}, {"64 KiB", 64 * KIB}}};

// "12 bytes", "12 units", but "64 KiB".
std::string sized(const text_case_t& of, const char* what)
{
    const std::string name = of.size_name;
    return name.find(' ') == name.npos ? name + " " + what : name;
}

// ---- UTF-8 in: an owned UTF-16 text out of bytes ----

struct kvutil_in {
    static constexpr const char* NAME = "kvutil";
    explicit kvutil_in(const Utf8String& bytes) : text(bytes) {}
    std::u16string units() const { return units_of(text); }
    UString text;
};

struct icu_in {
    static constexpr const char* NAME = "ICU fromUTF8";
    explicit icu_in(const std::string& bytes) : text(icu::UnicodeString::fromUTF8(bytes)) {}
    std::u16string units() const { return units_of(text); }
    icu::UnicodeString text;
};

#ifdef KVUTIL_BENCH_GLIB
struct glib_in {
    static constexpr const char* NAME = "glib";
    explicit glib_in(const std::string& bytes)
        : text(g_utf8_to_utf16(bytes.data(), static_cast<glong>(bytes.size()), nullptr, &length,
                               nullptr))
    {
    }
    ~glib_in() { g_free(text); }
    glib_in(const glib_in&) = delete;
    glib_in& operator=(const glib_in&) = delete;
    std::u16string units() const { return std::u16string(text, text + length); }
    glong length = 0;
    gunichar2* text;
};
#endif

#ifdef KVUTIL_BENCH_QT
struct qt_in {
    static constexpr const char* NAME = "Qt fromUtf8";
    explicit qt_in(const std::string& bytes)
        : text(QString::fromUtf8(bytes.data(), static_cast<int>(bytes.size())))
    {
    }
    std::u16string units() const { return text.toStdU16String(); }
    QString text;
};
#endif

// The least work for ASCII: one allocation, one widening loop.
struct floor_in {
    static constexpr const char* NAME = "floor";
    explicit floor_in(const std::string& bytes)
        : text(new char16_t[bytes.size()]), length(bytes.size())
    {
        for (std::size_t i = 0; i < length; ++i)
            text[i] = static_cast<unsigned char>(bytes[i]);
    }
    std::u16string units() const { return std::u16string(text.get(), length); }
    std::unique_ptr<char16_t[]> text;
    std::size_t length;
};

template <class Contestant, text_of_size_t TEXT>
void utf8_in(benchmark::State& state, std::size_t size)
{
    const Utf8String bytes(TEXT(size));
    require_agreement(state, Contestant(bytes).units() == utf16(bytes));
    for (auto _ : state) {
        const Contestant made(bytes);
        benchmark::DoNotOptimize(&made);
        benchmark::ClobberMemory();
    }
}

// The peers put U+FFFD instead, or nothing: how each fails is its contract, so they do not agree.
template <class Contestant>
void malformed_in(benchmark::State& state, std::size_t size)
{
    Utf8String bytes(mixed_text(size));
    bytes[size / 2] = '\xFF';
    require_agreement(state, UString(bytes).empty());
    for (auto _ : state) {
        const Contestant made(bytes);
        benchmark::DoNotOptimize(&made);
        benchmark::ClobberMemory();
    }
}

template <class Contestant>
void add_malformed_in()
{
    const std::string row = "rejected input: malformed UTF-8 in, ";
    add(row + "200 bytes/" + Contestant::NAME,
        [](benchmark::State& state) { malformed_in<Contestant>(state, 200); });
    add(row + "64 KiB/" + Contestant::NAME,
        [](benchmark::State& state) { malformed_in<Contestant>(state, 64 * KIB); });
}

template <class Contestant>
void add_ascii_in()
{
    for (const text_case_t& of : ascii_cases)
        add("UTF-8 in, ASCII: " + sized(of, "bytes") + "/" + Contestant::NAME,
            [of](benchmark::State& state) { utf8_in<Contestant, ascii_text>(state, of.size); });
}

template <class Contestant>
void add_mixed_in()
{
    for (const text_case_t& of : mixed_cases)
        add("UTF-8 in, mixed: " + sized(of, "bytes") + "/" + Contestant::NAME,
            [of](benchmark::State& state) { utf8_in<Contestant, mixed_text>(state, of.size); });
}

// ---- UTF-8 out: owned bytes out of a text ----

struct kvutil_out {
    static constexpr const char* NAME = "kvutil";
    explicit kvutil_out(const std::u16string& units) : text(units) {}
    auto convert() const { return text.utf8_str(); }
    std::string bytes() const { return convert(); }
    UString text;
};

struct icu_out {
    static constexpr const char* NAME = "ICU toUTF8String";
    explicit icu_out(const std::u16string& units)
        : text(units.data(), static_cast<int>(units.size()))
    {
    }
    std::string convert() const
    {
        std::string result;
        return text.toUTF8String(result);
    }
    std::string bytes() const { return convert(); }
    icu::UnicodeString text;
};

#ifdef KVUTIL_BENCH_GLIB
struct glib_out {
    static constexpr const char* NAME = "glib";
    struct free_t {
        void operator()(gchar* text) const { g_free(text); }
    };
    explicit glib_out(const std::u16string& units) : text(units.begin(), units.end()) {}
    std::unique_ptr<gchar, free_t> convert() const
    {
        return std::unique_ptr<gchar, free_t>(g_utf16_to_utf8(
            text.data(), static_cast<glong>(text.size()), nullptr, nullptr, nullptr));
    }
    std::string bytes() const { return convert().get(); }
    std::vector<gunichar2> text;
};
#endif

#ifdef KVUTIL_BENCH_QT
struct qt_out {
    static constexpr const char* NAME = "Qt toUtf8";
    explicit qt_out(const std::u16string& units) : text(QString::fromStdU16String(units)) {}
    QByteArray convert() const { return text.toUtf8(); }
    std::string bytes() const { return convert().toStdString(); }
    QString text;
};
#endif

// The least work for ASCII: one allocation, one narrowing loop.
struct floor_out {
    static constexpr const char* NAME = "floor";
    explicit floor_out(const std::u16string& units) : text(units) {}
    std::unique_ptr<char[]> convert() const
    {
        const std::size_t size = text.size();
        std::unique_ptr<char[]> result(new char[size]);
        char* const to = result.get();
        for (std::size_t i = 0; i < size; ++i)
            to[i] = static_cast<char>(text[i]);
        return result;
    }
    std::string bytes() const { return std::string(convert().get(), text.size()); }
    std::u16string text;
};

template <class Contestant, text_of_size_t TEXT>
void utf8_out(benchmark::State& state, std::size_t size)
{
    const std::string bytes = TEXT(size);
    const Contestant contestant(utf16(bytes));
    require_agreement(state, contestant.bytes() == bytes);
    time_making(state, [&] { return contestant.convert(); });
}

template <class Contestant>
void add_ascii_out()
{
    for (const text_case_t& of : ascii_cases)
        add("UTF-8 out, ASCII: " + sized(of, "units") + "/" + Contestant::NAME,
            [of](benchmark::State& state) { utf8_out<Contestant, ascii_text>(state, of.size); });
}

template <class Contestant>
void add_mixed_out()
{
    for (const text_case_t& of : mixed_cases)
        add("further, texts: UTF-8 out, mixed, " + sized(of, "bytes") + "/" + Contestant::NAME,
            [of](benchmark::State& state) { utf8_out<Contestant, mixed_text>(state, of.size); });
}

// ---- searching: the last 8 units of a text, and its last unit ----

const std::u16string needle = u"needle!#";

std::u16string hay(std::size_t length)
{
    return utf16(ascii_text(length - needle.size())) + needle;
}

struct kvutil_find {
    static constexpr const char* NAME = "kvutil";
    explicit kvutil_find(const std::u16string& hay) : text(hay), wanted(needle) {}
    int text_at() const { return text.find(wanted); }
    int unit_at() const { return text.find('#'); }
    UString text;
    UString wanted;
};

struct icu_find {
    static constexpr const char* NAME = "ICU indexOf";
    explicit icu_find(const std::u16string& hay)
        : text(hay.data(), static_cast<int>(hay.size())),
          wanted(needle.data(), static_cast<int>(needle.size()))
    {
    }
    int text_at() const { return text.indexOf(wanted); }
    int unit_at() const { return text.indexOf(u'#'); }
    icu::UnicodeString text;
    icu::UnicodeString wanted;
};

struct std_find {
    static constexpr const char* NAME = "std::u16string";
    explicit std_find(const std::u16string& hay) : text(hay), wanted(needle) {}
    int text_at() const { return static_cast<int>(text.find(wanted)); }
    int unit_at() const { return static_cast<int>(text.find(u'#')); }
    std::u16string text;
    std::u16string wanted;
};

#ifdef KVUTIL_BENCH_QT
struct qt_find {
    static constexpr const char* NAME = "Qt indexOf";
    explicit qt_find(const std::u16string& hay)
        : text(QString::fromStdU16String(hay)), wanted(QString::fromStdU16String(needle))
    {
    }
    int text_at() const { return text.indexOf(wanted); }
    int unit_at() const { return text.indexOf(QLatin1Char('#')); }
    QString text;
    QString wanted;
};
#endif

template <class Contestant>
void find(benchmark::State& state, std::size_t length, int (Contestant::*search)() const)
{
    const Contestant contestant(hay(length));
    const int end = static_cast<int>(length);
    require_agreement(state, contestant.text_at() == end - 8 && contestant.unit_at() == end - 1);
    for (auto _ : state)
        benchmark::DoNotOptimize((contestant.*search)());
}

template <class Contestant>
void add_find()
{
    for (const std::size_t length : {60u, 4096u}) {
        const std::string in = " in " + std::to_string(length) + "/" + Contestant::NAME;
        add("find: 8 units" + in, [length](benchmark::State& state) {
            find<Contestant>(state, length, &Contestant::text_at);
        });
        add("find: unit" + in, [length](benchmark::State& state) {
            find<Contestant>(state, length, &Contestant::unit_at);
        });
    }
}

// ---- replacing every occurrence: a new text out of an old one that stays ----

const std::u16string replaced = u"segment";
const std::u16string replacement = u"replacement";

std::u16string path_of(std::size_t length)
{
    std::u16string text;
    while (text.size() < length)
        text += u"some/segment/abcdef ";
    return text.substr(0, length);
}

std::u16string replace_by_appending(const std::u16string& source)
{
    std::u16string result;
    result.reserve(source.size());
    std::size_t done = 0;
    for (std::size_t at = source.find(replaced); at != source.npos;
         at = source.find(replaced, done)) {
        result.append(source, done, at - done).append(replacement);
        done = at + replaced.size();
    }
    return result.append(source, done);
}

struct kvutil_replace {
    static constexpr const char* NAME = "kvutil";
    explicit kvutil_replace(const std::u16string& source)
        : text(source), from(replaced), to(replacement)
    {
    }
    UString make() const { return Selector::replaceAll(text, from, to); }
    std::u16string units() const { return units_of(make()); }
    UString text;
    UString from;
    UString to;
};

struct std_replace {
    static constexpr const char* NAME = "std::u16string, appended to";
    explicit std_replace(const std::u16string& source) : text(source) {}
    std::u16string make() const { return replace_by_appending(text); }
    std::u16string units() const { return make(); }
    std::u16string text;
};

struct icu_replace {
    static constexpr const char* NAME = "ICU findAndReplace";
    explicit icu_replace(const std::u16string& source)
        : text(source.data(), static_cast<int>(source.size())),
          from(replaced.data(), static_cast<int>(replaced.size())),
          to(replacement.data(), static_cast<int>(replacement.size()))
    {
    }
    icu::UnicodeString make() const
    {
        icu::UnicodeString result(text);
        result.findAndReplace(from, to);
        return result;
    }
    std::u16string units() const { return units_of(make()); }
    icu::UnicodeString text;
    icu::UnicodeString from;
    icu::UnicodeString to;
};

#ifdef KVUTIL_BENCH_QT
struct qt_replace {
    static constexpr const char* NAME = "Qt replace";
    explicit qt_replace(const std::u16string& source)
        : text(QString::fromStdU16String(source)), from(QString::fromStdU16String(replaced)),
          to(QString::fromStdU16String(replacement))
    {
    }
    QString make() const
    {
        QString result(text);
        result.replace(from, to);
        return result;
    }
    std::u16string units() const { return make().toStdU16String(); }
    QString text;
    QString from;
    QString to;
};
#endif

// The least work: the places and the length of the result are known beforehand.
struct floor_replace {
    static constexpr const char* NAME = "floor";
    explicit floor_replace(const std::u16string& source)
        : text(source), length(replace_by_appending(source).size())
    {
        for (std::size_t at = 0; (at = text.find(replaced, at)) != text.npos; at += replaced.size())
            places.push_back(at);
    }
    std::unique_ptr<char16_t[]> make() const
    {
        std::unique_ptr<char16_t[]> result(new char16_t[length]);
        char16_t* to = result.get();
        std::size_t done = 0;
        for (const std::size_t at : places) {
            to = std::copy_n(text.data() + done, at - done, to);
            to = std::copy_n(replacement.data(), replacement.size(), to);
            done = at + replaced.size();
        }
        std::copy(text.data() + done, text.data() + text.size(), to);
        return result;
    }
    std::u16string units() const { return std::u16string(make().get(), length); }
    std::u16string text;
    std::size_t length;
    std::vector<std::size_t> places;
};

template <class Contestant>
void add_replace_all()
{
    for (const std::size_t length : {60u, 4096u})
        add("replace all: " + std::to_string(length) + " units/" + Contestant::NAME,
            [length](benchmark::State& state) {
                const std::u16string source = path_of(length);
                const Contestant contestant(source);
                require_agreement(state, contestant.units() == replace_by_appending(source));
                time_making(state, [&] { return contestant.make(); });
            });
}

// ---- charsets: each time a string that has converted nothing yet, on the way out a copy ----

struct charset_case_t {
    const char* name;
    const char* letters;  // in UTF-8; at least 60 bytes in the charset, cut there
};

constexpr std::array<charset_case_t, 5> charsets = {{
    {"ISO-8859-1", "D\u00E9j\u00E0 \u00E0 No\u00EBl, la for\u00EAt br\u00FBle: o\u00F9 aller? "
                   "Stra\u00DFe, \u00C5rhus, ma\u00F1ana, S\u00E3o Paulo"},
    {"windows-1252",
     "D\u00E9j\u00E0 \u00E0 No\u00EBl, la for\u00EAt br\u00FBle\u2026 \u201EStra"
     "\u00DFe\u201C \u2013 50 \u20AC, ma\u00F1ana \u2022 S\u00E3o Paulo, l\u2019or"},
    {"Shift_JIS", "\u8A2D\u5B9A\u30D5\u30A1\u30A4\u30EB\u304C\u898B\u3064\u304B\u308A\u307E\u305B"
                  "\u3093\u3002\u540D\u524D\u3092\u78BA\u8A8D\u3057\u3066\u304F\u3060\u3055\u3044"
                  "\u3002\u8A2D\u5B9A\u540D\u524D"},
    {"EUC-JP", "\u8A2D\u5B9A\u30D5\u30A1\u30A4\u30EB\u304C\u898B\u3064\u304B\u308A\u307E\u305B"
               "\u3093\u3002\u540D\u524D\u3092\u78BA\u8A8D\u3057\u3066\u304F\u3060\u3055\u3044"
               "\u3002\u8A2D\u5B9A\u540D\u524D"},
    {"ISO-2022-JP", "\u8A2D\u5B9A\u30D5\u30A1\u30A4\u30EB\u304C\u898B\u3064\u304B\u308A\u307E\u305B"
                    "\u3093\u3002\u540D\u524D\u3092\u78BA\u8A8D\u3057\u3066\u304F\u3060"},
}};

// A converter that its owner keeps, as one does who converts often.
class kept_converter_t {
public:
    explicit kept_converter_t(const char* name) : converter_(ucnv_open(name, &status_)) {}
    ~kept_converter_t() { ucnv_close(converter_); }
    kept_converter_t(const kept_converter_t&) = delete;
    kept_converter_t& operator=(const kept_converter_t&) = delete;

    icu::UnicodeString in(const std::string& bytes)
    {
        return icu::UnicodeString(bytes.data(), static_cast<int>(bytes.size()), converter_,
                                  status_);
    }

    // Straight into the text's own buffer, whose size is enough for the charsets here.
    icu::UnicodeString in_place(const std::string& bytes)
    {
        const auto room = static_cast<int>(bytes.size());
        icu::UnicodeString result(room, 0, 0);
        char16_t* const buffer = result.getBuffer(room);
        result.releaseBuffer(ucnv_toUChars(converter_, buffer, room, bytes.data(), room, &status_));
        return result;
    }

    std::string out(const icu::UnicodeString& text)
    {
        std::string result(room_for(text), '\0');
        result.resize(convert_out(text, result.data(), result.size()));
        return result;
    }

    // By way of the stack, for short texts.
    std::string out_by_stack(const icu::UnicodeString& text)
    {
        std::array<char, 1024> buffer;
        return std::string(buffer.data(), convert_out(text, buffer.data(), buffer.size()));
    }

private:
    std::size_t room_for(const icu::UnicodeString& text) const
    {
        return static_cast<std::size_t>(
            UCNV_GET_MAX_BYTES_FOR_STRING(text.length(), ucnv_getMaxCharSize(converter_)));
    }

    std::size_t convert_out(const icu::UnicodeString& text, char* to, std::size_t room)
    {
        return static_cast<std::size_t>(ucnv_fromUChars(converter_, to, static_cast<int>(room),
                                                        text.getBuffer(), text.length(), &status_));
    }

    UErrorCode status_ = U_ZERO_ERROR;
    UConverter* converter_;
};

// What a contest of one charset converts, both ways.
struct charset_text_t {
    const char* charset;
    std::string bytes;
    icu::UnicodeString text;
};

charset_text_t charset_text(const char* charset, const std::string& utf8, std::size_t size)
{
    kept_converter_t converter(charset);
    icu::UnicodeString text = icu::UnicodeString::fromUTF8(utf8);
    while (converter.out(text).size() > size)
        text.truncate(text.length() - 1);
    return {charset, converter.out(text), text};
}

void charset_in_kvutil(benchmark::State& state, const charset_text_t& of)
{
    require_agreement(state, units_of(UString(of.bytes.c_str(), of.charset)) == units_of(of.text));
    time_making(state, [&] {
        UString text;
        text.assign(of.bytes, of.charset);
        return text;
    });
}

void charset_in_icu(benchmark::State& state, const charset_text_t& of)
{
    kept_converter_t converter(of.charset);
    require_agreement(state, converter.in(of.bytes) == of.text);
    time_making(state, [&] { return converter.in(of.bytes); });
}

void charset_in_icu_in_place(benchmark::State& state, const charset_text_t& of)
{
    kept_converter_t converter(of.charset);
    require_agreement(state, converter.in_place(of.bytes) == of.text);
    time_making(state, [&] { return converter.in_place(of.bytes); });
}

void charset_out_kvutil(benchmark::State& state, const charset_text_t& of)
{
    const UString text(units_of(of.text));
    bool failed = false;
    require_agreement(state, text.std_str(of.charset, failed) == of.bytes && !failed);
    time_making(state, [&] {
        const UString fresh(text);
        return fresh.std_str(of.charset, failed);
    });
}

void charset_out_icu(benchmark::State& state, const charset_text_t& of)
{
    kept_converter_t converter(of.charset);
    require_agreement(state, converter.out(of.text) == of.bytes);
    time_making(state, [&] {
        const icu::UnicodeString fresh(of.text);
        return converter.out(fresh);
    });
}

void charset_out_icu_by_stack(benchmark::State& state, const charset_text_t& of)
{
    kept_converter_t converter(of.charset);
    require_agreement(state, converter.out_by_stack(of.text) == of.bytes);
    time_making(state, [&] {
        const icu::UnicodeString fresh(of.text);
        return converter.out_by_stack(fresh);
    });
}

#ifdef KVUTIL_BENCH_QT
void charset_in_qt(benchmark::State& state, const charset_text_t& of)
{
    QTextCodec* const codec = QTextCodec::codecForName(of.charset);
    const auto size = static_cast<int>(of.bytes.size());
    const QString made = codec->toUnicode(of.bytes.data(), size);
    require_agreement(state, made.toStdU16String() == units_of(of.text));
    time_making(state, [&] { return codec->toUnicode(of.bytes.data(), size); });
}

void charset_out_qt(benchmark::State& state, const charset_text_t& of)
{
    QTextCodec* const codec = QTextCodec::codecForName(of.charset);
    const QString text = QString::fromUtf16(of.text.getBuffer(), of.text.length());
    require_agreement(state, codec->fromUnicode(text).toStdString() == of.bytes);
    time_making(state, [&] {
        const QString fresh(text);
        return codec->fromUnicode(fresh);
    });
}

void latin1_in_qt(benchmark::State& state, const charset_text_t& of)
{
    const auto size = static_cast<int>(of.bytes.size());
    const QString made = QString::fromLatin1(of.bytes.data(), size);
    require_agreement(state, made.toStdU16String() == units_of(of.text));
    time_making(state, [&] { return QString::fromLatin1(of.bytes.data(), size); });
}

void latin1_out_qt(benchmark::State& state, const charset_text_t& of)
{
    const QString text = QString::fromUtf16(of.text.getBuffer(), of.text.length());
    require_agreement(state, text.toLatin1().toStdString() == of.bytes);
    time_making(state, [&] {
        const QString fresh(text);
        return fresh.toLatin1();
    });
}
#endif

using charset_contest_t = void (*)(benchmark::State&, const charset_text_t&);

void add_charset(const std::string& name, charset_contest_t contest, const charset_text_t& of)
{
    add(name, [contest, of](benchmark::State& state) { contest(state, of); });
}

void add_charset_contests(const charset_text_t& of, const std::string& what)
{
    const std::string row = "charset conversion, fresh string: ";
    const std::string in = row + of.charset + " in, 60 bytes" + what;
    const std::string out = row + of.charset + " out, 60 bytes" + what;
    add_charset(in + "/kvutil", charset_in_kvutil, of);
    add_charset(in + "/kept ICU converter", charset_in_icu, of);
    add_charset(in + "/kept ICU converter, in place", charset_in_icu_in_place, of);
    add_charset(out + "/kvutil", charset_out_kvutil, of);
    add_charset(out + "/kept ICU converter", charset_out_icu, of);
    add_charset(out + "/kept ICU converter, by stack", charset_out_icu_by_stack, of);
#ifdef KVUTIL_BENCH_QT
    add_charset(in + "/Qt codec", charset_in_qt, of);
    // Qt's ISO-2022-JP does not go back to ASCII at the end.
    if (of.charset != std::string_view("ISO-2022-JP"))
        add_charset(out + "/Qt codec", charset_out_qt, of);
    if (of.charset == std::string_view("ISO-8859-1")) {
        add_charset(in + "/Qt fromLatin1", latin1_in_qt, of);
        add_charset(out + "/Qt toLatin1", latin1_out_qt, of);
    }
#endif
}

void add_charsets()
{
    for (const charset_case_t& charset : charsets) {
        add_charset_contests(charset_text(charset.name, ascii_text(60), 60), " of ASCII");
        add_charset_contests(charset_text(charset.name, charset.letters, 60), " of letters");
    }
}

// ---- what is rejected ----

void unpaired_out_kvutil(benchmark::State& state)
{
    std::u16string units = utf16(mixed_text(200));
    units[units.size() / 2] = 0xD800;
    const UString text(units);
    require_agreement(state, text.utf8_str().empty());
    time_making(state, [&] { return text.utf8_str(); });
}

#ifdef KVUTIL_BENCH_GLIB
void unpaired_out_glib(benchmark::State& state)
{
    std::u16string units = utf16(mixed_text(200));
    units[units.size() / 2] = 0xD800;
    const glib_out contestant(units);
    require_agreement(state, contestant.convert() == nullptr);
    time_making(state, [&] { return contestant.convert(); });
}
#endif

void unknown_charset_kvutil(benchmark::State& state)
{
    const std::string bytes = ascii_text(60);
    require_agreement(state, UString().assign(bytes, "no-such-charset") == nullptr);
    time_making(state, [&] { return UString().assign(bytes, "no-such-charset") == nullptr; });
}

void unknown_charset_icu(benchmark::State& state)
{
    const auto opens = [] {
        UErrorCode status = U_ZERO_ERROR;
        return ucnv_open("no-such-charset", &status) != nullptr;
    };
    require_agreement(state, !opens());
    time_making(state, opens);
}

void add_rejected()
{
    add_malformed_in<kvutil_in>();
    add_malformed_in<icu_in>();
    add("rejected input: unpaired surrogate out, 200 bytes/kvutil", unpaired_out_kvutil);
    add("rejected input: unknown charset/kvutil", unknown_charset_kvutil);
    add("rejected input: unknown charset/ICU ucnv_open", unknown_charset_icu);
#ifdef KVUTIL_BENCH_GLIB
    add_malformed_in<glib_in>();
    add("rejected input: unpaired surrogate out, 200 bytes/glib", unpaired_out_glib);
#endif
#ifdef KVUTIL_BENCH_QT
    add_malformed_in<qt_in>();
#endif
}

// ---- growth ----

struct size_case_t {
    const char* name;
    std::size_t size;
};

constexpr std::array<size_case_t, 5> sizes = {{
    {"1 KiB", KIB},
    {"16 KiB", 16 * KIB},
    {"256 KiB", 256 * KIB},
    {"1 MiB", KIB* KIB},
    {"16 MiB", 16 * KIB* KIB},
}};

void count_bytes(benchmark::State& state, std::size_t size)
{
    using counter = benchmark::Counter;
    state.counters["ns per byte"] =
        counter(static_cast<double>(size) * 1e-9,
                counter::kIsIterationInvariantRate | static_cast<counter::Flags>(counter::kInvert));
}

void utf8_in_growth(benchmark::State& state, std::size_t size)
{
    const Utf8String bytes(mixed_text(size));
    time_making(state, [&] { return UString(bytes); });
}

void utf8_out_growth(benchmark::State& state, std::size_t size)
{
    const UString text{Utf8String(mixed_text(size))};
    time_making(state, [&] { return text.utf8_str(); });
}

std::string repeated_letters(const charset_case_t& charset, std::size_t size)
{
    const std::string letters = charset_text(charset.name, charset.letters, 60).bytes;
    std::string bytes;
    while (bytes.size() < size)
        bytes += letters;
    return bytes;
}

constexpr charset_case_t grown_charset = charsets[2];

void charset_in_growth(benchmark::State& state, std::size_t size)
{
    const std::string bytes = repeated_letters(grown_charset, size);
    time_making(state, [&] {
        UString text;
        text.assign(bytes, grown_charset.name);
        return text;
    });
}

void charset_out_growth(benchmark::State& state, std::size_t size)
{
    UString text;
    text.assign(repeated_letters(grown_charset, size), grown_charset.name);
    bool failed = false;
    time_making(state, [&] {
        const UString fresh(text);
        return fresh.std_str(grown_charset.name, failed);
    });
}

void replace_all_growth(benchmark::State& state, std::size_t size)
{
    const kvutil_replace contestant(path_of(size / sizeof(char16_t)));
    time_making(state, [&] { return contestant.make(); });
}

void split_growth(benchmark::State& state, std::size_t size)
{
    const UString path(path_of(size / sizeof(char16_t)));
    time_making(state, [&] { return Selector::split_segments(path, Selector::SEGMENT_SEP); });
}

void add_growth(const std::string& row, void (*contest)(benchmark::State&, std::size_t))
{
    for (const auto& [name, size] : sizes)
        add("growth, " + row + ": " + name + "/kvutil",
            [contest, size = size](benchmark::State& state) {
                contest(state, size);
                count_bytes(state, size);
            });
}

// ---- editing ----

template <class String>
void append_units(benchmark::State& state)
{
    time_making(state, [] {
        String text;
        for (int i = 0; i < 1000; ++i)
            text += u'x';
        return text;
    });
}

template <class String>
void copy_text(benchmark::State& state, std::size_t length)
{
    const std::u16string units(length, u'x');
    const String text(units.c_str());
    for (auto _ : state) {
        String copy(text);
        benchmark::DoNotOptimize(&copy);
    }
}

template <class String>
void add_editing(const std::string& contestant)
{
    add("further, texts: append 1000 times a unit/" + contestant, append_units<String>);
    for (const std::size_t length : {12u, 60u})
        add("further, texts: copy " + std::to_string(length) + " units/" + contestant,
            [length](benchmark::State& state) { copy_text<String>(state, length); });
}

// ---- all ----

template <class In, class Out>
void add_utf8()
{
    add_ascii_in<In>();
    add_mixed_in<In>();
    add_ascii_out<Out>();
    add_mixed_out<Out>();
}

template <class Find, class Replace>
void add_edits()
{
    add_find<Find>();
    add_replace_all<Replace>();
}

[[maybe_unused]] const bool are_added = [] {
    add_utf8<kvutil_in, kvutil_out>();
    add_utf8<icu_in, icu_out>();
    add_ascii_in<floor_in>();
    add_ascii_out<floor_out>();
    add_edits<kvutil_find, kvutil_replace>();
    add_edits<icu_find, icu_replace>();
    add_edits<std_find, std_replace>();
    add_replace_all<floor_replace>();
#ifdef KVUTIL_BENCH_GLIB
    add_utf8<glib_in, glib_out>();
#endif
#ifdef KVUTIL_BENCH_QT
    add_utf8<qt_in, qt_out>();
    add_edits<qt_find, qt_replace>();
#endif
    add_charsets();
    add_rejected();
    add_editing<UString>("kvutil");
    add_editing<icu::UnicodeString>("ICU");
    add_editing<std::u16string>("std::u16string");
    add_growth("UTF-8 in", utf8_in_growth);
    add_growth("UTF-8 out", utf8_out_growth);
    add_growth("charset in", charset_in_growth);
    add_growth("charset out", charset_out_growth);
    add_growth("replace all", replace_all_growth);
    add_growth("split", split_growth);
    return true;
}();

}  // namespace
