// Selectors against what a caller would use instead: the URI parser and the percent escapes of APR
// and libxml2, where their packages are installed, and plain code on std::u16string.

#include <kvutil/selector.h>
#include <kvutil/stpexception.h>

#include <benchmark/benchmark.h>

#include <stdexcept>
#include <string>
#include <string_view>

#ifdef KVUTIL_BENCH_APR
#include <apr_escape.h>
#include <apr_general.h>
#include <apr_uri.h>
#endif
#ifdef KVUTIL_BENCH_LIBXML2
#include <libxml/uri.h>
#endif

namespace {

using Kvl::Selector;
using Kvl::UString;

// ---- Parsing ----

const char16_t TEXT[] = u"vd.file:/src/lib/main.c@/vobs/proj";

void parse_kvutil(benchmark::State& state)
{
    const UString text(TEXT);
    if (Selector(text).repository() != UString(u"/vobs/proj"))
        state.SkipWithError("not parsed");
    for (auto _ : state)
        benchmark::DoNotOptimize(Selector(text));
}
BENCHMARK(parse_kvutil)->ThreadRange(1, 2);

// The floor: the two owned texts of the result, and nothing looked for.
void parse_floor(benchmark::State& state)
{
    const UString name(u"/src/lib/main.c");
    const UString repository(u"/vobs/proj");
    for (auto _ : state)
        benchmark::DoNotOptimize(Selector(Selector::NS_FILE, Selector::PD_VD, 0, name, repository));
}
BENCHMARK(parse_floor);

void parse_rejected_kvutil(benchmark::State& state)
{
    const UString text(u"vd.bogus:/src/lib/main.c@/vobs/proj");
    for (auto _ : state) {
        try {
            benchmark::DoNotOptimize(Selector(text));
            state.SkipWithError("accepted");
        } catch (const Kvl::StateException& e) {
            benchmark::DoNotOptimize(&e);
        }
    }
}
BENCHMARK(parse_rejected_kvutil);

// A rejection is a throw and its two texts.
void parse_rejected_runtime_error(benchmark::State& state)
{
    for (auto _ : state) {
        try {
            throw std::runtime_error("The selector 'vd.bogus:/src/lib/main.c@/vobs/proj' is not "
                                     "valid: unknown namespace: bogus");
        } catch (const std::runtime_error& e) {
            benchmark::DoNotOptimize(&e);
        }
    }
}
BENCHMARK(parse_rejected_runtime_error);

#ifdef KVUTIL_BENCH_APR
class pool_t {
public:
    pool_t()
    {
        apr_initialize();
        apr_pool_create(&pool_, nullptr);
    }
    ~pool_t()
    {
        apr_pool_destroy(pool_);
        apr_terminate();
    }
    pool_t(const pool_t&) = delete;
    pool_t& operator=(const pool_t&) = delete;
    apr_pool_t* get() const { return pool_; }

private:
    apr_pool_t* pool_ = nullptr;
};

void parse_apr(benchmark::State& state)
{
    const pool_t pool;
    const char* const text = "file://vd/src/lib/main.c?vobs/proj";
    apr_uri_t uri;
    if (apr_uri_parse(pool.get(), text, &uri) != APR_SUCCESS ||
        uri.path != std::string_view("/src/lib/main.c"))
        state.SkipWithError("not parsed");
    for (auto _ : state) {
        apr_pool_clear(pool.get());
        benchmark::DoNotOptimize(apr_uri_parse(pool.get(), text, &uri));
        benchmark::ClobberMemory();
    }
}
BENCHMARK(parse_apr);
#endif

// ---- Escapes ----

/// A segment of `length` units, every twelfth one a delimiter.
std::u16string segment_of(benchmark::IterationCount length)
{
    const std::u16string_view delimiters = u"%:@/\\";
    std::u16string text;
    for (std::size_t i = 0; i < static_cast<std::size_t>(length); ++i)
        text += i % 12 == 5 ? delimiters[i / 12 % delimiters.size()]
                            : static_cast<char16_t>(u'a' + i % 26);
    return text;
}

std::string narrow(const std::u16string& text)
{
    return std::string(text.begin(), text.end());
}

bool is_delimiter(char16_t unit)
{
    return std::u16string_view(u"%:@/\\").find(unit) != std::u16string_view::npos;
}

std::u16string encode_plainly(const std::u16string& segment)
{
    std::u16string result;
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
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == u'%' && i + 1 < text.size() && is_delimiter(text[i + 1]))
            ++i;
        result += text[i];
    }
    return result;
}

void count_units(benchmark::State& state, std::size_t length)
{
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(length));
}

void segment_lengths(benchmark::internal::Benchmark* benchmark)
{
    benchmark->Arg(12)->Arg(60)->Arg(1 << 10)->Arg(64 << 10)->Arg(1 << 20)->Arg(16 << 20);
}

void encode_kvutil(benchmark::State& state)
{
    const std::u16string segment = segment_of(state.range(0));
    const UString text(segment);
    if (Selector::encode_segment(text) != UString(encode_plainly(segment)))
        state.SkipWithError("another result");
    for (auto _ : state)
        benchmark::DoNotOptimize(Selector::encode_segment(text));
    count_units(state, segment.size());
}
BENCHMARK(encode_kvutil)->Apply(segment_lengths);

void encode_std(benchmark::State& state)
{
    const std::u16string segment = segment_of(state.range(0));
    for (auto _ : state)
        benchmark::DoNotOptimize(encode_plainly(segment));
    count_units(state, segment.size());
}
BENCHMARK(encode_std)->Apply(segment_lengths);

