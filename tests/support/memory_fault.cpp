#include "memory_fault.h"

#include <unicode/uclean.h>

#include <cerrno>
#include <cstdlib>

// ---- the heap behind ----

namespace {

#ifdef KVUTIL_MALLOC_FAULTS

// glibc's own, by the names that nobody replaces.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* memory);
}

void* heap_allocate(std::size_t size)
{
    return __libc_malloc(size);
}

void* heap_reallocate(void* memory, std::size_t size)
{
    return __libc_realloc(memory, size);
}

void heap_free(void* memory)
{
    __libc_free(memory);
}

#else

void* heap_allocate(std::size_t size)
{
    return std::malloc(size);
}

void* heap_reallocate(void* memory, std::size_t size)
{
    return std::realloc(memory, size);
}

void heap_free(void* memory)
{
    std::free(memory);
}

#endif

// ---- allocations that are counted and may fail ----

thread_local unsigned long countdown = 0;
thread_local bool keep_failing = false;
thread_local bool has_struck = false;
thread_local unsigned long allocations = 0;
thread_local unsigned long bytes = 0;
thread_local long live_blocks = 0;

bool fails_now(std::size_t size)
{
    ++allocations;
    bytes += size;
    if (has_struck && keep_failing)
        return true;
    if (countdown == 0 || --countdown != 0)
        return false;
    has_struck = true;
    return true;
}

void* counted(void* memory)
{
    live_blocks += memory != nullptr;
    return memory;
}

void* counted_allocate(std::size_t size)
{
    return fails_now(size) ? nullptr : counted(heap_allocate(size));
}

void* counted_reallocate(void* memory, std::size_t size)
{
    if (memory == nullptr)
        return counted_allocate(size);
    return fails_now(size) ? nullptr : heap_reallocate(memory, size);
}

void counted_free(void* memory)
{
    live_blocks -= memory != nullptr;
    heap_free(memory);
}

// ---- whose they are ----

// ICU's own heap is malloc's, so memory from before and after the change can be mixed.
const bool icu_is_hooked = [] {
    UErrorCode status = U_ZERO_ERROR;
    u_setMemoryFunctions(
        nullptr, [](const void*, std::size_t size) { return counted_allocate(size); },
        [](const void*, void* memory, std::size_t size) {
            return counted_reallocate(memory, size);
        },
        [](const void*, void* memory) { counted_free(memory); }, &status);
    if (U_FAILURE(status))
        std::abort();
    return true;
}();

void* allocate_for_new(std::size_t size) noexcept
{
    return counted_allocate(size == 0 ? 1 : size);
}

void* allocate_or_throw(std::size_t size)
{
    void* const memory = allocate_for_new(size);
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

unsigned long bytes_asked_for_by_this_thread()
{
    return icu_is_hooked ? bytes : 0;
}

long live_blocks_of_this_thread()
{
    return live_blocks;
}

void* operator new(std::size_t size)
{
    return allocate_or_throw(size);
}

void* operator new[](std::size_t size)
{
    return allocate_or_throw(size);
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return allocate_for_new(size);
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept
{
    return allocate_for_new(size);
}

void operator delete(void* memory) noexcept
{
    counted_free(memory);
}

void operator delete[](void* memory) noexcept
{
    counted_free(memory);
}

void operator delete(void* memory, std::size_t) noexcept
{
    counted_free(memory);
}

void operator delete[](void* memory, std::size_t) noexcept
{
    counted_free(memory);
}

#ifdef KVUTIL_MALLOC_FAULTS

// The C library calls these for its own memory, too.

extern "C" {

void* malloc(std::size_t size) noexcept
{
    void* const memory = counted_allocate(size);
    if (memory == nullptr)
        errno = ENOMEM;
    return memory;
}

void* calloc(std::size_t count, std::size_t size) noexcept
{
    void* const memory = fails_now(count * size) ? nullptr : counted(__libc_calloc(count, size));
    if (memory == nullptr)
        errno = ENOMEM;
    return memory;
}

void* realloc(void* memory, std::size_t size) noexcept
{
    void* const moved = counted_reallocate(memory, size);
    if (moved == nullptr)
        errno = ENOMEM;
    return moved;
}

void* memalign(std::size_t alignment, std::size_t size) noexcept
{
    void* const memory = fails_now(size) ? nullptr : counted(__libc_memalign(alignment, size));
    if (memory == nullptr)
        errno = ENOMEM;
    return memory;
}

void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept
{
    return memalign(alignment, size);
}

int posix_memalign(void** memory, std::size_t alignment, std::size_t size) noexcept
{
    const int error_of_caller = errno;
    *memory = memalign(alignment, size);
    errno = error_of_caller;
    return *memory == nullptr ? ENOMEM : 0;
}

void free(void* memory) noexcept
{
    counted_free(memory);
}

}  // extern "C"

#endif
