#include <kvutil/tbs_version_id.h>

#include "version_stamp.h"  // written by the build

#include <cstdio>

// The identification block: one string beside those in which compilers name themselves, in the
// section ".comment", which is not loaded. The library never reads it. The marker is written in two
// pieces, so that searching this file does not find it.
//
// clang does not undo the escapes of an .ident directive; the GNU assembler does, but warns of
// whoever names the section instead.
#if defined(__clang__)
#define KVUTIL_IDENT_BEGIN ".pushsection .comment,\"MS\",@progbits,1\n.asciz \""
#define KVUTIL_IDENT_END "\"\n.popsection\n"
#else
#define KVUTIL_IDENT_BEGIN ".ident \""
#define KVUTIL_IDENT_END "\""
#endif

// clang-format off
#define KVUTIL_IDENTIFICATION(key, value) "@" "(#)/./=W=:" key "=" value "\\n"
__asm__(KVUTIL_IDENT_BEGIN
        KVUTIL_IDENTIFICATION("Target", KVUTIL_STAMP_TARGET)
        KVUTIL_IDENTIFICATION("User", KVUTIL_STAMP_USER)
        KVUTIL_IDENTIFICATION("Host", KVUTIL_STAMP_HOST)
        KVUTIL_IDENTIFICATION("Time", KVUTIL_STAMP_TIME)
        KVUTIL_IDENTIFICATION("View", KVUTIL_STAMP_VIEW)
        KVUTIL_IDENTIFICATION("Baseline", KVUTIL_STAMP_BASELINE)
        KVUTIL_IDENTIFICATION("BF_TAG", KVUTIL_STAMP_BF_TAG)
        KVUTIL_IDENT_END);
// clang-format on

namespace {

constexpr char FORMAT[] = "%-*s %s (%s)\n";
constexpr char COMPONENT[] = "libkvutil";
constexpr int COMPONENT_WIDTH = 33;

}  // namespace

int libkvutil_sprintf_verid(char* buf)
{
    if (buf == nullptr)
        return -1;
    return std::sprintf(buf, FORMAT, COMPONENT_WIDTH, COMPONENT, KVUTIL_STAMP_VERSION,
                        KVUTIL_STAMP_TIME);
}

int libkvutil_print_verid(void)
{
    return std::printf(FORMAT, COMPONENT_WIDTH, COMPONENT, KVUTIL_STAMP_VERSION, KVUTIL_STAMP_TIME);
}
