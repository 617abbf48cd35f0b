// Selectors against what a caller would use instead: parsers of URIs, percent escapes, and plain
// code on std::u16string.

#include "contest.h"
#include "entry.h"
#include "rejection.h"

#include <kvutil/selector.h>
#include <kvutil/stpexception.h>

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#ifdef KVUTIL_BENCH_APR
#include <apr_escape.h>
#include <apr_general.h>
#include <apr_uri.h>
#endif
#ifdef KVUTIL_BENCH_GLIB
#include <glib.h>
#endif
#ifdef KVUTIL_BENCH_LIBXML2
#include <libxml/uri.h>
#endif
#ifdef KVUTIL_BENCH_QT
#include <QString>
#include <QUrl>
#include <QVector>
#endif

namespace {

using Kvl::Selector;
using Kvl::StateException;
using Kvl::UString;

struct size_in_words_t {
    std::size_t units;
    const char* words;
};
constexpr size_in_words_t SIZES[] = {
    {1 << 10, "1 KiB"}, {64 << 10, "64 KiB"}, {1 << 20, "1 MiB"}, {16 << 20, "16 MiB"}};

std::string narrow(const std::u16string& text)
{
    return std::string(text.begin(), text.end());
}

#ifdef KVUTIL_BENCH_APR
/// Before there are threads: they may not initialise APR at once.
const bool apr_is_initialised = apr_initialize() == APR_SUCCESS;

class pool_t {
public:
    pool_t()
    {
        if (apr_is_initialised)
            apr_pool_create(&pool_, nullptr);
    }
    ~pool_t() { apr_pool_destroy(pool_); }
    pool_t(const pool_t&) = delete;
    pool_t& operator=(const pool_t&) = delete;
    apr_pool_t* get() const { return pool_; }

private:
    apr_pool_t* pool_ = nullptr;
};
#endif

#ifdef KVUTIL_BENCH_LIBXML2
const xmlChar* xml(const std::string& text)
{
    return reinterpret_cast<const xmlChar*>(text.c_str());
}
#endif

// ---- Parsing ---------------------------------------------------------------------------------

/// One address for each grammar: the same path, and what else there is in the other parts.
struct address_t {
    std::u16string path, repository;

    std::u16string selector() const { return u"vd.file:" + path + u'@' + repository; }
    std::u16string uri() const { return u"file://vd" + path + u'?' + repository.substr(1); }
};

const address_t ADDRESS = {u"/src/lib/main.c", u"/vobs/proj"};

address_t address_of(std::size_t length)
{
    std::u16string path;
    while (path.size() + 8 <= length)
        path += u"/segment";
    return {path, u"/vobs/proj"};
}

void parse_kvutil(benchmark::State& state, const address_t& address)
{
    const UString text(address.selector());
    const Selector parsed(text);
    require_agreement(state, parsed.ns() == Selector::NS_FILE &&
                                 parsed.domain() == Selector::PD_VD &&
                                 parsed.name() == UString(address.path) &&
                                 parsed.repository() == UString(address.repository));
    for (auto _ : state)
        benchmark::DoNotOptimize(Selector(text));
}

/// The least work: the two owned texts of the result, and nothing looked for.
void parse_floor(benchmark::State& state, const address_t& address)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(address_t(address));
}

#ifdef KVUTIL_BENCH_APR
void parse_apr(benchmark::State& state, const address_t& address)
{
    const pool_t pool;
    const std::string text = narrow(address.uri());
    apr_uri_t uri;
    require_agreement(state, apr_uri_parse(pool.get(), text.c_str(), &uri) == APR_SUCCESS &&
                                 uri.path == narrow(address.path) &&
                                 '/' + std::string(uri.query) == narrow(address.repository));
    for (auto _ : state) {
        apr_pool_clear(pool.get());
        benchmark::DoNotOptimize(apr_uri_parse(pool.get(), text.c_str(), &uri));
        benchmark::ClobberMemory();
    }
}
#endif

#ifdef KVUTIL_BENCH_QT
void parse_qt(benchmark::State& state, const address_t& address)
{
    const QString text = QString::fromStdU16String(address.uri());
    const QUrl parsed(text);
    require_agreement(state, parsed.path().toStdU16String() == address.path &&
                                 u'/' + parsed.query().toStdU16String() == address.repository);
    for (auto _ : state)
        benchmark::DoNotOptimize(QUrl(text));
}
#endif

