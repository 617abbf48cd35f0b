#include <kvutil/ustring.h>

#include <benchmark/benchmark.h>
#include <unicode/ucnv.h>
#include <unicode/ustring.h>

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#ifdef KVUTIL_BENCH_GLIB
#include <glib.h>
#endif
#ifdef KVUTIL_BENCH_QT
#include <QByteArray>
#include <QString>
#endif

using Kvl::UString;
using Kvl::Utf8String;

namespace {

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

std::string malformed_text(std::size_t size)
{
    std::string text = mixed_text(size);
    text[size / 2] = '\xFF';
    return text;
}

std::u16string utf16(const std::string& utf8)
{
    const icu::UnicodeString text = icu::UnicodeString::fromUTF8(utf8);
    return std::u16string(text.getBuffer(), static_cast<std::size_t>(text.length()));
}

using text_of_size_t = std::string (*)(std::size_t);

// ---- UTF-8 in: an owned UTF-16 text out of bytes ----

struct kvutil_in {
    explicit kvutil_in(const std::string& bytes) : text(static_cast<const Utf8String&>(bytes)) {}
    std::u16string units() const { return std::u16string(text.getBuffer(), text.length()); }
    UString text;
};

struct icu_in {
    explicit icu_in(const std::string& bytes) : text(icu::UnicodeString::fromUTF8(bytes)) {}
    std::u16string units() const
    {
        return std::u16string(text.getBuffer(), static_cast<std::size_t>(text.length()));
    }
    icu::UnicodeString text;
};

#ifdef KVUTIL_BENCH_GLIB
struct glib_in {
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

template <class Peer, text_of_size_t TEXT, bool AGREES = true>
void utf8_in(benchmark::State& state)
{
    const std::string bytes = TEXT(static_cast<std::size_t>(state.range(0)));
    if (AGREES && Peer(bytes).units() != utf16(bytes))
        state.SkipWithError("the peers do not agree");
    for (auto _ : state) {
        const Peer peer(bytes);
        benchmark::DoNotOptimize(&peer);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

#define UTF8_IN(peer)                                                                              \
    BENCHMARK(utf8_in<peer##_in, ascii_text>)                                                      \
        ->Name("utf8_in_ascii_" #peer)                                                             \
        ->Arg(12)                                                                                  \
        ->Arg(60)                                                                                  \
        ->Arg(64 << 10);                                                                           \
    BENCHMARK(utf8_in<peer##_in, mixed_text>)                                                      \
        ->Name("utf8_in_mixed_" #peer)                                                             \
        ->Arg(20)                                                                                  \
        ->Arg(200)                                                                                 \
        ->Arg(64 << 10);                                                                           \
    /* The peers put U+FFFD instead, or nothing; that each fails in its own way is its contract.   \
     */                                                                                            \
    BENCHMARK(utf8_in<peer##_in, malformed_text, false>)->Name("utf8_in_malformed_" #peer)->Arg(200)

UTF8_IN(kvutil);
UTF8_IN(icu);
#ifdef KVUTIL_BENCH_GLIB
UTF8_IN(glib);
#endif
#ifdef KVUTIL_BENCH_QT
UTF8_IN(qt);
#endif
BENCHMARK(utf8_in<floor_in, ascii_text>)
    ->Name("utf8_in_ascii_floor")
    ->Arg(12)
    ->Arg(60)
    ->Arg(64 << 10);

// ---- UTF-8 out: owned bytes out of a text ----

struct kvutil_out {
    explicit kvutil_out(const std::u16string& units) : text(units) {}
    std::string bytes() const { return text.utf8_str(); }
    void convert() const { benchmark::DoNotOptimize(text.utf8_str().data()); }
    UString text;
};

struct icu_out {
    explicit icu_out(const std::u16string& units)
        : text(units.data(), static_cast<int>(units.size()))
    {
    }
    std::string bytes() const
    {
        std::string result;
        return text.toUTF8String(result);
    }
    void convert() const { benchmark::DoNotOptimize(bytes().data()); }
    icu::UnicodeString text;
};

#ifdef KVUTIL_BENCH_GLIB
struct glib_out {
    explicit glib_out(const std::u16string& units) : text(units.begin(), units.end()) {}
    std::string bytes() const
    {
        gchar* const converted = g_utf16_to_utf8(text.data(), static_cast<glong>(text.size()),
                                                 nullptr, nullptr, nullptr);
        std::string result = converted;
        g_free(converted);
        return result;
    }
    void convert() const
    {
        gchar* const converted = g_utf16_to_utf8(text.data(), static_cast<glong>(text.size()),
                                                 nullptr, nullptr, nullptr);
        benchmark::DoNotOptimize(converted);
        g_free(converted);
    }
    std::vector<gunichar2> text;
};
#endif

#ifdef KVUTIL_BENCH_QT
struct qt_out {
    explicit qt_out(const std::u16string& units) : text(QString::fromStdU16String(units)) {}
    std::string bytes() const { return text.toUtf8().toStdString(); }
    void convert() const { benchmark::DoNotOptimize(text.toUtf8().constData()); }
    QString text;
};
#endif

template <class Peer, text_of_size_t TEXT>
void utf8_out(benchmark::State& state)
{
    const std::string bytes = TEXT(static_cast<std::size_t>(state.range(0)));
    const Peer peer(utf16(bytes));
    if (peer.bytes() != bytes)
        state.SkipWithError("the peers do not agree");
    for (auto _ : state)
        peer.convert();
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

#define UTF8_OUT(peer)                                                                             \
    BENCHMARK(utf8_out<peer##_out, ascii_text>)                                                    \
        ->Name("utf8_out_ascii_" #peer)                                                            \
        ->Arg(12)                                                                                  \
        ->Arg(60)                                                                                  \
        ->Arg(64 << 10);                                                                           \
    BENCHMARK(utf8_out<peer##_out, mixed_text>)                                                    \
        ->Name("utf8_out_mixed_" #peer)                                                            \
        ->Arg(20)                                                                                  \
        ->Arg(200)                                                                                 \
        ->Arg(64 << 10)

UTF8_OUT(kvutil);
UTF8_OUT(icu);
#ifdef KVUTIL_BENCH_GLIB
UTF8_OUT(glib);
#endif
#ifdef KVUTIL_BENCH_QT
UTF8_OUT(qt);
#endif

// ---- searching: the last 8 units of a text, and its last unit ----

const std::u16string needle = u"needle!#";

std::u16string hay(std::size_t length)
{
    return utf16(ascii_text(length - needle.size())) + needle;
}

struct kvutil_find {
    explicit kvutil_find(const std::u16string& hay) : text(hay), wanted(needle) {}
    int text_at() const { return text.find(wanted); }
    int unit_at() const { return text.find('#'); }
    UString text;
    UString wanted;
};

struct icu_find {
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
    explicit std_find(const std::u16string& hay) : text(hay), wanted(needle) {}
    int text_at() const { return static_cast<int>(text.find(wanted)); }
    int unit_at() const { return static_cast<int>(text.find(u'#')); }
    std::u16string text;
    std::u16string wanted;
};

#ifdef KVUTIL_BENCH_QT
struct qt_find {
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

template <class Peer, int (Peer::*FIND)() const>
void find(benchmark::State& state)
{
    const Peer peer(hay(static_cast<std::size_t>(state.range(0))));
    if (peer.text_at() != state.range(0) - 8 || peer.unit_at() != state.range(0) - 1)
        state.SkipWithError("the peers do not agree");
    for (auto _ : state)
        benchmark::DoNotOptimize((peer.*FIND)());
}

#define FIND(peer)                                                                                 \
    BENCHMARK(find<peer##_find, &peer##_find::text_at>)                                            \
        ->Name("find_text_" #peer)                                                                 \
        ->Arg(60)                                                                                  \
        ->Arg(4096);                                                                               \
    BENCHMARK(find<peer##_find, &peer##_find::unit_at>)                                            \
        ->Name("find_unit_" #peer)                                                                 \
        ->Arg(60)                                                                                  \
        ->Arg(4096)

FIND(kvutil);
FIND(icu);
FIND(std);
#ifdef KVUTIL_BENCH_QT
FIND(qt);
#endif

// ---- charsets: each time with a fresh string, the peer with a converter that is kept ----

const char* const charset_names[] = {"ISO-8859-1", "windows-1252", "Shift_JIS", "EUC-JP"};

const std::string charset_text = ascii_text(60);

void charset_in_kvutil(benchmark::State& state)
{
    const char* const name = charset_names[state.range(0)];
    state.SetLabel(name);
    for (auto _ : state) {
        UString text;
        benchmark::DoNotOptimize(text.assign(charset_text, name));
    }
}
BENCHMARK(charset_in_kvutil)->DenseRange(0, 3);

void charset_in_icu(benchmark::State& state)
{
    const char* const name = charset_names[state.range(0)];
    state.SetLabel(name);
    UErrorCode status = U_ZERO_ERROR;
    UConverter* const converter = ucnv_open(name, &status);
    for (auto _ : state) {
        const icu::UnicodeString text(charset_text.data(), static_cast<int>(charset_text.size()),
                                      converter, status);
        benchmark::DoNotOptimize(&text);
    }
    ucnv_close(converter);
}
BENCHMARK(charset_in_icu)->DenseRange(0, 3);

void charset_out_kvutil(benchmark::State& state)
{
    const char* const name = charset_names[state.range(0)];
    state.SetLabel(name);
    const UString text(utf16(charset_text));
    bool failed = false;
    if (text.std_str(name, failed) != charset_text)
        state.SkipWithError("the text does not convert to itself");
    for (auto _ : state) {
        const UString fresh(text);
        benchmark::DoNotOptimize(fresh.std_str(name, failed).data());
    }
}
BENCHMARK(charset_out_kvutil)->DenseRange(0, 3);

void charset_out_icu(benchmark::State& state)
{
    const char* const name = charset_names[state.range(0)];
    state.SetLabel(name);
    UErrorCode status = U_ZERO_ERROR;
    UConverter* const converter = ucnv_open(name, &status);
    const icu::UnicodeString text = icu::UnicodeString::fromUTF8(charset_text);
    for (auto _ : state) {
        const icu::UnicodeString fresh(text);
        std::string result(charset_text.size() * 3 + 1, '\0');
        const int size = ucnv_fromUChars(converter, result.data(), static_cast<int>(result.size()),
                                         fresh.getBuffer(), fresh.length(), &status);
        result.resize(static_cast<std::size_t>(size));
        benchmark::DoNotOptimize(result.data());
    }
    ucnv_close(converter);
}
BENCHMARK(charset_out_icu)->DenseRange(0, 3);

// ---- editing ----

void append_units_kvutil(benchmark::State& state)
{
    for (auto _ : state) {
        UString text;
        for (int i = 0; i < 1000; ++i)
            text.append('x');
        benchmark::DoNotOptimize(&text);
    }
    state.SetItemsProcessed(state.iterations() * 1000);
}
BENCHMARK(append_units_kvutil);

void append_units_icu(benchmark::State& state)
{
    for (auto _ : state) {
        icu::UnicodeString text;
        for (int i = 0; i < 1000; ++i)
            text.append(u'x');
        benchmark::DoNotOptimize(&text);
    }
    state.SetItemsProcessed(state.iterations() * 1000);
}
BENCHMARK(append_units_icu);

template <class String>
void copy_text(benchmark::State& state)
{
    const std::u16string units(static_cast<std::size_t>(state.range(0)), u'x');
    const String text(units.c_str());
    for (auto _ : state) {
        String copy(text);
        benchmark::DoNotOptimize(&copy);
    }
}
BENCHMARK(copy_text<UString>)->Name("copy_kvutil")->Arg(12)->Arg(60);
BENCHMARK(copy_text<icu::UnicodeString>)->Name("copy_icu")->Arg(12)->Arg(60);
BENCHMARK(copy_text<std::u16string>)->Name("copy_std")->Arg(12)->Arg(60);

}  // namespace
