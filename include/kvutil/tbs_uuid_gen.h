#ifndef KVUTIL_TBS_UUID_GEN_H
#define KVUTIL_TBS_UUID_GEN_H

#include <kvutil/export.h>

#ifdef __cplusplus
extern "C" {
#endif

/// A DCE UUID, 16 bytes without padding; fields of several bytes are in host order.
/// @see DCE 1.1 Remote Procedure Call, appendix A; RFC 4122 4.1
typedef struct tbs_uuid_s {
    unsigned int time_low;                    ///< low 32 bits of the time stamp
    unsigned short time_mid;                  ///< middle 16 bits of the time stamp
    unsigned short time_hi_and_version;       ///< high 12 bits, below the version in the top 4
    unsigned char clock_seq_hi_and_reserved;  ///< high bits of the clock sequence, and the variant
    unsigned char clock_seq_low;              ///< low 8 bits of the clock sequence
    unsigned char node[6];                    ///< IEEE 802 address, first byte first
} tbs_uuid_s;

/// An object identifier: the same 16 bytes under another name.
typedef struct tbs_oid_s {
    unsigned int time_low;                    ///< low 32 bits of the time stamp
    unsigned short time_mid;                  ///< middle 16 bits of the time stamp
    unsigned short time_hi_and_version;       ///< high 12 bits, below the version in the top 4
    unsigned char clock_seq_hi_and_reserved;  ///< high bits of the clock sequence, and the variant
    unsigned char clock_seq_low;              ///< low 8 bits of the clock sequence
    unsigned char node[6];                    ///< IEEE 802 address, first byte first
} tbs_oid_s;

/// Makes a time-based (version 1) UUID.
///
/// Deliberate: the time stamp is 2^32 units of 100 ns ahead of the standard's, its low 20 bits are
/// an 18-bit sequence and two bits of the process id, and the clock sequence is 14 further bits of
/// the process id. So a process makes at most 2^18 UUIDs in 104.8576 ms; who asks for more waits
/// for the next such window. No value comes twice, also when the clock is set back.
/// @param out  filled on success; without a node, all but `node` is filled. Null is refused
/// @return     0; 1001 when there is neither an Ethernet address nor a random node, which is then
///             the answer for the life of the process, or when `out` is null
/// @par Thread-safety
/// May be called from any number of threads at once and in the child of a fork(). Holds no lock
/// while it waits. Not a cancellation point.
/// @see RFC 4122 4.2
KVUTIL_EXPORT int brenner_tbs_uuid_gen(tbs_uuid_s* out);

#ifdef __cplusplus
}
#endif

#endif
