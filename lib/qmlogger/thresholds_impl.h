#ifndef QMLOGGER_THRESHOLDS_IMPL_H
#define QMLOGGER_THRESHOLDS_IMPL_H

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace Log::ThresholdsImpl {

/// Thresholds by logger, read from text as docs/log-format.md describes it.
class thresholds_t {
public:
    thresholds_t() = default;
    /// @throws std::bad_alloc
    explicit thresholds_t(std::string_view text);

    /// The threshold of a logger.
    int of(std::string_view logger) const;

    /// The entries that say nothing.
    const std::vector<std::string>& ignored() const { return ignored_; }

private:
    void read_entry(std::string_view entry);

    int of_others_ = 0;
    std::map<std::string, int, std::less<>> by_name_;
    std::vector<std::string> ignored_;
};

}  // namespace Log::ThresholdsImpl

#endif
