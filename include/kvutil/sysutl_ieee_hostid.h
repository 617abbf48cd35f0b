#ifndef KVUTIL_SYSUTL_IEEE_HOSTID_H
#define KVUTIL_SYSUTL_IEEE_HOSTID_H

#include <kvutil/export.h>

#ifdef __cplusplus
extern "C" {
#endif

/// The host's IEEE 802 (Ethernet) address: that of the interface "eth0" when it has one, otherwise
/// of the first other interface in /proc/net/dev that does; never of "lo".
///
/// The first call looks; every later one repeats its answer, whether or not an address was found
/// and whatever has become of the interfaces since.
/// @param addr  6 bytes to be filled, first byte of the address first; all zero when there is
///              none. Null to learn only whether there is one
/// @return      0 when an address was found, otherwise 1
/// @par Thread-safety
/// May be called from any number of threads at once: one looks, the others wait for it. Not a
/// cancellation point.
KVUTIL_EXPORT int brenner_sysutl_my_ieee_hostid(unsigned char addr[6]);

/// Random bytes of the kernel, from /dev/urandom. There is no other source.
/// @param buf  `n` bytes to be filled; on failure they may have been written in part. May be null
///             when `n` is 0
/// @param n    how many, 0..32. More are refused before anything is read
/// @return     0, or 1 when `n` exceeds 32, there is no `buf` for them, or the source cannot be
///             read
/// @par Thread-safety
/// May be called from any number of threads at once. Not a cancellation point.
KVUTIL_EXPORT int brenner_sysutl_get_random_bytes(unsigned char* buf, unsigned int n);

#ifdef __cplusplus
}
#endif

#endif
