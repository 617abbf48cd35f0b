#ifndef KVUTIL_TESTS_SUPPORT_CHILD_H
#define KVUTIL_TESTS_SUPPORT_CHILD_H

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

/// Runs a body of expectations in a process of its own, which starts as a copy of this one: for
/// what a process keeps as long as it lives. It ends as a program does.
template <class Body>
void in_child(Body body)
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
        std::exit(testing::Test::HasFailure() ? EXIT_FAILURE : EXIT_SUCCESS);
    }
    int status = -1;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(status, 0) << "what the child expected is printed above";
}

#endif
