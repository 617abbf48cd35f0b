#ifndef KVUTIL_NET_DEVICE_IMPL_H
#define KVUTIL_NET_DEVICE_IMPL_H

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>

namespace Kvl::NetDeviceImpl {

/// Calls `visit(name)` with the name of each interface in a line of /proc/net/dev, until it returns
/// false. A token with a colon names one: the name is what precedes the first colon that follows
/// anything else, so that counters may stand right behind it.
/// @return  whether every call returned true
template <class Visit>
bool visit_names(std::string_view line, Visit visit)
{
    constexpr std::string_view BLANKS = " \t\n";
    while (!line.empty()) {
        const std::string_view token = line.substr(0, line.find_first_of(BLANKS));
        line.remove_prefix(std::min(token.size() + 1, line.size()));
        if (token.find(':') == token.npos)
            continue;
        std::string_view name = token;
        name.remove_prefix(std::min(name.find_first_not_of(':'), name.size()));
        name = name.substr(0, name.find(':'));
        if (!name.empty() && !visit(name))
            return false;
    }
    return true;
}

/// Puts the lines together that a file is read in. Deliberate: one of more than 1,023 characters
/// becomes several, cut wherever that is, as with a C stream and a buffer of 1,024 bytes.
class line_reader_t {
public:
    /// Calls `visit(line)` with each line that `bytes` completes, until it returns false. What is
    /// left of `bytes` begins the next line.
    /// @return  whether every call returned true
    template <class Visit>
    bool take(std::string_view bytes, Visit visit)
    {
        for (const char c : bytes) {
            line_[size_++] = c;
            if ((c == '\n' || size_ == line_.size()) && !finish(visit))
                return false;
        }
        return true;
    }

    /// Calls `visit(line)` with a last line that no newline ends.
    template <class Visit>
    bool finish(Visit visit)
    {
        const std::size_t size = size_;
        size_ = 0;
        return visit(std::string_view(line_.data(), size));
    }

private:
    std::array<char, 1023> line_{};
    std::size_t size_ = 0;
};

}  // namespace Kvl::NetDeviceImpl

#endif
