/* The C interface from C: every header for C is valid C99, and every function links and works. */
#include <kvutil/arm4.h>
#include <kvutil/sysutl_ieee_hostid.h>
#include <kvutil/tbs_uuid_gen.h>
#include <kvutil/tbs_version_id.h>

#include "support/arm4_layout.h"

#include <stdio.h>
#include <string.h>

static int failures = 0;

static void expect(int holds, const char* what)
{
    if (holds)
        return;
    fprintf(stderr, "does not hold: %s\n", what);
    ++failures;
}

static void check_uuids(void)
{
    tbs_uuid_s first;
    tbs_uuid_s second;
    memset(&first, 0, sizeof first);
    memset(&second, 0, sizeof second);
    expect(sizeof(tbs_uuid_s) == 16 && sizeof(tbs_oid_s) == 16, "identifiers have no padding");
    expect(brenner_tbs_uuid_gen(&first) == 0, "a UUID is made");
    expect(brenner_tbs_uuid_gen(&second) == 0, "another UUID is made");
    expect(first.time_hi_and_version >> 12 == 1, "its version is 1");
    expect(memcmp(&first, &second, sizeof first) != 0, "no UUID comes twice");
    expect(memcmp(first.node, second.node, sizeof first.node) == 0, "the node stays");
}

static void check_host_id(void)
{
    static const unsigned char none[6] = {0};
    unsigned char address[6] = {1, 2, 3, 4, 5, 6};
    unsigned char again[6] = {1, 2, 3, 4, 5, 6};
    const int result = brenner_sysutl_my_ieee_hostid(address);
    expect(result == 0 || result == 1, "an address is found or not");
    expect((memcmp(address, none, sizeof none) == 0) == (result == 1), "no address is all zero");
    expect(brenner_sysutl_my_ieee_hostid(again) == result, "the answer stays");
    expect(memcmp(address, again, sizeof again) == 0, "the address stays");
}

static void check_random_bytes(void)
{
    unsigned char bytes[33];
    unsigned char others[32];
    memset(bytes, 0, sizeof bytes);
    memset(others, 0, sizeof others);
    expect(brenner_sysutl_get_random_bytes(bytes, 33) == 1, "33 bytes are too many");
    expect(brenner_sysutl_get_random_bytes(bytes, 0) == 0, "no bytes can be had");
    expect(brenner_sysutl_get_random_bytes(bytes, 32) == 0, "32 bytes can be had");
    expect(brenner_sysutl_get_random_bytes(others, 32) == 0, "and 32 more");
    expect(memcmp(bytes, others, 32) != 0, "they differ");
    expect(bytes[32] == 0, "no more are written");
}

static void check_version_line(void)
{
    char line[128];
    const int count = libkvutil_sprintf_verid(line);
    expect(count == (int)strlen(line), "the count is the line's length");
    expect(strncmp(line, "libkvutil ", 10) == 0, "the line begins with the component");
    expect(libkvutil_print_verid() == count, "the same line is printed");
}

/* A run-time in C is written with these types. */
static arm_error_t give_arrival_time(arm_arrival_time_t* opaque_time)
{
    *opaque_time = 7;
    return 0;
}

static void check_arm_types(void)
{
    arm_get_arrival_time_function_t* const function = give_arrival_time;
    arm_subbuffer_arrival_time_t record = {{ARM_SUBBUFFER_ARRIVAL_TIME}, 0};
    arm_subbuffer_t* array[] = {ARM_SB(record)};
    const arm_buffer4_t buffer = {1, array};
    expect(function(&record.opaque_time) == 0 && record.opaque_time == 7, "the time is given");
    expect(buffer.subbuffer_array[0]->format == 4, "the buffer holds the record");
}

int main(void)
{
    check_uuids();
    check_host_id();
    check_random_bytes();
    check_version_line();
    check_arm_types();
    return failures == 0 ? 0 : 1;
}