#ifdef KVUTIL_BENCH_LIBXML2
void parse_libxml2(benchmark::State& state, const address_t& address)
{
    const std::string text = narrow(address.uri());
    xmlURI* const parsed = xmlParseURI(text.c_str());
    require_agreement(state, parsed != nullptr && parsed->path == narrow(address.path) &&
                                 '/' + std::string(parsed->query) == narrow(address.repository));
    xmlFreeURI(parsed);
    for (auto _ : state)
        xmlFreeURI(xmlParseURI(text.c_str()));
}
#endif

#ifdef KVUTIL_BENCH_GLIB
void parse_glib(benchmark::State& state, const address_t& address)
{
    const std::string text = narrow(address.uri());
    GUri* const parsed = g_uri_parse(text.c_str(), G_URI_FLAGS_NONE, nullptr);
    require_agreement(state,
                      parsed != nullptr && g_uri_get_path(parsed) == narrow(address.path) &&
                          '/' + std::string(g_uri_get_query(parsed)) == narrow(address.repository));
    g_uri_unref(parsed);
    for (auto _ : state)
        g_uri_unref(g_uri_parse(text.c_str(), G_URI_FLAGS_NONE, nullptr));
}
#endif

void enter_parsers(const std::string& name, const address_t& address, int threads = 1)
{
    const auto enter_parser = [&](const char* contestant, auto parse) {
        auto* const entered = enter(name, contestant, [=](auto& state) { parse(state, address); });
        if (threads > 1)
            entered->Threads(threads)->UseRealTime();
    };
    enter_parser("kvutil", parse_kvutil);
    enter_parser("floor", parse_floor);
#ifdef KVUTIL_BENCH_APR
    enter_parser("APR", parse_apr);
#endif
#ifdef KVUTIL_BENCH_QT
    enter_parser("QUrl", parse_qt);
#endif
#ifdef KVUTIL_BENCH_LIBXML2
    enter_parser("libxml2", parse_libxml2);
#endif
#ifdef KVUTIL_BENCH_GLIB
    enter_parser("GUri", parse_glib);
#endif
}

const bool parsers_are_entered = [] {
    enter_parsers("selector parse: 34 units", ADDRESS);
    enter_parsers("further, selectors and segments: parse, 34 units, 2 threads", ADDRESS, 2);
    for (const auto& [units, words] : SIZES)
        enter_parsers(std::string("growth, selector parse: ") + words, address_of(units));
    return true;
}();

// ---- Rejected texts --------------------------------------------------------------------------

struct rejection_t {
    const char* why;
    const char16_t* text;
    const char* detail;
};

/// One for each check of the parser, in their order.
constexpr rejection_t REJECTIONS[] = {
    {"without a colon", u"vd.file", "missing namespace seperator: \":\""},
    {"unknown domain", u"xy.file:/src/lib/main.c@/vobs/proj", "unknown provider domain: xy"},
    {"unknown namespace", u"vd.bogus:/src/lib/main.c@/vobs/proj", "unknown namespace: bogus"},
    {"unknown resource type", u"vd.repo.bogus:@/vobs/proj", "unknown resource type: bogus"},
    {"extra segment", u"vd.file.extra:/src/lib/main.c@/vobs/proj",
     "extra segment before name and repository: extra"},
    {"nothing after the colon", u"vd.file:", "no name or repository segments"},
    {"without an at-sign", u"vd.file:/src/lib/main.c", "missing repository seperator: \"@\""},
    {"no name", u"vd.file:@/vobs/proj", "no name for non-repository resource type"},
    {"no repository", u"vd.file:/src/lib/main.c@", "no repository segment"},
};

std::string message_of(const rejection_t& rejection)
{
    return "PLXSV0671E The selector '" + narrow(rejection.text) +
           "' is not valid: " + rejection.detail;
}

const bool rejections_are_entered = [] {
    for (const auto& rejection : REJECTIONS) {
        const std::string name = std::string("rejected input: selector, ") + rejection.why;
        enter(name, "kvutil", [&](auto& state) {
            time_rejection<StateException>(
                state,
                [text = UString(rejection.text)] { benchmark::DoNotOptimize(Selector(text)); },
                message_of(rejection));
        });
        enter(name, "throw of runtime_error",
              [&](auto& state) { time_throw(state, message_of(rejection)); });
    }
    return true;
}();

// ---- Escapes ---------------------------------------------------------------------------------

/// A segment in which every twelfth unit is a delimiter.
std::u16string segment_of(std::size_t length)
{
    const std::u16string_view delimiters = u"%:@/\\";
    std::u16string text;
    for (std::size_t i = 0; i < length; ++i)
        text += i % 12 == 5 ? delimiters[i / 12 % delimiters.size()]
                            : static_cast<char16_t>(u'a' + i % 26);
    return text;
}

