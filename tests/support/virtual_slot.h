#ifndef KVUTIL_TESTS_SUPPORT_VIRTUAL_SLOT_H
#define KVUTIL_TESTS_SUPPORT_VIRTUAL_SLOT_H

#include <cstddef>
#include <cstring>

/// Position of a virtual operation among those of its class, 1 = the first, the destructor counted
/// as one. Reads the representation that the Itanium C++ ABI gives a pointer to a virtual member:
/// one plus the byte offset in the table, where a destructor takes two entries.
template <class Operation>
std::size_t virtual_slot(Operation operation)
{
    std::size_t representation[2];
    static_assert(sizeof representation == sizeof operation);
    std::memcpy(representation, &operation, sizeof representation);
    return (representation[0] - 1) / sizeof(void*);
}

#endif
