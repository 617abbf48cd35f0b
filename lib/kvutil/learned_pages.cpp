#include "learned_pages_impl.h"

#include "converter_pool_impl.h"

#include <new>

namespace Kvl {

namespace {

// To learn a page is to ask 256 times, which costs as much as to convert so many short texts.
constexpr unsigned int MISSES_BEFORE_LEARNING = 64;

const charset_converter_t* converter_or_null(const char* charset) noexcept
{
    try {
        return take_converter(charset);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

}  // namespace

learned_pages_t::~learned_pages_t()
{
    for (const slot_t& slot : slots_)
        delete slot.page.load(std::memory_order_relaxed);
}

// @return  null when the page is not worth it yet, or there is no memory
const learned_pages_t::page_t* learned_pages_t::learned(unsigned int number) const noexcept
{
    slot_t& slot = slots_[number];
    if (slot.misses.fetch_add(1, std::memory_order_relaxed) < MISSES_BEFORE_LEARNING)
        return nullptr;
    const charset_converter_t* const converter = converter_or_null(charset_);
    if (converter == nullptr)
        return nullptr;
    const page_t* const mine = new (std::nothrow) page_t(learn_(converter->handle, number));
    give_back_converter(converter);
    const page_t* page = nullptr;
    if (mine == nullptr || slot.page.compare_exchange_strong(page, mine, std::memory_order_acq_rel))
        return mine;
    delete mine;
    return page;
}

}  // namespace Kvl
