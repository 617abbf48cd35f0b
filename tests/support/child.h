#ifndef KVUTIL_TESTS_SUPPORT_CHILD_H
#define KVUTIL_TESTS_SUPPORT_CHILD_H

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

/// Runs a body of expectations in a process of its own, which starts as a copy of this one: for
/// what a process keeps as long as it lives.
/// @param end  how it ends: as a program does, or, where threads were left behind by the fork,
///             with _exit()
template <class Body>
void in_child(Body body, void (*end)(int) = std::exit)
{
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        alarm(200);
        try {
            body();
        } catch (...) {
            ADD_FAILURE() << "an exception left the body";
        }
        std::fflush(nullptr);
        end(testing::Test::HasFailure() ? EXIT_FAILURE : EXIT_SUCCESS);
    }
    int status = -1;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(status, 0) << "what the child expected is printed above";
}

#endif
