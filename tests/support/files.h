#ifndef KVUTIL_TESTS_SUPPORT_FILES_H
#define KVUTIL_TESTS_SUPPORT_FILES_H

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

inline std::string content_of(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file)
        throw std::runtime_error("cannot read " + path);
    return {std::istreambuf_iterator<char>(file), {}};
}

inline void set_content(const std::string& path, const std::string& content)
{
    std::ofstream file(path, std::ios::binary);
    file << content;
    if (!file.flush())
        throw std::runtime_error("cannot write " + path);
}

/// How many descriptors the process has open.
inline std::ptrdiff_t open_descriptors()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

#endif
