#ifndef KVUTIL_TESTS_SUPPORT_MEMORY_FAULT_H
#define KVUTIL_TESTS_SUPPORT_MEMORY_FAULT_H

#include <new>

/// While one lives, one allocation of this thread fails: `operator new` throws and ICU's
/// allocations return null. A program that uses this header has its `operator new` replaced. Linked
/// with kvutil_malloc_fault, it has malloc() and its like replaced, too, so that the C library's
/// own allocations fail as well.
class memory_fault {
public:
    /// @param nth        which allocation from here on fails, 1 = the next one
    /// @param and_after  whether every later one fails too
    explicit memory_fault(unsigned long nth, bool and_after = false);
    ~memory_fault();
    memory_fault(const memory_fault&) = delete;
    memory_fault& operator=(const memory_fault&) = delete;

    /// Whether an allocation has failed.
    bool struck() const;
};

/// Allocations of this thread so far, those of ICU included, since the first use of this header.
unsigned long allocations_of_this_thread();

/// Bytes that those allocations have asked for.
unsigned long bytes_asked_for_by_this_thread();

/// @return  how many bytes `operation` asks for: a measure of its work that does not depend on the
///          machine, as everything that is copied has to be put somewhere
template <class Operation>
unsigned long bytes_asked_for(Operation operation)
{
    const unsigned long before = bytes_asked_for_by_this_thread();
    operation();
    return bytes_asked_for_by_this_thread() - before;
}

/// How many more blocks this thread has allocated than freed, of those that can be made to fail.
long live_blocks_of_this_thread();

/// Runs `operation` with its first, second, ... allocation failing until none is left to fail.
/// Each failing run must throw std::bad_alloc; `check_unchanged` runs after it.
/// @return how many allocations were made to fail; -1 when a run did not throw std::bad_alloc
template <class Operation, class Check>
int for_each_memory_fault(Operation operation, Check check_unchanged)
{
    for (unsigned long nth = 1;; ++nth) {
        bool threw = false;
        bool struck = false;
        {
            const memory_fault fault(nth);
            try {
                operation();
            } catch (const std::bad_alloc&) {
                threw = true;
            }
            struck = fault.struck();
        }
        if (!struck)
            return static_cast<int>(nth) - 1;
        if (!threw)
            return -1;
        check_unchanged();
    }
}

#endif
