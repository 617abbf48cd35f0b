// Lists of interfaces: the names are those that fgets() with a buffer of 1,024 bytes and strtok()
// find, however the list is cut into reads.

#include "../lib/kvutil/net_device_impl.h"
#include "property.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

using Kvl::NetDeviceImpl::line_reader_t;
using Kvl::NetDeviceImpl::visit_names;

namespace {

using names_t = std::vector<std::string>;

names_t names_by_c_library(std::string content)
{
    names_t names;
    if (content.empty())
        return names;
    const auto close = [](std::FILE* f) { std::fclose(f); };
    const std::unique_ptr<std::FILE, decltype(close)> file(
        fmemopen(content.data(), content.size(), "r"), close);
    char line[1024];
    while (std::fgets(line, sizeof line, file.get()) != nullptr) {
        char* rest = nullptr;
        for (char* token = strtok_r(line, " \t\n", &rest); token != nullptr;
             token = strtok_r(nullptr, " \t\n", &rest)) {
            if (std::strchr(token, ':') == nullptr)
                continue;
            char* end = nullptr;
            if (const char* const name = strtok_r(token, ":", &end))
                names.push_back(name);
        }
    }
    return names;
}

names_t names_by_reads_of(std::size_t size, std::string_view content)
{
    names_t names;
    const auto keep = [&](std::string_view name) {
        names.emplace_back(name);
        return true;
    };
    const auto visit = [&](std::string_view line) { return visit_names(line, keep); };
    line_reader_t lines;
    for (; !content.empty(); content.remove_prefix(std::min(size, content.size())))
        require(lines.take(content.substr(0, size), visit));
    require(lines.finish(visit));
    return names;
}

void check_early_end(std::string_view content, const names_t& all)
{
    names_t names;
    const auto stop = [&](std::string_view name) {
        names.emplace_back(name);
        return false;
    };
    line_reader_t lines;
    const auto visit = [&](std::string_view line) { return visit_names(line, stop); };
    const bool ended = !lines.take(content, visit) || !lines.finish(visit);
    require(ended == !all.empty());
    require(names.size() == (all.empty() ? 0 : 1) && (all.empty() || names[0] == all[0]));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    std::string content(reinterpret_cast<const char*>(data), size);
    // The C functions would take a zero byte for the end of a line.
    for (char& c : content)
        if (c == '\0')
            c = '0';
    const names_t expected = names_by_c_library(content);
    for (const std::size_t read_size : {1u, 7u, 1024u})
        require(names_by_reads_of(read_size, content) == expected);
    check_early_end(content, expected);
    return 0;
}
