/* A component's versions, one aligned line each, from a program in C. */
#include <kvutil/tbs_version_id.h>

int main(void)
{
    return libkvutil_print_verid() < 0;
}
