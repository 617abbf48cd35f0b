#ifndef KVUTIL_TESTS_SUPPORT_CPU_TIME_H
#define KVUTIL_TESTS_SUPPORT_CPU_TIME_H

#include <chrono>
#include <ctime>

/// The time that this thread has spent on a processor so far. For tests that tell linear growth
/// from quadratic by orders of magnitude: the clock on the wall also counts what else the machine
/// does.
inline std::chrono::nanoseconds cpu_time()
{
    std::timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

#endif
