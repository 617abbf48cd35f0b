#ifndef KVUTIL_TBS_UUID_GEN_IMPL_H
#define KVUTIL_TBS_UUID_GEN_IMPL_H

#include <cstdint>

namespace Kvl::UuidGenImpl {

/// What tells two UUIDs of one process apart.
struct ticket_t {
    std::uint64_t window;    ///< the time stamp less its low 20 bits, 0..2^40-1
    std::uint32_t sequence;  ///< 0..2^18-1
};

/// A ticket that nobody has had. Waits where the last window's sequence is used up.
ticket_t next_ticket() noexcept;

/// The id of this process, without a system call but for the first time in each.
std::uint32_t process_id() noexcept;

/// For tests: as if nothing had been generated. No other thread may be in a call meanwhile.
void forget() noexcept;

}  // namespace Kvl::UuidGenImpl

#endif
