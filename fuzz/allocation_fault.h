#ifndef KVUTIL_FUZZ_ALLOCATION_FAULT_H
#define KVUTIL_FUZZ_ALLOCATION_FAULT_H

#include "../tests/support/memory_fault.h"
#include "input.h"
#include "property.h"

/// Which allocation of the next operation the input wants to fail; 0 for none.
inline unsigned long fault_of(input_t& input)
{
    const std::uint8_t byte = input.byte();
    return byte < 32 ? byte : 0;
}

/// What the input wants next: the operation's letter, behind '!' and a byte where an allocation of
/// it is to fail.
struct step_t {
    explicit step_t(input_t& input) : letter(input.byte())
    {
        if (letter != '!')
            return;
        fault = fault_of(input);
        letter = input.byte();
    }
    std::uint8_t letter;
    unsigned long fault = 0;
};

/// Runs `operation` with its `nth` allocation failing, those of ICU included; 0 lets it have all.
/// @return  false when std::bad_alloc came out, as it may only where an allocation has failed
template <class Operation>
bool has_memory(unsigned long nth, Operation operation)
{
    const memory_fault fault(nth);
    try {
        operation();
    } catch (const std::bad_alloc&) {
        require(fault.struck());
        return false;
    }
    return true;
}

#endif
