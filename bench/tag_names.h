#pragma once

#include "contest.h"

#include <kvutil/xmltag.h>

#ifdef KVUTIL_BENCH_ABSL
#include <absl/container/flat_hash_map.h>
#endif

#include <algorithm>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <shared_mutex>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

#include <malloc.h>

// Names of tags, those that look them up, and how that is timed.

using Kvl::UString;
using Kvl::Utf8String;
using Kvl::XmlTag;

// ---- Names

struct name_t {
    XmlTag::NsId nsid;
    std::string local;
    XmlTag::Id id;

    /// With the abbreviation in front, unique over all well-known namespaces.
    std::string qualified() const { return XmlTag::ns_abbreviation(nsid).utf8_str() + local; }
};
typedef std::vector<name_t> names_t;

template <class T>
std::vector<T> shuffled(std::vector<T> list)
{
    std::shuffle(list.begin(), list.end(), std::mt19937(1));
    return list;
}

inline UString ustr(const std::string& text)
{
    return UString(Utf8String(text));
}

inline std::u16string wide(const UString& text)
{
    return {text.getBuffer(), text.length()};
}

/// Every well-known name once, in no order.
inline const names_t& well_known()
{
    static const names_t names = [] {
        names_t result;
        for (const XmlTag::Namespace* const ns : XmlTag::g_namespace_array)
            for (const XmlTag* const tag : ns->wk_tags)
                result.push_back({ns->id, tag->simple_name().utf8_str(), tag->id()});
        return shuffled(result);
    }();
    return names;
}

