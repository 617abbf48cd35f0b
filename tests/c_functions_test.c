/* The C interface from C: every header for C is valid C99, and every function links and works. */
#include <kvutil/tbs_version_id.h>

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

static void check_version_line(void)
{
    char line[128];
    const int count = libkvutil_sprintf_verid(line);
    expect(count == (int)strlen(line), "the count is the line's length");
    expect(strncmp(line, "libkvutil ", 10) == 0, "the line begins with the component");
    expect(libkvutil_print_verid() == count, "the same line is printed");
}

int main(void)
{
    check_version_line();
    return failures == 0 ? 0 : 1;
}
