#ifndef KVUTIL_TESTS_TORTURE_USES_H
#define KVUTIL_TESTS_TORTURE_USES_H

#include "support/scratch.h"

#include <span>

#include <sys/wait.h>
#include <unistd.h>

/// One use of something that threads share. What it does depends on the number, whether it is right
/// does not.
struct use_t {
    const char* name;
    bool (*is_right)(unsigned int n);
};

/// A use of each of the library's tables, and of each lock that others have.
std::span<const use_t> all_uses();

/// Says so when it is not.
bool is_right(const use_t& use, unsigned int n);
bool are_all_right(unsigned int n);

/// What the uses need; the library itself is left alone.
class environment_t {
public:
    environment_t();

private:
    const scratch_t directory_;
};

/// @param seconds  after which the child is ended
/// @param body     returns an exit status
/// @return         the status that waitpid() gives, 0 when all was well
template <class Body>
int status_of_child(unsigned int seconds, Body body)
{
    const pid_t pid = fork();
    if (pid == 0) {
        alarm(seconds);
        _exit(body());
    }
    int status = -1;
    return pid > 0 && waitpid(pid, &status, 0) == pid ? status : -1;
}

#endif
