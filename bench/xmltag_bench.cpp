// The tag registry against what a program would keep names and numbers in without it.
// The peers get the names in the form they take; all must agree on the numbers before any is timed.

#include <kvutil/xmltag.h>

#include <benchmark/benchmark.h>

#ifdef KVUTIL_BENCH_ABSL
#include <absl/container/flat_hash_map.h>
#endif
#ifdef KVUTIL_BENCH_GLIB
#include <glib.h>
#endif
#ifdef KVUTIL_BENCH_LIBXML2
#include <libxml/xmlstring.h>
// After the type that it needs.
#include <libxml/dict.h>
#endif
#ifdef KVUTIL_BENCH_GPERF
#include <cstring>
namespace gperf {
#include "xmltag_gperf.h"
}
#endif

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <random>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <vector>

namespace {

using Kvl::UString;
using Kvl::XmlTag;

struct name_t {
    XmlTag::NsId nsid;
    UString text;
    std::u16string units;
    std::string narrow;
    std::string qualified;  // with the abbreviation in front, unique over all namespaces
    XmlTag::Id id;
};

name_t make_name(XmlTag::NsId nsid, const std::string& narrow, XmlTag::Id id)
{
    const std::u16string units(narrow.begin(), narrow.end());
    const std::string abbreviation =
        nsid < XmlTag::NUM_WK_NAMESPACES ? XmlTag::ns_abbreviation(nsid).utf8_str() : "";
    return {nsid, UString(units), units, narrow, abbreviation + narrow, id};
}

template <class T>
std::vector<T> shuffled(std::vector<T> list)
{
    std::shuffle(list.begin(), list.end(), std::mt19937(1));
    return list;
}

/// Every well-known name once, in no order.
const std::vector<name_t>& well_known()
{
    static const std::vector<name_t> names = [] {
        std::vector<name_t> result;
        for (const XmlTag::Namespace* const ns : XmlTag::g_namespace_array)
            for (const XmlTag* const tag : ns->wk_tags)
                result.push_back(make_name(ns->id, tag->simple_name().utf8_str(), tag->id()));
        return shuffled(result);
    }();
    return names;
}

/// `count` names of one namespace, registered at run time, in no order.
std::vector<name_t> registered(const std::string& uri, std::size_t count)
{
    std::vector<name_t> result;
    for (std::size_t i = 0; i < count; ++i) {
        const std::string narrow = "property-" + std::to_string(i);
        XmlTag tag{UString(Kvl::Utf8String(uri)), UString(Kvl::Utf8String(narrow))};
        const XmlTag* const registered_tag = XmlTag::lookup(tag);
        result.push_back(make_name(registered_tag->ns_id(), narrow, registered_tag->id()));
    }
    return shuffled(result);
}

const std::vector<name_t>& run_time(std::int64_t count)
{
    static std::unordered_map<std::int64_t, std::vector<name_t>> sets;
    std::vector<name_t>& names = sets[count];
    if (names.empty())
        names = registered("urn:bench:" + std::to_string(count), static_cast<std::size_t>(count));
    return names;
}

XmlTag::Id number_of(XmlTag::Id id)
{
    return id;
}

template <class Entry>
XmlTag::Id number_of(const Entry* entry)
{
    if constexpr (std::is_same_v<Entry, XmlTag>)
        return entry->id();
    else
        return entry->id;
}

/// What is timed ends with the entry or the number, whichever the peer keeps.
template <class Find>
void look_up(benchmark::State& state, const std::vector<name_t>& names, Find find)
{
    for (const name_t& name : names)
        if (number_of(find(name)) != name.id) {
            state.SkipWithError("the peers do not agree");
            return;
        }
    std::size_t i = static_cast<std::size_t>(state.thread_index()) * names.size() / 2;
    for (auto _ : state) {
        benchmark::DoNotOptimize(find(names[i]));
        if (++i == names.size())
            i = 0;
    }
    state.SetItemsProcessed(state.iterations());
}

const XmlTag* tag_in_kvutil(const name_t& name)
{
    return XmlTag::lookup(name.nsid, name.text);
}

/// Peers that hold 16-bit names in a hash table; built once per set of names.
template <class Map>
const Map& map_of(const std::vector<name_t>& names, std::u16string name_t::*key)
{
    static std::unordered_map<const void*, Map> maps;
    Map& map = maps[&names];
    if (map.empty())
        for (const name_t& name : names)
            map.emplace(name.*key, name.id);
    return map;
}

typedef std::unordered_map<std::u16string, XmlTag::Id> std_map_t;

// ---- Well-known names

void well_known_by_name_in_kvutil(benchmark::State& state)
{
    look_up(state, well_known(), tag_in_kvutil);
}
BENCHMARK(well_known_by_name_in_kvutil);

#ifdef KVUTIL_BENCH_GPERF
void well_known_by_name_in_gperf(benchmark::State& state)
{
    look_up(state, well_known(), [](const name_t& name) {
        return gperf::xmltag_gperf::find(name.qualified.data(), name.qualified.size());
    });
}
BENCHMARK(well_known_by_name_in_gperf);
#endif

// A name that a well-known namespace has only since run time: the compiled table says no first.
void well_known_miss_then_run_time_hit_in_kvutil(benchmark::State& state)
{
    static const std::vector<name_t> names =
        registered(XmlTag::ns_URI(6).utf8_str(), well_known().size());
    look_up(state, names, tag_in_kvutil);
}
BENCHMARK(well_known_miss_then_run_time_hit_in_kvutil);

#ifdef KVUTIL_BENCH_GPERF
void well_known_miss_in_gperf(benchmark::State& state)
{
    static const std::vector<name_t> names =
        registered(XmlTag::ns_URI(6).utf8_str(), well_known().size());
    std::size_t i = 0;
    for (auto _ : state) {
        const std::string& name = names[i].qualified;
        benchmark::DoNotOptimize(gperf::xmltag_gperf::find(name.data(), name.size()));
        i = i + 1 == names.size() ? 0 : i + 1;
    }
}
BENCHMARK(well_known_miss_in_gperf);
#endif

// ---- Run-time names

void run_time_by_name_in_kvutil(benchmark::State& state)
{
    look_up(state, run_time(state.range(0)), tag_in_kvutil);
}

void run_time_by_name_in_std(benchmark::State& state)
{
    const auto& names = run_time(state.range(0));
    const auto& map = map_of<std_map_t>(names, &name_t::units);
    look_up(state, names, [&](const name_t& name) { return map.find(name.units)->second; });
}

#define KVUTIL_SIZES RangeMultiplier(10)->Range(1'000, 1'000'000)
BENCHMARK(run_time_by_name_in_kvutil)->KVUTIL_SIZES;
BENCHMARK(run_time_by_name_in_kvutil)->Arg(1'000)->Threads(2)->UseRealTime();
BENCHMARK(run_time_by_name_in_std)->KVUTIL_SIZES;

#ifdef KVUTIL_BENCH_ABSL
void run_time_by_name_in_absl(benchmark::State& state)
{
    const auto& names = run_time(state.range(0));
    const auto& map =
        map_of<absl::flat_hash_map<std::u16string, XmlTag::Id>>(names, &name_t::units);
    look_up(state, names, [&](const name_t& name) { return map.find(name.units)->second; });
}
BENCHMARK(run_time_by_name_in_absl)->KVUTIL_SIZES;
BENCHMARK(run_time_by_name_in_absl)->Arg(1'000)->Threads(2)->UseRealTime();
#endif

#ifdef KVUTIL_BENCH_GLIB
void run_time_by_name_in_glib(benchmark::State& state)
{
    std::vector<name_t> names = run_time(state.range(0));
    for (name_t& name : names)
        name.id = static_cast<XmlTag::Id>(g_quark_from_string(name.narrow.c_str()));
    look_up(state, names, [](const name_t& name) {
        return static_cast<XmlTag::Id>(g_quark_from_string(name.narrow.c_str()));
    });
}
BENCHMARK(run_time_by_name_in_glib)->Arg(1'000)->Arg(100'000);
#endif

// ---- First registration: each round registers a batch in a namespace of its own

constexpr int BATCH = 100'000;

std::vector<std::string> new_names()
{
    static int round = 0;
    const std::string stem = std::to_string(++round) + "-new-property-";
    std::vector<std::string> names;
    for (int i = 0; i < BATCH; ++i)
        names.push_back(stem + std::to_string(i));
    return shuffled(names);
}

void first_registration_in_kvutil(benchmark::State& state)
{
    for (auto _ : state) {
        state.PauseTiming();
        const std::vector<std::string> names = new_names();
        std::vector<UString> texts;
        for (const std::string& name : names)
            texts.emplace_back(Kvl::Utf8String(name));
        const XmlTag::NsId nsid =
            XmlTag(UString(Kvl::Utf8String("urn:" + names[0])), UString()).ns_id();
        state.ResumeTiming();
        for (const UString& text : texts)
            benchmark::DoNotOptimize(XmlTag::lookup(nsid, text));
    }
    state.SetItemsProcessed(state.iterations() * BATCH);
}
BENCHMARK(first_registration_in_kvutil)->Iterations(5)->Unit(benchmark::kMillisecond);

#ifdef KVUTIL_BENCH_LIBXML2
void first_registration_in_libxml2(benchmark::State& state)
{
    for (auto _ : state) {
        state.PauseTiming();
        const std::vector<std::string> names = new_names();
        const std::unique_ptr<xmlDict, decltype(&xmlDictFree)> dict(xmlDictCreate(), xmlDictFree);
        state.ResumeTiming();
        for (const std::string& name : names)
            benchmark::DoNotOptimize(xmlDictLookup(dict.get(),
                                                   reinterpret_cast<const xmlChar*>(name.data()),
                                                   static_cast<int>(name.size())));
    }
    state.SetItemsProcessed(state.iterations() * BATCH);
}
BENCHMARK(first_registration_in_libxml2)->Iterations(5)->Unit(benchmark::kMillisecond);
#endif

#ifdef KVUTIL_BENCH_GLIB
void first_registration_in_glib(benchmark::State& state)
{
    for (auto _ : state) {
        state.PauseTiming();
        const std::vector<std::string> names = new_names();
        state.ResumeTiming();
        for (const std::string& name : names)
            benchmark::DoNotOptimize(g_quark_from_string(name.c_str()));
    }
    state.SetItemsProcessed(state.iterations() * BATCH);
}
BENCHMARK(first_registration_in_glib)->Iterations(5)->Unit(benchmark::kMillisecond);
#endif

// ---- By number

template <class Find>
void by_number(benchmark::State& state, std::vector<XmlTag::Id> ids, Find find)
{
    ids = shuffled(std::move(ids));
    std::size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(find(ids[i]));
        i = i + 1 == ids.size() ? 0 : i + 1;
    }
}

std::vector<XmlTag::Id> ids_of(const std::vector<name_t>& names)
{
    std::vector<XmlTag::Id> ids;
    for (const name_t& name : names)
        ids.push_back(name.id);
    return ids;
}

void well_known_by_id_in_kvutil(benchmark::State& state)
{
    by_number(state, ids_of(well_known()), [](XmlTag::Id id) { return XmlTag::lookup(id); });
}
BENCHMARK(well_known_by_id_in_kvutil);

void run_time_by_id_in_kvutil(benchmark::State& state)
{
    by_number(state, ids_of(run_time(1'000)), [](XmlTag::Id id) { return XmlTag::lookup(id); });
}
BENCHMARK(run_time_by_id_in_kvutil);

#ifdef KVUTIL_BENCH_GLIB
void by_id_in_glib(benchmark::State& state)
{
    std::vector<XmlTag::Id> quarks;
    for (const name_t& name : run_time(1'000))
        quarks.push_back(static_cast<XmlTag::Id>(g_quark_from_string(name.narrow.c_str())));
    by_number(state, quarks,
              [](XmlTag::Id id) { return g_quark_to_string(static_cast<GQuark>(id)); });
}
BENCHMARK(by_id_in_glib);
#endif

// ---- Texts

void start_tag_in_kvutil(benchmark::State& state)
{
    const XmlTag& tag = Kvl::WkTag::ACL_ENTRY;
    for (auto _ : state)
        benchmark::DoNotOptimize(tag.format(XmlTag::START_TAG));
}
BENCHMARK(start_tag_in_kvutil);

void start_tag_in_std(benchmark::State& state)
{
    const std::u16string name = u"acl-entry";
    const std::u16string uri = u"http://kvutil.example.com/xmlns/TEAM/ACL";
    for (auto _ : state) {
        std::u16string text;
        text.reserve(name.size() + uri.size() + 11);
        text.append(u"<").append(name).append(u" xmlns=\"").append(uri).append(u"\">");
        benchmark::DoNotOptimize(text);
    }
}
BENCHMARK(start_tag_in_std);

void tag_from_texts_in_kvutil(benchmark::State& state)
{
    const UString uri = XmlTag::ns_URI(6);
    const UString name(u"display-name");
    for (auto _ : state)
        benchmark::DoNotOptimize(XmlTag(uri, name));
}
BENCHMARK(tag_from_texts_in_kvutil);

}  // namespace
