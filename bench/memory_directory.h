#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>
#include <unistd.h>

/// A directory that lives as long as the object, in memory where there is such a place: what a disk
/// adds varies more than all the rest.
class memory_directory_t {
public:
    memory_directory_t()
    {
        const char* const parent = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
        path = std::string(parent) + "/kvutil-bench-XXXXXX";
        if (mkdtemp(path.data()) == nullptr)
            std::abort();
    }
    ~memory_directory_t() { std::filesystem::remove_all(path); }
    memory_directory_t(const memory_directory_t&) = delete;
    memory_directory_t& operator=(const memory_directory_t&) = delete;

    std::string path;
};
