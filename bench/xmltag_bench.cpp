// The tag registry against what a program would keep names and numbers in without it.
// The peers get the names in the form they take; all must agree on the numbers before any is timed.

#include "contest.h"
#include "rejection.h"
#include "tag_names.h"

#include <kvutil/exception.h>
#include <kvutil/xmltag.h>

#include <benchmark/benchmark.h>

#ifdef KVUTIL_BENCH_GLIB
#include <glib.h>
#endif
#ifdef KVUTIL_BENCH_LIBXML2
#include <libxml/xmlstring.h>
// After the type that it needs.
#include <libxml/dict.h>
#include <libxml/hash.h>
#endif
#ifdef KVUTIL_BENCH_QT
#include <QHash>
#include <QString>
#endif
#ifdef KVUTIL_BENCH_GPERF
#include <cstring>
namespace gperf {
#include "xmltag_gperf.h"
}
#endif

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace {

#ifdef KVUTIL_BENCH_QT
struct qt_t {
    typedef QString key_t;
    explicit qt_t(const names_t& names)
    {
        for (const name_t& name : names)
            hash.insert(key_of(name), name.id);
    }
    static key_t key_of(const name_t& name) { return QString::fromStdString(name.local); }
    XmlTag::Id find(const key_t& key) const { return *hash.constFind(key); }
    QHash<QString, XmlTag::Id> hash;
};
#endif

#ifdef KVUTIL_BENCH_GPERF
struct gperf_t {
    typedef std::string key_t;
    explicit gperf_t(const names_t&) {}
    static key_t key_of(const name_t& name) { return name.qualified(); }
    static auto find(const key_t& key) { return gperf::xmltag_gperf::find(key.data(), key.size()); }
};
#endif

#if defined(KVUTIL_BENCH_GPERF) && defined(KVUTIL_BENCH_ABSL)
/// The compiled table first, then a table of what has come since.
struct gperf_then_absl_t {
    typedef std::string key_t;
    explicit gperf_then_absl_t(const names_t& names)
    {
        for (const name_t& name : names)
            map.emplace(key_of(name), name.id);
    }
    static key_t key_of(const name_t& name) { return name.qualified(); }
    XmlTag::Id find(const key_t& key) const
    {
        const auto* const row = gperf_t::find(key);
        return row != nullptr ? row->id : map.find(key)->second;
    }
    absl::flat_hash_map<std::string, XmlTag::Id> map;
};
#endif

// ---- Well-known names

template <class Contestant>
void well_known_hit(benchmark::State& state)
{
    by_name<Contestant>(state, well_known());
}
#define KVUTIL_ROW "well-known tag by name: hit"
BENCHMARK_TEMPLATE(well_known_hit, kvutil_t)->Name(KVUTIL_ROW "/kvutil");
BENCHMARK_TEMPLATE(well_known_hit, floor_t)->Name(KVUTIL_ROW "/floor");
#ifdef KVUTIL_BENCH_GPERF
BENCHMARK_TEMPLATE(well_known_hit, gperf_t)->Name(KVUTIL_ROW "/gperf");
#endif
#undef KVUTIL_ROW

// There is no look-up that finds nothing: what the compiled table lacks is a run-time name.
template <class Contestant>
void well_known_miss(benchmark::State& state)
{
    by_name<Contestant>(state, added_to_well_known());
}
#define KVUTIL_ROW "well-known tag by name: miss, then known at run time"
BENCHMARK_TEMPLATE(well_known_miss, kvutil_t)->Name(KVUTIL_ROW "/kvutil");
BENCHMARK_TEMPLATE(well_known_miss, floor_t)->Name(KVUTIL_ROW "/floor");
#if defined(KVUTIL_BENCH_GPERF) && defined(KVUTIL_BENCH_ABSL)
BENCHMARK_TEMPLATE(well_known_miss, gperf_then_absl_t)
    ->Name(KVUTIL_ROW "/gperf, then absl flat_hash_map");
#endif
#undef KVUTIL_ROW

// ---- Run-time names

template <class Contestant, std::size_t count>
void run_time_hit(benchmark::State& state)
{
    by_name<Contestant>(state, run_time(count).names);
}

#define KVUTIL_ROW "run-time tag by name: 1000 tags"
BENCHMARK_TEMPLATE(run_time_hit, kvutil_t, 1'000)->Name(KVUTIL_ROW "/kvutil");
BENCHMARK_TEMPLATE(run_time_hit, floor_t, 1'000)->Name(KVUTIL_ROW "/floor");
BENCHMARK_TEMPLATE(run_time_hit, map_t<std_map_t>, 1'000)->Name(KVUTIL_ROW "/std unordered_map");
#ifdef KVUTIL_BENCH_ABSL
BENCHMARK_TEMPLATE(run_time_hit, map_t<absl_map_t>, 1'000)->Name(KVUTIL_ROW "/absl flat_hash_map");
#endif
#ifdef KVUTIL_BENCH_QT
BENCHMARK_TEMPLATE(run_time_hit, qt_t, 1'000)->Name(KVUTIL_ROW "/QHash");
#endif
#undef KVUTIL_ROW

#define KVUTIL_ROW "run-time tag by name: 100000 tags"
BENCHMARK_TEMPLATE(run_time_hit, kvutil_t, 100'000)->Name(KVUTIL_ROW "/kvutil");
BENCHMARK_TEMPLATE(run_time_hit, floor_t, 100'000)->Name(KVUTIL_ROW "/floor");
BENCHMARK_TEMPLATE(run_time_hit, map_t<std_map_t>, 100'000)->Name(KVUTIL_ROW "/std unordered_map");
#ifdef KVUTIL_BENCH_ABSL
BENCHMARK_TEMPLATE(run_time_hit, map_t<absl_map_t>, 100'000)
    ->Name(KVUTIL_ROW "/absl flat_hash_map");
#endif
#ifdef KVUTIL_BENCH_QT
BENCHMARK_TEMPLATE(run_time_hit, qt_t, 100'000)->Name(KVUTIL_ROW "/QHash");
#endif
#undef KVUTIL_ROW

// Two threads: the peers without a lock, which nobody may use who also registers, and with one.
#define KVUTIL_ROW "run-time tag by name: 1000 tags, 2 threads"
#define KVUTIL_TWO Threads(2)->UseRealTime()
BENCHMARK_TEMPLATE(run_time_hit, kvutil_t, 1'000)->Name(KVUTIL_ROW "/kvutil")->KVUTIL_TWO;
BENCHMARK_TEMPLATE(run_time_hit, map_t<std_map_t>, 1'000)
    ->Name(KVUTIL_ROW "/std unordered_map, never changed")
    ->KVUTIL_TWO;
BENCHMARK_TEMPLATE(run_time_hit, locked_map_t<std_map_t>, 1'000)
    ->Name(KVUTIL_ROW "/std unordered_map under a shared_mutex")
    ->KVUTIL_TWO;
#ifdef KVUTIL_BENCH_ABSL
BENCHMARK_TEMPLATE(run_time_hit, map_t<absl_map_t>, 1'000)
    ->Name(KVUTIL_ROW "/absl flat_hash_map, never changed")
    ->KVUTIL_TWO;
BENCHMARK_TEMPLATE(run_time_hit, locked_map_t<absl_map_t>, 1'000)
    ->Name(KVUTIL_ROW "/absl flat_hash_map under a shared_mutex")
    ->KVUTIL_TWO;
#endif
#ifdef KVUTIL_BENCH_QT
BENCHMARK_TEMPLATE(run_time_hit, qt_t, 1'000)->Name(KVUTIL_ROW "/QHash, never changed")->KVUTIL_TWO;
#endif
#undef KVUTIL_ROW

// ---- First registration. Whatever keeps names for the whole process never gives memory back, so
// no peer does either.

/// Names that nobody has seen, in no order, `each` in a namespace.
struct new_names_t {
    new_names_t(int count, int each)
    {
        static int stem = 0;
        for (int i = 0; i < count; ++i) {
            if (i % each == 0)
                uris.push_back("urn:new:" + std::to_string(++stem) + ":");
            names.push_back({static_cast<XmlTag::NsId>(uris.size() - 1),
                             "new-property-" + std::to_string(i % each), 0});
        }
        // Among themselves only, one namespace after the other.
        for (int i = 0; i < count; i += each)
            std::shuffle(names.begin() + i, names.begin() + i + each, std::mt19937(1));
    }
    std::string qualified(const name_t& name) const
    {
        return uris[static_cast<std::size_t>(name.nsid)] + name.local;
    }
    std::vector<std::string> uris;
    names_t names;
};

struct kvutil_registry_t {
    typedef kvutil_t::key_t key_t;
    static std::vector<key_t> keys_of(const new_names_t& all)
    {
        std::vector<key_t> keys;
        for (const name_t& name : all.names) {
            const UString uri = ustr(all.uris[static_cast<std::size_t>(name.nsid)]);
            keys.push_back({XmlTag(uri, UString()).ns_id(), ustr(name.local)});
        }
        return keys;
    }
    static const void* add(const key_t& key) { return XmlTag::lookup(key.nsid, key.name); }
};

#ifdef KVUTIL_BENCH_LIBXML2
/// A dictionary for each namespace. It keeps names, but gives no number.
struct libxml2_dictionary_t {
    struct key_t {
        xmlDict* dict;
        std::string name;
    };
    static std::vector<key_t> keys_of(const new_names_t& all)
    {
        std::vector<xmlDict*> dicts(all.uris.size());
        std::generate(dicts.begin(), dicts.end(), xmlDictCreate);
        std::vector<key_t> keys;
        for (const name_t& name : all.names)
            keys.push_back({dicts[static_cast<std::size_t>(name.nsid)], name.local});
        return keys;
    }
    static const xmlChar* add(const key_t& key)
    {
        return xmlDictLookup(key.dict, reinterpret_cast<const xmlChar*>(key.name.data()),
                             static_cast<int>(key.name.size()));
    }
};

/// With what makes an identity of a name: its number, and the name of a number.
struct libxml2_registry_t {
    struct key_t {
        xmlHashTable* numbers;
        libxml2_dictionary_t::key_t name;
    };
    static std::vector<key_t> keys_of(const new_names_t& all)
    {
        std::map<xmlDict*, xmlHashTable*> tables;
        std::vector<key_t> keys;
        for (auto& name : libxml2_dictionary_t::keys_of(all)) {
            xmlHashTable*& numbers = tables[name.dict];
            if (numbers == nullptr)
                numbers = xmlHashCreateDict(0, name.dict);
            keys.push_back({numbers, name});
        }
        return keys;
    }
    static const xmlChar* add(const key_t& key)
    {
        static std::vector<const xmlChar*> names;
        const xmlChar* const name = libxml2_dictionary_t::add(key.name);
        void* const number = xmlHashLookup(key.numbers, name);
        if (number != nullptr)
            return names[reinterpret_cast<std::size_t>(number) - 1];
        names.push_back(name);
        xmlHashAddEntry(key.numbers, name, reinterpret_cast<void*>(names.size()));
        return name;
    }
};
#endif

#ifdef KVUTIL_BENCH_GLIB
/// The namespace stands in front of the name, since there is one table of all.
struct glib_registry_t {
    typedef std::string key_t;
    static std::vector<key_t> keys_of(const new_names_t& all)
    {
        std::vector<key_t> keys;
        for (const name_t& name : all.names)
            keys.push_back(all.qualified(name));
        return keys;
    }
    static const void* add(const key_t& key)
    {
        return g_quark_to_string(g_quark_from_string(key.c_str()));
    }
};
#endif

/// Whether a name is registered once: the same entry again, another for another name.
template <class Registry>
bool registers_once()
{
    const auto keys = Registry::keys_of(new_names_t(2, 2));
    return Registry::add(keys[0]) == Registry::add(keys[0]) &&
           Registry::add(keys[0]) != Registry::add(keys[1]);
}

constexpr int REGISTERED = 20'000;

template <class Registry, int each>
void first_registration(benchmark::State& state)
{
    require_agreement(state, registers_once<Registry>());
    const auto keys = Registry::keys_of(new_names_t(REGISTERED, each));
    std::size_t i = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(Registry::add(keys[i++]));
}

#define KVUTIL_REGISTRATION(registry, each, contestant)                                            \
    BENCHMARK_TEMPLATE(first_registration, registry, each)                                         \
        ->Name("first registration of a name: " #each " names a namespace/" contestant)            \
        ->Iterations(REGISTERED)
#define KVUTIL_REGISTRATIONS(registry, contestant)                                                 \
    KVUTIL_REGISTRATION(registry, 1000, contestant);                                               \
    KVUTIL_REGISTRATION(registry, 20000, contestant)
KVUTIL_REGISTRATIONS(kvutil_registry_t, "kvutil");
#ifdef KVUTIL_BENCH_LIBXML2
KVUTIL_REGISTRATIONS(libxml2_registry_t, "libxml2 dictionary and numbers");
#endif
#ifdef KVUTIL_BENCH_GLIB
KVUTIL_REGISTRATIONS(glib_registry_t, "GQuark");
#endif

// ---- By number

void by_id_in_kvutil(benchmark::State& state, const names_t& names)
{
    for (const name_t& name : names)
        require_agreement(state, XmlTag::lookup(name.id)->simple_name().utf8_str() == name.local);
    by_number(state, ids_of(names), [](XmlTag::Id id) { return XmlTag::lookup(id); });
}

/// One array, each number in it, nothing checked.
void by_id_in_floor(benchmark::State& state, const names_t& names)
{
    const std::vector<XmlTag::Id> ids = ids_of(names);
    std::vector<const XmlTag*> tags;
    for (const XmlTag::Id id : ids) {
        tags.resize(std::max(tags.size(), static_cast<std::size_t>(id) + 1));
        tags[static_cast<std::size_t>(id)] = XmlTag::lookup(id);
    }
    by_number(state, ids, [&](XmlTag::Id id) { return tags[static_cast<std::size_t>(id)]; });
}

#ifdef KVUTIL_BENCH_GLIB
void by_id_in_glib(benchmark::State& state, const names_t& names)
{
    std::vector<XmlTag::Id> quarks;
    for (const name_t& name : names) {
        quarks.push_back(static_cast<XmlTag::Id>(g_quark_from_string(name.local.c_str())));
        require_agreement(state,
                          name.local == g_quark_to_string(static_cast<GQuark>(quarks.back())));
    }
    by_number(state, quarks,
              [](XmlTag::Id id) { return g_quark_to_string(static_cast<GQuark>(id)); });
}
#endif

#define KVUTIL_ROW "tag by id: fixed"
BENCHMARK_CAPTURE(by_id_in_kvutil, fixed, well_known())->Name(KVUTIL_ROW "/kvutil");
BENCHMARK_CAPTURE(by_id_in_floor, fixed, well_known())->Name(KVUTIL_ROW "/floor");
#ifdef KVUTIL_BENCH_GLIB
BENCHMARK_CAPTURE(by_id_in_glib, fixed, well_known())->Name(KVUTIL_ROW "/GQuark to string");
#endif
#undef KVUTIL_ROW

void run_time_by_id_in_kvutil(benchmark::State& state)
{
    by_id_in_kvutil(state, run_time(1'000).names);
}
void run_time_by_id_in_floor(benchmark::State& state)
{
    by_id_in_floor(state, run_time(1'000).names);
}
#define KVUTIL_ROW "tag by id: run-time"
BENCHMARK(run_time_by_id_in_kvutil)->Name(KVUTIL_ROW "/kvutil");
BENCHMARK(run_time_by_id_in_floor)->Name(KVUTIL_ROW "/floor");
#ifdef KVUTIL_BENCH_GLIB
void run_time_by_id_in_glib(benchmark::State& state)
{
    by_id_in_glib(state, run_time(1'000).names);
}
BENCHMARK(run_time_by_id_in_glib)->Name(KVUTIL_ROW "/GQuark to string");
#endif
#undef KVUTIL_ROW

// ---- Rejected numbers

constexpr char UNKNOWN_ID[] = "PLXSV0655E XmlTag::lookup(): called with illegal id value.";
constexpr char UNKNOWN_NAMESPACE[] = "PLXSV0656E XmlTag::lookup(): called with illegal ns value.";

void unknown_id_in_kvutil(benchmark::State& state)
{
    time_rejection<Kvl::IllegalArgException>(
        state, [] { benchmark::DoNotOptimize(XmlTag::lookup(-1)); }, UNKNOWN_ID);
}
void unknown_namespace_in_kvutil(benchmark::State& state)
{
    const UString name(u"display-name");
    time_rejection<Kvl::IllegalArgException>(
        state, [&] { benchmark::DoNotOptimize(XmlTag::lookup(-1, name)); }, UNKNOWN_NAMESPACE);
}
BENCHMARK(unknown_id_in_kvutil)->Name("rejected input: tag, number/kvutil");
BENCHMARK_CAPTURE(time_throw, id, UNKNOWN_ID)->Name("rejected input: tag, number/one throw");
BENCHMARK(unknown_namespace_in_kvutil)->Name("rejected input: tag, namespace/kvutil");
BENCHMARK_CAPTURE(time_throw, nsid, UNKNOWN_NAMESPACE)
    ->Name("rejected input: tag, namespace/one throw");

// ---- Namespaces

void namespace_by_uri_in_kvutil(benchmark::State& state)
{
    const UString uri = XmlTag::ns_URI(6);
    const UString name(u"display-name");
    require_agreement(state, XmlTag(uri, name).ns_id() == 6);
    for (auto _ : state)
        benchmark::DoNotOptimize(XmlTag(uri, name));
}
void namespace_by_uri_in_std(benchmark::State& state)
{
    struct tag_t {
        XmlTag::NsId nsid;
        std::u16string name;
    };
    std_map_t namespaces;
    for (const XmlTag::Namespace* const ns : XmlTag::g_namespace_array)
        namespaces.emplace(wide(ns->uri), ns->id);
    const std::u16string uri = wide(XmlTag::ns_URI(6));
    const std::u16string name = u"display-name";
    require_agreement(state, namespaces.find(uri)->second == 6);
    for (auto _ : state)
        benchmark::DoNotOptimize(tag_t{namespaces.find(uri)->second, name});
}
BENCHMARK(namespace_by_uri_in_kvutil)->Name("further, tags: tag from URI and name/kvutil");
BENCHMARK(namespace_by_uri_in_std)->Name("further, tags: tag from URI and name/std unordered_map");

// Each takes its place among those that are sorted already.
constexpr int NEW_NAMESPACES = 10'000;

void new_namespaces_in_kvutil(benchmark::State& state)
{
    const new_names_t all(NEW_NAMESPACES, 1);
    std::vector<UString> uris;
    for (const std::string& uri : shuffled(all.uris))
        uris.push_back(ustr(uri));
    const UString name;
    std::size_t i = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(XmlTag(uris[i++], name));
    const auto& sorted = *XmlTag::g_sorted_namespace_vector;
    require_agreement(state,
                      std::is_sorted(sorted.begin(), sorted.end(), XmlTag::CompareNamespacePtr()));
}
BENCHMARK(new_namespaces_in_kvutil)
    ->Name("further, tags: new namespace/kvutil")
    ->Iterations(NEW_NAMESPACES);

#ifdef KVUTIL_BENCH_GLIB
void new_namespaces_in_glib(benchmark::State& state)
{
    const std::vector<std::string> uris = shuffled(new_names_t(NEW_NAMESPACES, 1).uris);
    std::size_t i = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(g_quark_from_string(uris[i++].c_str()));
}
BENCHMARK(new_namespaces_in_glib)
    ->Name("further, tags: new namespace/GQuark")
    ->Iterations(NEW_NAMESPACES);
#endif

// ---- Texts

constexpr char16_t START_TAG[] = u"<acl-entry xmlns=\"http://kvutil.example.com/xmlns/TEAM/ACL\">";

void start_tag_in_kvutil(benchmark::State& state)
{
    const XmlTag& tag = Kvl::WkTag::ACL_ENTRY;
    require_agreement(state, tag.format(XmlTag::START_TAG) == UString(START_TAG));
    for (auto _ : state)
        benchmark::DoNotOptimize(tag.format(XmlTag::START_TAG));
}
void start_tag_in_std(benchmark::State& state)
{
    const std::u16string name = u"acl-entry";
    const std::u16string uri = u"http://kvutil.example.com/xmlns/TEAM/ACL";
    const auto format = [&] {
        std::u16string text;
        text.reserve(name.size() + uri.size() + 11);
        return text.append(u"<").append(name).append(u" xmlns=\"").append(uri).append(u"\">");
    };
    require_agreement(state, format() == START_TAG);
    for (auto _ : state)
        benchmark::DoNotOptimize(format());
}
BENCHMARK(start_tag_in_kvutil)->Name("further, tags: start tag/kvutil");
BENCHMARK(start_tag_in_std)->Name("further, tags: start tag/std u16string");

}  // namespace
