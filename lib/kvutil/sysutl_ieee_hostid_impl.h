#ifndef KVUTIL_SYSUTL_IEEE_HOSTID_IMPL_H
#define KVUTIL_SYSUTL_IEEE_HOSTID_IMPL_H

#include <array>

namespace Kvl::HostIdImpl {

using address_t = std::array<unsigned char, 6>;

/// What a look-up found: 0 and an address, or 1 and all zero.
struct answer_t {
    address_t address;
    int status;
};

/// Looks for the address each time it is called.
answer_t look_up() noexcept;

/// For tests: the next call looks again. No other thread may be in one meanwhile.
void forget() noexcept;

}  // namespace Kvl::HostIdImpl

#endif
