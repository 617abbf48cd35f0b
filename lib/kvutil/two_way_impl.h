#ifndef KVUTIL_TWO_WAY_IMPL_H
#define KVUTIL_TWO_WAY_IMPL_H

#include <algorithm>
#include <cstddef>
#include <functional>
#include <string_view>

namespace Kvl {

/// The two-way search: its time is linear in text and needle, whatever they hold, and it needs no
/// memory. The part of the needle behind a cut is compared first, left to right, then the part
/// before it, right to left.
/// @see Crochemore and Perrin, Two-way string-matching, Journal of the ACM 38 (1991)
class TwoWay {
public:
    /// @param needle  not empty
    /// @param from    the first place to look at, at most the text's length
    TwoWay(std::u16string_view text, std::u16string_view needle, std::size_t from) noexcept
        : text_(text), needle_(needle), cut_(critical_cut(needle)), place_(from)
    {
        const bool has_period = needle.substr(0, cut_.at) == needle.substr(cut_.period, cut_.at);
        step_ = has_period ? cut_.period : std::max(cut_.at, needle.size() - cut_.at) + 1;
        known_after_step_ = has_period ? needle.size() - cut_.period : 0;
    }

    /// @return  the next place where the needle stands, be it over the one before; npos for none
    std::size_t next() noexcept
    {
        while (needle_.size() <= text_.size() - place_) {
            // No step is longer than the needle, so no place is behind the text.
            const std::size_t end = end_of_equal_units();
            if (end < needle_.size()) {
                go_to(place_ + end - cut_.at + 1);
                continue;
            }
            const std::size_t place = place_;
            const bool is_found = is_equal_before_cut();
            go_to(place + step_, known_after_step_);
            if (is_found)
                return place;
        }
        return std::u16string_view::npos;
    }

    /// @param place  the next one to look at, at most the text's length
    /// @param known  how many units of the needle are known to stand there
    void go_to(std::size_t place, std::size_t known = 0) noexcept
    {
        place_ = place;
        known_ = known;
    }

private:
    /// Where the needle is cut, and the period of what is behind the cut.
    struct cut_t {
        std::size_t at;
        std::size_t period;
    };

    /// The cut before the greatest of all suffixes in one order of units.
    template <class Less>
    static cut_t cut_before_greatest_suffix(std::u16string_view needle, Less less) noexcept
    {
        cut_t greatest{0, 1};
        std::size_t equal = 0;  // units that the greatest suffix and the one at `other` begin with
        for (std::size_t other = 1; other + equal < needle.size();) {
            const char16_t a = needle[greatest.at + equal];
            const char16_t b = needle[other + equal];
            if (a == b && equal + 1 < greatest.period) {
                ++equal;
                continue;
            }
            if (less(a, b)) {
                greatest = {other, 1};
                ++other;
            } else {
                other += equal + 1;
                greatest.period = a == b ? greatest.period : other - greatest.at;
            }
            equal = 0;
        }
        return greatest;
    }

    /// The cut around which nothing shorter than the period of the whole needle repeats.
    static cut_t critical_cut(std::u16string_view needle) noexcept
    {
        const cut_t a = cut_before_greatest_suffix(needle, std::less<>());
        const cut_t b = cut_before_greatest_suffix(needle, std::greater<>());
        return a.at > b.at ? a : b;
    }

    /// @return  how far the needle agrees with the text, looked at from the cut on
    std::size_t end_of_equal_units() const noexcept
    {
        std::size_t at = std::max(cut_.at, known_);
        while (at < needle_.size() && needle_[at] == text_[place_ + at])
            ++at;
        return at;
    }

    bool is_equal_before_cut() const noexcept
    {
        std::size_t at = cut_.at;
        while (at > known_ && needle_[at - 1] == text_[place_ + at - 1])
            --at;
        return at <= known_;
    }

    std::u16string_view text_;
    std::u16string_view needle_;
    cut_t cut_;
    std::size_t step_;
    std::size_t known_after_step_;
    std::size_t place_;
    std::size_t known_ = 0;
};

}  // namespace Kvl

#endif
