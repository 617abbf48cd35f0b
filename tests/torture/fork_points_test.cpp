// Processes that fork while another thread stands in the middle of a use of the library: once at
// each of its allocations and releases of memory, and before and after each taking and release of a
// lock. Each child makes that use, and all others, and has to come to its end.

#include "uses.h"

#include "support/watched_thread.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <dlfcn.h>
#include <iostream>
#include <pthread.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace {

constexpr unsigned int SECONDS_A_CHILD = 60;
constexpr unsigned int SECONDS_A_PROCESS = 120;
constexpr unsigned int ILL_ENOUGH = 40;

// ---- A thread that stops ----

/// Where one thread stops until another one forks: until that one waits for it, or for its child.
class stop_t {
public:
    explicit stop_t(unsigned int points_before) : points_before_(points_before) {}

    // Of the thread that forks.

    /// @return  whether there is such a point
    bool await()
    {
        state_.wait(RUNNING);
        return state_ == STOPPED;
    }
    void fork_is_next() { forking_.watch_me(); }

    // Of the thread that stops.

    void pass_point()
    {
        if (points_before_-- == 0) {
            become(STOPPED);
            forking_.falls_asleep();
        }
    }
    void end()
    {
        if (state_ == RUNNING)
            become(ENDED);
    }

private:
    enum state_t { RUNNING, STOPPED, ENDED };

    void become(state_t state)
    {
        state_ = state;
        state_.notify_all();
    }

    unsigned int points_before_;
    std::atomic<state_t> state_{RUNNING};
    watched_t forking_;
};

/// Null while it stops, so that what it does then is no point.
constinit thread_local stop_t* stop_of_this_thread = nullptr;

void pass_point()
{
    if (stop_t* const stop = std::exchange(stop_of_this_thread, nullptr)) {
        stop->pass_point();
        stop_of_this_thread = stop;
    }
}

typedef int (*mutex_function_t)(pthread_mutex_t*);
mutex_function_t real_lock = nullptr;
mutex_function_t real_unlock = nullptr;

mutex_function_t real(const char* name)
{
    return reinterpret_cast<mutex_function_t>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// In place of the C library's, for all libraries of the process.
extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier)
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
void __libc_free(void* memory);
// NOLINTEND(bugprone-reserved-identifier)

void* malloc(std::size_t size)
{
    pass_point();
    return __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size)
{
    pass_point();
    return __libc_calloc(count, size);
}

void* realloc(void* memory, std::size_t size)
{
    pass_point();
    return __libc_realloc(memory, size);
}

void free(void* memory)
{
    if (memory != nullptr)
        pass_point();
    __libc_free(memory);
}

// The first ones are called before main().

int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept
{
    if (real_lock == nullptr)
        real_lock = real("pthread_mutex_lock");
    pass_point();
    const int result = real_lock(mutex);
    pass_point();
    return result;
}

int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept
{
    if (real_unlock == nullptr)
        real_unlock = real("pthread_mutex_unlock");
    pass_point();
    const int result = real_unlock(mutex);
    pass_point();
    return result;
}
}

namespace {

// ---- Processes ----

enum outcome_t : int { WELL, ILL, NO_SUCH_POINT };

bool child_is_well(const use_t& use)
{
    return status_of_child(SECONDS_A_CHILD,
                           [&] { return is_right(use, 0) && are_all_right(0) ? WELL : ILL; }) == 0;
}

outcome_t outcome_of_stop(const use_t& use, unsigned int point)
{
    stop_t stop(point);
    std::thread user([&] {
        stop_of_this_thread = &stop;
        is_right(use, 0);
        stop_of_this_thread = nullptr;
        stop.end();
    });
    outcome_t outcome = NO_SUCH_POINT;
    if (stop.await()) {
        stop.fork_is_next();
        outcome = child_is_well(use) ? WELL : ILL;
    }
    user.join();
    return outcome;
}

struct figures_t {
    unsigned int points = 0;
    unsigned int well = 0;
};

/// Gives up a use that is ill at many points: it may never come to its end.
void stop_everywhere(const use_t& use, figures_t& figures)
{
    unsigned int ill = 0;
    for (unsigned int point = 0; ill < ILL_ENOUGH; ++point) {
        const int status =
            status_of_child(SECONDS_A_PROCESS, [&] { return outcome_of_stop(use, point); });
        if (WIFEXITED(status) && WEXITSTATUS(status) == NO_SUCH_POINT)
            return;
        ++figures.points;
        if (status == 0) {
            ++figures.well;
            continue;
        }
        ++ill;
        std::cerr << use.name << ", point " << point << ": status " << status << std::endl;
    }
}

}  // namespace

int main()
{
    const environment_t environment;
    figures_t figures;
    for (const use_t& use : all_uses())
        stop_everywhere(use, figures);
    std::cout << "fork points torture: uses=" << all_uses().size() << " points=" << figures.points
              << " well=" << figures.well << std::endl;
    return figures.well == figures.points ? EXIT_SUCCESS : EXIT_FAILURE;
}
