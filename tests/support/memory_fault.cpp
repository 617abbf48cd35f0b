#include "memory_fault.h"

#include <unicode/uclean.h>

#include <cstdlib>

namespace {

thread_local unsigned long countdown = 0;
thread_local bool keep_failing = false;
thread_local bool has_struck = false;
thread_local unsigned long allocations = 0;

bool fails_now()
{
    ++allocations;
    if (has_struck && keep_failing)
        return true;
    if (countdown == 0 || --countdown != 0)
        return false;
    has_struck = true;
    return true;
}

void* icu_allocate(const void*, size_t size)
{
    return fails_now() ? nullptr : std::malloc(size);
}

void* icu_reallocate(const void*, void* memory, size_t size)
{
    return fails_now() ? nullptr : std::realloc(memory, size);
}

void icu_free(const void*, void* memory)
{
    std::free(memory);
}

// ICU's own heap is malloc's, so memory from before and after the change can be mixed.
const bool icu_is_hooked = [] {
    UErrorCode status = U_ZERO_ERROR;
    u_setMemoryFunctions(nullptr, icu_allocate, icu_reallocate, icu_free, &status);
    if (U_FAILURE(status))
        std::abort();
    return true;
}();

void* allocate(std::size_t size)
{
    void* const memory = fails_now() ? nullptr : std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr)
        throw std::bad_alloc();
    return memory;
}

}  // namespace

memory_fault::memory_fault(unsigned long nth, bool and_after)
{
    has_struck = false;
    keep_failing = and_after;
    countdown = nth;
}

memory_fault::~memory_fault()
{
    countdown = 0;
    keep_failing = false;
}

bool memory_fault::struck() const
{
    return has_struck;
}

unsigned long allocations_of_this_thread()
{
    return icu_is_hooked ? allocations : 0;
}

void* operator new(std::size_t size)
{
    return allocate(size);
}

void* operator new[](std::size_t size)
{
    return allocate(size);
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return fails_now() ? nullptr : std::malloc(size == 0 ? 1 : size);
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept
{
    return fails_now() ? nullptr : std::malloc(size == 0 ? 1 : size);
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory, std::size_t) noexcept
{
    std::free(memory);
}