bool is_delimiter(char16_t unit)
{
    return std::u16string_view(u"%:@/\\").find(unit) != std::u16string_view::npos;
}

std::u16string encode_plainly(const std::u16string& segment)
{
    std::u16string result;
    result.reserve(segment.size() + segment.size() / 8);
    for (const char16_t unit : segment) {
        if (is_delimiter(unit))
            result += u'%';
        result += unit;
    }
    return result;
}

std::u16string decode_plainly(const std::u16string& text)
{
    std::u16string result;
    result.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == u'%' && i + 1 < text.size() && is_delimiter(text[i + 1]))
            ++i;
        result += text[i];
    }
    return result;
}

void encode_kvutil(benchmark::State& state, const std::u16string& segment)
{
    const UString text(segment);
    require_agreement(state, Selector::encode_segment(text) == UString(encode_plainly(segment)));
    for (auto _ : state)
        benchmark::DoNotOptimize(Selector::encode_segment(text));
}

void decode_kvutil(benchmark::State& state, const std::u16string& segment)
{
    const UString text(encode_plainly(segment));
    require_agreement(state, Selector::decode_string(text) == UString(segment));
    for (auto _ : state)
        benchmark::DoNotOptimize(Selector::decode_string(text));
}

/// The least work: the finished units are there, one pass makes them an owned text.
void copy_units(benchmark::State& state, const std::u16string& result)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(UString(result));
}

void encode_std(benchmark::State& state, const std::u16string& segment)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(encode_plainly(segment));
}

void decode_std(benchmark::State& state, const std::u16string& segment)
{
    const std::u16string text = encode_plainly(segment);
    require_agreement(state, decode_plainly(text) == segment);
    for (auto _ : state)
        benchmark::DoNotOptimize(decode_plainly(text));
}

#ifdef KVUTIL_BENCH_APR
void encode_apr(benchmark::State& state, const std::u16string& units)
{
    const pool_t pool;
    const std::string segment = narrow(units);
    const char* const escaped = apr_pescape_path_segment(pool.get(), segment.c_str());
    require_agreement(state, apr_punescape_url(pool.get(), escaped, "", "", 0) == segment);
    for (auto _ : state) {
        apr_pool_clear(pool.get());
        benchmark::DoNotOptimize(apr_pescape_path_segment(pool.get(), segment.c_str()));
    }
}

void decode_apr(benchmark::State& state, const std::u16string& units)
{
    const pool_t pool;
    const std::string escaped = apr_pescape_path_segment(pool.get(), narrow(units).c_str());
    require_agreement(state,
                      apr_punescape_url(pool.get(), escaped.c_str(), "", "", 0) == narrow(units));
    for (auto _ : state) {
        apr_pool_clear(pool.get());
        benchmark::DoNotOptimize(apr_punescape_url(pool.get(), escaped.c_str(), "", "", 0));
    }
}
#endif

#ifdef KVUTIL_BENCH_LIBXML2
void encode_libxml2(benchmark::State& state, const std::u16string& units)
{
    const std::string segment = narrow(units);
    for (auto _ : state)
        xmlFree(xmlURIEscapeStr(xml(segment), xml("")));
}

void decode_libxml2(benchmark::State& state, const std::u16string& units)
{
    const std::string segment = narrow(units);
    xmlChar* const escaped = xmlURIEscapeStr(xml(segment), xml(""));
    const std::string text(reinterpret_cast<const char*>(escaped));
    xmlFree(escaped);
    char* const result = xmlURIUnescapeString(text.c_str(), static_cast<int>(text.size()), nullptr);
    require_agreement(state, result == segment);
    xmlFree(result);
    for (auto _ : state)
        xmlFree(xmlURIUnescapeString(text.c_str(), static_cast<int>(text.size()), nullptr));
}
#endif

#ifdef KVUTIL_BENCH_GLIB
void encode_glib(benchmark::State& state, const std::u16string& units)
{
    const std::string segment = narrow(units);
    for (auto _ : state)
        g_free(g_uri_escape_string(segment.c_str(), nullptr, FALSE));
}

void decode_glib(benchmark::State& state, const std::u16string& units)
{
    const std::string segment = narrow(units);
    char* const escaped = g_uri_escape_string(segment.c_str(), nullptr, FALSE);
    const std::string text(escaped);
    g_free(escaped);
    char* const result = g_uri_unescape_string(text.c_str(), nullptr);
    require_agreement(state, result == segment);
    g_free(result);
    for (auto _ : state)
        g_free(g_uri_unescape_string(text.c_str(), nullptr));
}
#endif

/// A peer with a limit of its own is left out above it.
constexpr std::size_t LARGEST_OF_LIBXML2 = 1 << 19;

