#ifndef KVUTIL_TESTS_SUPPORT_ALL_TEXTS_H
#define KVUTIL_TESTS_SUPPORT_ALL_TEXTS_H

#include <kvutil/ustring.h>

#include <string>
#include <vector>

/// Calls `visit(text)` with every text of up to `max_parts` of `parts`, the empty one included.
/// @return how many there were
template <class Visit>
int for_each_text(const std::vector<std::u16string>& parts, int max_parts, Visit visit)
{
    std::vector<std::u16string> texts{u""};
    std::size_t first_of_length = 0;
    for (int length = 1; length <= max_parts; ++length) {
        const std::size_t end = texts.size();
        for (std::size_t i = first_of_length; i < end; ++i)
            for (const std::u16string& part : parts)
                texts.push_back(texts[i] + part);
        first_of_length = end;
    }
    for (const std::u16string& text : texts)
        visit(Kvl::UString(text));
    return static_cast<int>(texts.size());
}

#endif
