#ifndef KVUTIL_TESTS_SUPPORT_SCRATCH_H
#define KVUTIL_TESTS_SUPPORT_SCRATCH_H

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

/// A new directory that is removed with all that is in it.
class scratch_t {
public:
    scratch_t()
    {
        char name[] = "/tmp/kvutil-test-XXXXXX";
        if (mkdtemp(name) == nullptr)
            throw std::runtime_error("no scratch directory");
        path = name;
    }

    ~scratch_t()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }

    scratch_t(const scratch_t&) = delete;
    scratch_t& operator=(const scratch_t&) = delete;

    std::string operator/(const std::string& name) const { return path + "/" + name; }

    /// The names in it, sorted.
    std::vector<std::string> names() const
    {
        std::vector<std::string> found;
        for (const auto& entry : std::filesystem::directory_iterator(path))
            found.push_back(entry.path().filename());
        std::sort(found.begin(), found.end());
        return found;
    }

    std::string path;
};

#endif
