#ifndef KVUTIL_TESTS_SUPPORT_RESTRICTED_CHILD_H
#define KVUTIL_TESTS_SUPPORT_RESTRICTED_CHILD_H

#include <gtest/gtest.h>

#include <cstdio>
#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

/// What a child process answers when the machine does not let it do what it should.
constexpr int NOT_ALLOWED = 77;

/// Runs `operation` in a child process; expectations in it count.
/// @param operation  returns 0, or NOT_ALLOWED
/// @return           whether the child was allowed to do all of it
template <class Operation>
bool in_restricted_child(Operation operation)
{
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        int result = 0;
        try {
            result = operation();
        } catch (...) {
            ADD_FAILURE() << "an exception left the operation";
        }
        std::fflush(nullptr);
        _exit(testing::Test::HasFailure() ? 1 : result);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status)) << "signal " << WTERMSIG(status);
    const int code = WEXITSTATUS(status);
    EXPECT_TRUE(code == 0 || code == NOT_ALLOWED) << "failed in the child, see above";
    return code != NOT_ALLOWED;
}

/// Runs `operation` in a child process without privileges.
template <class Operation>
bool without_privileges(Operation operation)
{
    return in_restricted_child([&] {
        constexpr unsigned int nobody = 65534;
        if (geteuid() == 0 &&
            (setgroups(0, nullptr) != 0 || setresgid(nobody, nobody, nobody) != 0 ||
             setresuid(nobody, nobody, nobody) != 0))
            return NOT_ALLOWED;
        operation();
        return 0;
    });
}

#endif
