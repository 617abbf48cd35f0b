#ifndef KVUTIL_LEARNED_PAGES_IMPL_H
#define KVUTIL_LEARNED_PAGES_IMPL_H

#include <unicode/ucnv.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace Kvl {

/// What a charset's characters of two bytes are, either way, in pages of 256. A page is learned
/// from a converter once texts have needed a converter for it as often as to learn it costs.
///
/// There are at most 256 pages of 512 bytes. One for which there is no memory is not learned:
/// nothing here throws.
/// @par Thread-safety
/// May be used at once.
class learned_pages_t {
public:
    /// 0 is for what is not known.
    using page_t = std::array<std::uint16_t, 256>;
    using learn_t = page_t (*)(UConverter* converter, unsigned int number) noexcept;

    /// @param charset  the name of it, for converters; outlives this
    /// @param learn    what a converter tells of a page
    learned_pages_t(const char* charset, learn_t learn) noexcept : charset_(charset), learn_(learn)
    {
    }
    ~learned_pages_t();
    learned_pages_t(const learned_pages_t&) = delete;
    learned_pages_t& operator=(const learned_pages_t&) = delete;

    /// @return  what is known there
    unsigned int look_up(unsigned int number, unsigned int in_page) const noexcept
    {
        const page_t* page = slots_[number].page.load(std::memory_order_acquire);
        if (page == nullptr)
            page = learned(number);
        return page == nullptr ? 0u : (*page)[in_page];
    }

private:
    struct slot_t {
        std::atomic<const page_t*> page{nullptr};
        std::atomic<std::uint8_t> misses{0};
    };

    const page_t* learned(unsigned int number) const noexcept;

    const char* const charset_;
    const learn_t learn_;
    mutable std::array<slot_t, 256> slots_;
};

}  // namespace Kvl

#endif