void enter_escapes(const std::string& row, const std::string& size, std::size_t length)
{
    const std::u16string segment = segment_of(length);
    const auto enter_contestant = [&](const char* direction, const char* contestant, auto time) {
        enter(row + ": " + direction + ", " + size, contestant,
              [=](auto& state) { time(state, segment); });
    };
    enter_contestant("encode", "kvutil", encode_kvutil);
    enter_contestant("decode", "kvutil", decode_kvutil);
    enter_contestant("encode", "loop on std::u16string", encode_std);
    enter_contestant("decode", "loop on std::u16string", decode_std);
    enter_contestant("encode", "floor", [](auto& state, const std::u16string& units) {
        copy_units(state, encode_plainly(units));
    });
    enter_contestant("decode", "floor", copy_units);
#ifdef KVUTIL_BENCH_APR
    enter_contestant("encode", "APR", encode_apr);
    enter_contestant("decode", "APR", decode_apr);
#endif
#ifdef KVUTIL_BENCH_LIBXML2
    if (length <= LARGEST_OF_LIBXML2) {
        enter_contestant("encode", "libxml2", encode_libxml2);
        enter_contestant("decode", "libxml2", decode_libxml2);
    }
#endif
#ifdef KVUTIL_BENCH_GLIB
    enter_contestant("encode", "glib", encode_glib);
    enter_contestant("decode", "glib", decode_glib);
#endif
}

const bool escapes_are_entered = [] {
    enter_escapes("segment encode and decode", "60 units", 60);
    enter_escapes("further, selectors and segments", "12 units", 12);
    for (const auto& [units, words] : SIZES)
        enter_escapes("growth, encode and decode", words, units);
    return true;
}();

// ---- Splitting and printing ------------------------------------------------------------------

std::u16string path_of(std::size_t length)
{
    const std::u16string_view part = u"some/segment/abcdef ";
    std::u16string text;
    while (text.size() < length)
        text += part[text.size() % part.size()];
    return text;
}

std::vector<std::u16string> split_plainly(const std::u16string& path)
{
    std::vector<std::u16string> pieces;
    std::size_t start = 0;
    for (std::size_t at; start < path.size(); start = at + 1) {
        at = std::min(path.find(u'/', start), path.size());
        if (at != start)
            pieces.push_back(path.substr(start, at - start));
    }
    return pieces;
}

void split_kvutil(benchmark::State& state, const std::u16string& units)
{
    const UString path(units);
    const std::vector<std::u16string> plain = split_plainly(units);
    require_agreement(state, Selector::split_segments(path, Selector::SEGMENT_SEP) ==
                                 std::vector<UString>(plain.begin(), plain.end()));
    for (auto _ : state)
        benchmark::DoNotOptimize(Selector::split_segments(path, Selector::SEGMENT_SEP));
}

void split_std(benchmark::State& state, const std::u16string& path)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(split_plainly(path));
}

#ifdef KVUTIL_BENCH_QT
void split_qt(benchmark::State& state, const std::u16string& units)
{
    const QString path = QString::fromStdU16String(units);
    for (auto _ : state)
        benchmark::DoNotOptimize(path.split(QLatin1Char('/'), Qt::SkipEmptyParts));
}
#endif

const bool splitters_are_entered = [] {
    const auto enter_splitter = [](const char* contestant, auto split) {
        enter("further, selectors and segments: split, 60 units", contestant,
              [=](auto& state) { split(state, path_of(60)); });
    };
    enter_splitter("kvutil", split_kvutil);
    enter_splitter("loop on std::u16string", split_std);
#ifdef KVUTIL_BENCH_QT
    enter_splitter("QString::split", split_qt);
#endif
    return true;
}();

void print_kvutil(benchmark::State& state)
{
    const UString name(u"/src/lib/main.c");
    const UString repository(u"/vobs/proj");
    for (auto _ : state) {
        const Selector selector(Selector::NS_FILE, Selector::PD_VD, 0, name, repository);
        benchmark::DoNotOptimize(selector.to_string_with_domain());
    }
}
BENCHMARK(print_kvutil)->Name("further, selectors and segments: text of a selector/kvutil");

void print_std(benchmark::State& state)
{
    const std::u16string name(u"/src/lib/main.c");
    const std::u16string repository(u"/vobs/proj");
    for (auto _ : state)
        benchmark::DoNotOptimize(std::u16string(u"vd.file:") + name + u'@' + repository);
}
BENCHMARK(print_std)->Name(
    "further, selectors and segments: text of a selector/sum of std::u16string");

}  // namespace