void decode_kvutil(benchmark::State& state)
{
    const std::u16string segment = segment_of(state.range(0));
    const UString text(encode_plainly(segment));
    if (Selector::decode_string(text) != UString(segment))
        state.SkipWithError("another result");
    for (auto _ : state)
        benchmark::DoNotOptimize(Selector::decode_string(text));
    count_units(state, segment.size());
}
BENCHMARK(decode_kvutil)->Apply(segment_lengths);

void decode_std(benchmark::State& state)
{
    const std::u16string segment = segment_of(state.range(0));
    const std::u16string text = encode_plainly(segment);
    if (decode_plainly(text) != segment)
        state.SkipWithError("another result");
    for (auto _ : state)
        benchmark::DoNotOptimize(decode_plainly(text));
    count_units(state, segment.size());
}
BENCHMARK(decode_std)->Apply(segment_lengths);

#ifdef KVUTIL_BENCH_APR
void encode_apr(benchmark::State& state)
{
    const pool_t pool;
    const std::string segment = narrow(segment_of(state.range(0)));
    const char* const escaped = apr_pescape_path_segment(pool.get(), segment.c_str());
    if (apr_punescape_url(pool.get(), escaped, "", "", 0) != segment)
        state.SkipWithError("another result");
    for (auto _ : state) {
        apr_pool_clear(pool.get());
        benchmark::DoNotOptimize(apr_pescape_path_segment(pool.get(), segment.c_str()));
    }
    count_units(state, segment.size());
}
BENCHMARK(encode_apr)->Apply(segment_lengths);
#endif

#ifdef KVUTIL_BENCH_LIBXML2
const xmlChar* xml(const std::string& text)
{
    return reinterpret_cast<const xmlChar*>(text.c_str());
}

void encode_libxml2(benchmark::State& state)
{
    const std::string segment = narrow(segment_of(state.range(0)));
    for (auto _ : state) {
        xmlChar* const escaped = xmlURIEscapeStr(xml(segment), xml(""));
        if (escaped == nullptr)
            state.SkipWithError("too long for libxml2");
        benchmark::DoNotOptimize(escaped);
        xmlFree(escaped);
    }
    count_units(state, segment.size());
}
BENCHMARK(encode_libxml2)->Apply(segment_lengths);

void decode_libxml2(benchmark::State& state)
{
    const std::string segment = narrow(segment_of(state.range(0)));
    xmlChar* const escaped = xmlURIEscapeStr(xml(segment), xml(""));
    if (escaped == nullptr) {
        state.SkipWithError("too long for libxml2");
        return;
    }
    const std::string text(reinterpret_cast<const char*>(escaped));
    xmlFree(escaped);
    const int length = static_cast<int>(text.size());
    for (auto _ : state) {
        char* const result = xmlURIUnescapeString(text.c_str(), length, nullptr);
        if (result != segment)
            state.SkipWithError("another result");
        xmlFree(result);
    }
    count_units(state, segment.size());
}
BENCHMARK(decode_libxml2)->Apply(segment_lengths);
#endif

// ---- Replacing ----

std::u16string path_of(benchmark::IterationCount length)
{
    std::u16string text;
    while (text.size() < static_cast<std::size_t>(length))
        text += u"some/segment/abcdef ";
    return text;
}

std::u16string replace_plainly(const std::u16string& source, const std::u16string& from,
                               const std::u16string& to)
{
    std::u16string result;
    std::size_t done = 0;
    for (std::size_t at = source.find(from); at != source.npos; at = source.find(from, done)) {
        result.append(source, done, at - done).append(to);
        done = at + from.size();
    }
    return result.append(source, done);
}

void replace_kvutil(benchmark::State& state)
{
    const std::u16string path = path_of(state.range(0));
    const UString source(path);
    const UString from(u"segment");
    const UString to(u"replacement");
    const UString expected(replace_plainly(path, u"segment", u"replacement"));
    if (Selector::replaceAll(source, from, to) != expected)
        state.SkipWithError("another result");
    for (auto _ : state)
        benchmark::DoNotOptimize(Selector::replaceAll(source, from, to));
    count_units(state, path.size());
}
BENCHMARK(replace_kvutil)->Apply(segment_lengths);

void replace_std(benchmark::State& state)
{
    const std::u16string path = path_of(state.range(0));
    const std::u16string from(u"segment");
    const std::u16string to(u"replacement");
    for (auto _ : state)
        benchmark::DoNotOptimize(replace_plainly(path, from, to));
    count_units(state, path.size());
}
BENCHMARK(replace_std)->Apply(segment_lengths);

// ---- Splitting and joining ----

void split_kvutil(benchmark::State& state)
{
    const UString path(path_of(state.range(0)));
    for (auto _ : state)
        benchmark::DoNotOptimize(Selector::split_segments(path, Selector::SEGMENT_SEP));
    count_units(state, path.length());
}
BENCHMARK(split_kvutil)->Apply(segment_lengths);

void split_std(benchmark::State& state)
{
    const std::u16string path = path_of(state.range(0));
    for (auto _ : state) {
        std::vector<std::u16string> pieces;
        std::size_t start = 0;
        for (std::size_t at = path.find(u'/'); at != path.npos; at = path.find(u'/', start)) {
            pieces.push_back(path.substr(start, at - start));
            start = at + 1;
        }
        pieces.push_back(path.substr(start));
        benchmark::DoNotOptimize(pieces);
    }
    count_units(state, path.size());
}
BENCHMARK(split_std)->Apply(segment_lengths);

void print_kvutil(benchmark::State& state)
{
    const UString name(u"/src/lib/main.c");
    const UString repository(u"/vobs/proj");
    for (auto _ : state) {
        const Selector selector(Selector::NS_FILE, Selector::PD_VD, 0, name, repository);
        benchmark::DoNotOptimize(selector.to_string_with_domain());
    }
}
BENCHMARK(print_kvutil);

}  // namespace
