#include "thresholds_impl.h"

#include <optional>

namespace Log::ThresholdsImpl {
namespace {

struct word_t {
    std::string_view word;
    int threshold;
};

constexpr word_t WORDS[] = {{"info", 0}, {"warning", 1}, {"error", 2}, {"off", 3}};

std::optional<int> threshold_of(std::string_view word)
{
    for (const auto& [known, threshold] : WORDS)
        if (word == known)
            return threshold;
    return std::nullopt;
}

std::string_view trimmed(std::string_view text)
{
    constexpr std::string_view BLANKS = " \t";
    const std::size_t begin = text.find_first_not_of(BLANKS);
    if (begin == text.npos)
        return {};
    return text.substr(begin, text.find_last_not_of(BLANKS) - begin + 1);
}

}  // namespace

thresholds_t::thresholds_t(std::string_view text)
{
    for (;;) {
        const std::size_t comma = text.find(',');
        read_entry(trimmed(text.substr(0, comma)));
        if (comma == text.npos)
            return;
        text.remove_prefix(comma + 1);
    }
}

void thresholds_t::read_entry(std::string_view entry)
{
    if (entry.empty())
        return;
    const std::size_t sign = entry.rfind('=');
    const auto name = sign == entry.npos ? "*" : trimmed(entry.substr(0, sign));
    const auto threshold =
        threshold_of(sign == entry.npos ? entry : trimmed(entry.substr(sign + 1)));
    if (!threshold || name.empty())
        ignored_.emplace_back(entry);
    else if (name == "*")
        of_others_ = *threshold;
    else
        by_name_.insert_or_assign(std::string(name), *threshold);
}

int thresholds_t::of(std::string_view logger) const
{
    const auto found = by_name_.find(logger);
    return found == by_name_.end() ? of_others_ : found->second;
}

}  // namespace Log::ThresholdsImpl
