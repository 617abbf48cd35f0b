#ifndef KVUTIL_TESTS_SUPPORT_FAKE_ARM4_RUNTIME_H
#define KVUTIL_TESTS_SUPPORT_FAKE_ARM4_RUNTIME_H

#include "fake_arm4.h"

#include <dlfcn.h>

#include <regex>
#include <stdexcept>
#include <string>
#include <vector>

/// The file of one of the run-times of tests/fakes/arm4.
inline std::string arm4_runtime(const std::string& name)
{
    return FAKE_ARM4_DIR "/" + name + "/libarm4.so";
}

/// A run-time that is there. It is opened by its path; from then on the loader knows it by its
/// name, which is all that the library asks for.
class opened_runtime_t {
public:
    explicit opened_runtime_t(const std::string& name)
        : handle_(dlopen(arm4_runtime(name).c_str(), RTLD_NOW))
    {
        if (handle_ == nullptr)
            throw std::runtime_error(dlerror());
    }
    ~opened_runtime_t() { dlclose(handle_); }
    opened_runtime_t(const opened_runtime_t&) = delete;
    opened_runtime_t& operator=(const opened_runtime_t&) = delete;

    void* symbol(const char* name) const { return dlsym(handle_, name); }

private:
    void* const handle_;
};

#define FAKE_ARM4_FUNCTION(name)                                                                   \
    decltype(&::fake_arm4_##name) const name =                                                     \
        reinterpret_cast<decltype(&::fake_arm4_##name)>(symbol("fake_arm4_" #name))

/// The run-time that records every call, see fake_arm4.h.
class fake_runtime_t : public opened_runtime_t {
public:
    fake_runtime_t() : opened_runtime_t("fake_arm4") {}

    FAKE_ARM4_FUNCTION(forget);
    FAKE_ARM4_FUNCTION(record);
    FAKE_ARM4_FUNCTION(count);
    FAKE_ARM4_FUNCTION(call);
    FAKE_ARM4_FUNCTION(thread);
    FAKE_ARM4_FUNCTION(plan);
    FAKE_ARM4_FUNCTION(watch);
    FAKE_ARM4_FUNCTION(handle_of);
    FAKE_ARM4_FUNCTION(parent_of);

    /// The calls recorded so far, with "fresh" in place of each generated identifier.
    std::vector<std::string> calls() const
    {
        static const std::regex generated("(input_(app|tran)_id)=[0-9a-f]{32}");
        std::vector<std::string> found;
        for (int i = 0; i < count(); ++i)
            found.push_back(std::regex_replace(call(i), generated, "$1=fresh"));
        return found;
    }

    /// The identifiers that were given to ARM, in hexadecimal digits.
    std::vector<std::string> fresh_ids() const
    {
        static const std::regex generated("input_(app|tran)_id=([0-9a-f]{32})");
        std::vector<std::string> found;
        for (int i = 0; i < count(); ++i)
            if (std::cmatch match; std::regex_search(call(i), match, generated))
                found.push_back(match[2]);
        return found;
    }
};

#undef FAKE_ARM4_FUNCTION

#endif