inline std::size_t bytes_in_use()
{
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

struct registered_t {
    names_t names;
    double bytes_per_tag;
    double nanoseconds_per_tag;
};

/// `count` names of one namespace, registered at run time, in no order.
inline registered_t registered(const std::string& uri, std::size_t count)
{
    const XmlTag::NsId nsid = XmlTag(ustr(uri), UString()).ns_id();
    names_t names;
    for (std::size_t i = 0; i < count; ++i)
        names.push_back({nsid, "property-" + std::to_string(i), 0});
    names = shuffled(std::move(names));
    std::vector<UString> texts;
    for (const name_t& name : names)
        texts.push_back(ustr(name.local));
    const std::size_t before = bytes_in_use();
    const auto start = std::chrono::steady_clock::now();
    for (std::size_t i = 0; i < count; ++i)
        names[i].id = XmlTag::lookup(nsid, texts[i])->id();
    const std::chrono::duration<double, std::nano> time = std::chrono::steady_clock::now() - start;
    return {names, static_cast<double>(bytes_in_use() - before) / static_cast<double>(count),
            time.count() / static_cast<double>(count)};
}

/// The same ones whenever, and by whichever thread, they are asked for.
inline const registered_t& run_time(std::size_t count)
{
    static std::mutex mutex;
    static std::map<std::size_t, registered_t> sets;
    const std::lock_guard lock(mutex);
    const auto found = sets.find(count);
    if (found != sets.end())
        return found->second;
    return sets[count] = registered("urn:bench:" + std::to_string(count), count);
}

/// Names that a well-known namespace has only since run time.
inline const names_t& added_to_well_known()
{
    static const names_t names =
        registered(XmlTag::ns_URI(6).utf8_str(), well_known().size()).names;
    return names;
}

// ---- Contestants: each has the form in which it takes a name, and gives the entry or the number,
// whichever it keeps

inline XmlTag::Id number_of(XmlTag::Id id)
{
    return id;
}

template <class Entry>
XmlTag::Id number_of(const Entry* entry)
{
    if constexpr (std::is_same_v<Entry, XmlTag>)
        return entry->id();
    else
        return entry == nullptr ? -1 : entry->id;
}

struct kvutil_t {
    struct key_t {
        XmlTag::NsId nsid;
        UString name;
    };
    explicit kvutil_t(const names_t&) {}
    static key_t key_of(const name_t& name) { return {name.nsid, ustr(name.local)}; }
    const XmlTag* find(const key_t& key) const { return XmlTag::lookup(key.nsid, key.name); }
};

/// It is known which name is asked for: what remains is to see that it is this one.
struct floor_t {
    struct key_t {
        std::u16string name;
        const std::pair<std::u16string, XmlTag::Id>* answer;
    };
    explicit floor_t(const names_t& names)
    {
        for (const name_t& name : names)
            answers[name.id] = {{name.local.begin(), name.local.end()}, name.id};
    }
    key_t key_of(const name_t& name) const
    {
        return {{name.local.begin(), name.local.end()}, &answers.at(name.id)};
    }
    static XmlTag::Id find(const key_t& key)
    {
        return key.name == key.answer->first ? key.answer->second : -1;
    }
    std::map<XmlTag::Id, std::pair<std::u16string, XmlTag::Id>> answers;
};

/// A hash table of 16-bit names, for one namespace.
template <class Map>
struct map_t {
    typedef std::u16string key_t;
    explicit map_t(const names_t& names)
    {
        for (const name_t& name : names)
            map.emplace(key_of(name), name.id);
    }
    static key_t key_of(const name_t& name) { return {name.local.begin(), name.local.end()}; }
    XmlTag::Id find(const key_t& key) const { return map.find(key)->second; }
    Map map;
};

/// The same for threads that may also register.
template <class Map>
struct locked_map_t : map_t<Map> {
    using map_t<Map>::map_t;
    XmlTag::Id find(const std::u16string& key) const
    {
        const std::shared_lock lock(mutex);
        return map_t<Map>::find(key);
    }
    mutable std::shared_mutex mutex;
};

typedef std::unordered_map<std::u16string, XmlTag::Id> std_map_t;
#ifdef KVUTIL_BENCH_ABSL
typedef absl::flat_hash_map<std::u16string, XmlTag::Id> absl_map_t;
#endif

/// The names again and again, each time in another order: a processor would learn a short sequence
/// by heart and foresee each branch.
inline names_t in_long_order(const names_t& names)
{
    std::mt19937 random(1);
    names_t all = names;
    while (all.size() < 8'192) {
        const std::size_t start = all.size();
        all.insert(all.end(), names.begin(), names.end());
        std::shuffle(all.begin() + static_cast<std::ptrdiff_t>(start), all.end(), random);
    }
    return all;
}

/// A contestant that knows `names`, and the keys that it is asked for.
template <class Contestant>
struct filled_t {
    explicit filled_t(const names_t& names) : contestant(names), agrees(true)
    {
        for (const name_t& name : in_long_order(names)) {
            keys.push_back(contestant.key_of(name));
            agrees = agrees && number_of(contestant.find(keys.back())) == name.id;
        }
    }
    Contestant contestant;
    std::vector<typename Contestant::key_t> keys;
    bool agrees;
};

template <class Contestant>
const filled_t<Contestant>& filled(const names_t& names)
{
    static std::mutex mutex;
    static std::map<const names_t*, std::unique_ptr<filled_t<Contestant>>> all;
    const std::lock_guard lock(mutex);
    auto& slot = all[&names];
    if (!slot)
        slot = std::make_unique<filled_t<Contestant>>(names);
    return *slot;
}

template <class Contestant>
void by_name(benchmark::State& state, const names_t& names)
{
    const auto& [contestant, keys, agrees] = filled<Contestant>(names);
    require_agreement(state, agrees);
    std::size_t i = static_cast<std::size_t>(state.thread_index()) * keys.size() / 2;
    for (auto _ : state) {
        benchmark::DoNotOptimize(contestant.find(keys[i]));
        i = i + 1 == keys.size() ? 0 : i + 1;
    }
}

// ---- By number

template <class Find>
void by_number(benchmark::State& state, const std::vector<XmlTag::Id>& ids, Find find)
{
    std::size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(find(ids[i]));
        i = i + 1 == ids.size() ? 0 : i + 1;
    }
}

inline std::vector<XmlTag::Id> ids_of(const names_t& names)
{
    std::vector<XmlTag::Id> ids;
    for (const name_t& name : names)
        ids.push_back(name.id);
    return ids;
}
