// Path names against the other libraries' ways of taking a leaf and a parent directory off a path.
// Each ends with both as texts of their own.

#include "contest.h"

#include <kvutil/pname.h>

#include <benchmark/benchmark.h>

#ifdef KVUTIL_BENCH_GLIB
#include <glib.h>
#endif
#ifdef KVUTIL_BENCH_QT
#include <QFileInfo>
#include <QString>
#endif

#include <filesystem>
#include <string>
#include <utility>

namespace {

using Kvl::Pname;
using Kvl::UString;

constexpr char SHORT_PATH[] = "/vobs/proj/src/main.c";

/// Of 4,096 units.
std::string long_path()
{
    std::string path;
    while (path.size() < 4'090)
        path += "/directory";
    return path.substr(0, 4'090) + "/main.c";
}

std::string parent_of(const std::string& path)
{
    return path.substr(0, path.rfind('/'));
}

std::u16string wide(const std::string& text)
{
    return {text.begin(), text.end()};
}

/// @param split  gives the leaf and the parent directory of the path
template <class Split, class Text>
void time_split(benchmark::State& state, Split split, const Text& leaf, const Text& parent)
{
    const auto parts = split();
    require_agreement(state, parts.first == leaf && parts.second == parent);
    for (auto _ : state)
        benchmark::DoNotOptimize(split());
}

void split_in_kvutil(benchmark::State& state, const std::string& text)
{
    const UString path(wide(text));
    const Pname expected(path);
    require_agreement(state, expected.leaf() == UString(u"main.c") &&
                                 expected.parent_dir() == UString(wide(parent_of(text))));
    for (auto _ : state) {
        const Pname pname(path);
        benchmark::DoNotOptimize(pname.leaf());
        benchmark::DoNotOptimize(pname.parent_dir());
    }
}

void split_in_std(benchmark::State& state, const std::string& text)
{
    const std::u16string path = wide(text);
    time_split(
        state,
        [&] {
            const std::size_t separator = path.rfind(u'/');
            return std::pair(path.substr(separator + 1), path.substr(0, separator));
        },
        std::u16string(u"main.c"), wide(parent_of(text)));
}

void split_in_filesystem(benchmark::State& state, const std::string& text)
{
    time_split(
        state,
        [&] {
            const std::filesystem::path path(text);
            return std::pair(path.filename().string(), path.parent_path().string());
        },
        std::string("main.c"), parent_of(text));
}

#ifdef KVUTIL_BENCH_GLIB
void split_in_glib(benchmark::State& state, const std::string& text)
{
    const auto owned = [](char* bytes) {
        const std::string copy = bytes;
        g_free(bytes);
        return copy;
    };
    require_agreement(state, owned(g_path_get_basename(text.c_str())) == "main.c" &&
                                 owned(g_path_get_dirname(text.c_str())) == parent_of(text));
    for (auto _ : state) {
        char* const leaf = g_path_get_basename(text.c_str());
        char* const parent = g_path_get_dirname(text.c_str());
        benchmark::DoNotOptimize(leaf);
        benchmark::DoNotOptimize(parent);
        g_free(leaf);
        g_free(parent);
    }
}
#endif

#ifdef KVUTIL_BENCH_QT
void split_in_qt(benchmark::State& state, const std::string& text)
{
    const QString path = QString::fromStdString(text);
    time_split(
        state,
        [&] {
            const QFileInfo info(path);
            return std::pair(info.fileName(), info.path());
        },
        QString("main.c"), QString::fromStdString(parent_of(text)));
}
#endif

#define KVUTIL_ROW "further, selectors and segments: path name into leaf and parent, "
#define KVUTIL_CONTEST(function, contestant)                                                       \
    BENCHMARK_CAPTURE(function, short_path, SHORT_PATH)->Name(KVUTIL_ROW "21 units/" contestant);  \
    BENCHMARK_CAPTURE(function, long_path, long_path())->Name(KVUTIL_ROW "4096 units/" contestant)

KVUTIL_CONTEST(split_in_kvutil, "kvutil");
KVUTIL_CONTEST(split_in_std, "floor");
KVUTIL_CONTEST(split_in_filesystem, "std filesystem path");
#ifdef KVUTIL_BENCH_GLIB
KVUTIL_CONTEST(split_in_glib, "glib");
#endif
#ifdef KVUTIL_BENCH_QT
KVUTIL_CONTEST(split_in_qt, "QFileInfo");
#endif

}  // namespace
