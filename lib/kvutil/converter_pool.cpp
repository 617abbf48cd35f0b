#include "converter_pool_impl.h"

#include "known_charset_impl.h"
#include "uncancelled_impl.h"

#include <kvutil/critsec.h>

#include <array>
#include <atomic>
#include <memory>
#include <new>
#include <string_view>

namespace Kvl {

namespace {

using slot_t = std::atomic<const charset_converter_t*>;

constexpr std::size_t SETS = 8;
constexpr std::size_t SLOTS_PER_SET = 4;
using slot_set_t = std::array<slot_t, SLOTS_PER_SET>;

// A converter in a slot belongs to nobody; whoever takes it out of the slot owns it. Never
// destroyed: strings of other threads may outlive the library's statics.
constinit std::array<slot_set_t, SETS> idle_converters{};

slot_set_t& slots_for(std::string_view name)
{
    // Names that are used together differ in length or at the end: ISO-8859-1, ISO-8859-15.
    const std::size_t last = name.empty() ? 0 : static_cast<unsigned char>(name.back());
    return idle_converters[(name.size() + last) % SETS];
}

// Whether the slot was empty and has the converter now.
bool put(slot_t& slot, const charset_converter_t* converter)
{
    const charset_converter_t* empty = nullptr;
    return slot.compare_exchange_strong(empty, converter, std::memory_order_release,
                                        std::memory_order_relaxed);
}

const charset_converter_t* take_idle(std::string_view name)
{
    for (slot_t& slot : slots_for(name)) {
        if (slot.load(std::memory_order_relaxed) == nullptr)
            continue;
        // Only the owner may look at the name, so a wrong one is taken out and put back.
        const charset_converter_t* const converter =
            slot.exchange(nullptr, std::memory_order_acquire);
        if (converter == nullptr)
            continue;
        if (converter->requested_name == name)
            return converter;
        if (!put(slot, converter))
            delete converter;
    }
    return nullptr;
}

// Not cancelled meanwhile: ICU may read files with its own lock taken.
UConverter* open_converter(const char* name, UErrorCode& status)
{
    const uncancelled_t whole;
    const CriticalSection section(icu_lock);
    return ucnv_open(name, &status);
}

}  // namespace

charset_converter_t::charset_converter_t(const char* name)
    : used_charset_t(false), requested_name(name), handle(open_converter(name, open_status)),
      is_reusable(handle != nullptr && ucnv_getType(handle) != UCNV_COMPOUND_TEXT)
{
}

charset_converter_t::~charset_converter_t()
{
    const CriticalSection section(icu_lock);
    ucnv_close(handle);
}

const charset_converter_t* take_converter(const char* name)
{
    // Whole texts are all that strings convert, and each such conversion resets a reusable one.
    if (const charset_converter_t* const idle = take_idle(name))
        return idle;
    auto opened = std::make_unique<charset_converter_t>(name);
    if (opened->open_status == U_MEMORY_ALLOCATION_ERROR)
        throw std::bad_alloc();
    if (opened->handle == nullptr)
        return nullptr;
    // To learn is to convert.
    if (opened->is_reusable)
        learn_charset(name, opened->handle);
    return opened.release();
}

void give_back_converter(const charset_converter_t* converter) noexcept
{
    if (!converter->is_reusable) {
        delete converter;
        return;
    }
    slot_set_t& slots = slots_for(converter->requested_name);
    for (slot_t& slot : slots)
        if (slot.load(std::memory_order_relaxed) == nullptr && put(slot, converter))
            return;
    // A full set lets one go, so that names that are no longer used do not stay for ever.
    delete slots[0].exchange(converter, std::memory_order_acq_rel);
}

const char* default_converter_name() noexcept
{
    const uncancelled_t whole;
    const CriticalSection section(icu_lock);
    return ucnv_getDefaultName();
}

}  // namespace Kvl
