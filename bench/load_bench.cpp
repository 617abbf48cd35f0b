// What the library costs a program that starts: opened and closed again, in a process that holds
// everything it depends on already. Against a library of as many static strings, and an empty one.

#include "contest.h"

#include <benchmark/benchmark.h>
#include <unicode/uclean.h>
#include <unicode/unistr.h>

#include <cstdint>
#include <string>

#include <dlfcn.h>
#include <elf.h>
#include <link.h>

namespace {

/// A library that is open as long as this lives.
class opened_t {
public:
    explicit opened_t(const char* path) : handle_(dlopen(path, RTLD_NOW | RTLD_LOCAL)) {}
    ~opened_t()
    {
        if (handle_ != nullptr)
            dlclose(handle_);
    }
    opened_t(const opened_t&) = delete;
    opened_t& operator=(const opened_t&) = delete;

    bool is_open() const { return handle_ != nullptr; }

    template <class T>
    T* object(const char* name) const
    {
        return static_cast<T*>(dlsym(handle_, name));
    }

    /// The value of a tag in the dynamic section, or 0.
    std::uint64_t dynamic_value(ElfW(Sxword) tag) const
    {
        link_map* map = nullptr;
        if (dlinfo(handle_, RTLD_DI_LINKMAP, &map) != 0)
            return 0;
        for (const ElfW(Dyn)* entry = map->l_ld; entry->d_tag != DT_NULL; ++entry)
            if (entry->d_tag == tag)
                return entry->d_un.d_val;
        return 0;
    }

private:
    void* const handle_;
};

/// Whether the library at `path` is gone from the process once it is closed.
bool can_be_loaded_again(const char* path)
{
    if (!opened_t(path).is_open())
        return false;
    void* const still_there = dlopen(path, RTLD_NOW | RTLD_NOLOAD);
    if (still_there != nullptr)
        dlclose(still_there);
    return still_there == nullptr;
}

/// What the loader has to do before the library can be used.
void count_relocations(benchmark::State& state, const opened_t& library)
{
    const auto entries = [&](ElfW(Sxword) tag) {
        return static_cast<double>(library.dynamic_value(tag) / sizeof(ElfW(Rela)));
    };
    const auto relative = static_cast<double>(library.dynamic_value(DT_RELACOUNT));
    state.counters["relocations"] = relative;
    state.counters["symbols, data"] = entries(DT_RELASZ) - relative;
    state.counters["symbols, functions"] = entries(DT_PLTRELSZ);
}

void load(benchmark::State& state, const char* path, bool has_all_tags)
{
    require_agreement(state, has_all_tags && can_be_loaded_again(path));
    for (auto _ : state) {
        const opened_t library(path);
        benchmark::DoNotOptimize(library.is_open());
    }
    count_relocations(state, opened_t(path));
}

/// Whether the library has the text of a tag where it is to be.
bool kvutil_has_tags(const char* path)
{
    const opened_t library(path);
    // The name stands in the tag behind the pointer to its namespace.
    struct tag_t {
        const void* ns;
        icu::UnicodeString name;
    };
    const auto* const tag = library.object<const tag_t*>("_ZN3Kvl5WkTag9ACL_ENTRYE");
    return tag != nullptr && (*tag)->name == icu::UnicodeString(u"acl-entry");
}

template <class Text>
bool strings_have_tags(const char* path, const Text& expected)
{
    const opened_t library(path);
    const auto* const text = library.object<const Text>("ACL_ENTRY");
    return text != nullptr && *text == expected;
}

/// What the library depends on, held until the process ends.
bool holds_dependencies(const char* logging_library)
{
    static const bool holds = [=] {
        UErrorCode status = U_ZERO_ERROR;
        u_init(&status);
        return U_SUCCESS(status) && dlopen(logging_library, RTLD_NOW) != nullptr;
    }();
    return holds;
}

void load_kvutil(benchmark::State& state)
{
    require_agreement(state, holds_dependencies(LOGGING_LIBRARY));
    load(state, RELOADABLE_KVUTIL, kvutil_has_tags(RELOADABLE_KVUTIL));
}

void load_strings(benchmark::State& state)
{
    load(state, STRINGS, strings_have_tags<std::string>(STRINGS, "acl-entry"));
}

void load_wide_strings(benchmark::State& state)
{
    load(state, WIDE_STRINGS, strings_have_tags<std::u16string>(WIDE_STRINGS, u"acl-entry"));
}

void load_empty(benchmark::State& state)
{
    load(state, EMPTY, true);
}

// One case only: a hardened library is bound at once, whatever the program asks for.
#define KVUTIL_LOAD_CASE "load of the library: everything bound at once"
BENCHMARK(load_kvutil)->Name(KVUTIL_LOAD_CASE "/kvutil");
BENCHMARK(load_strings)->Name(KVUTIL_LOAD_CASE "/1143 static std::string");
BENCHMARK(load_wide_strings)->Name(KVUTIL_LOAD_CASE "/1143 static std::u16string");
BENCHMARK(load_empty)->Name(KVUTIL_LOAD_CASE "/floor");

}  // namespace
