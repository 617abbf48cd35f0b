#ifndef KVUTIL_TESTS_SUPPORT_WATCHED_THREAD_H
#define KVUTIL_TESTS_SUPPORT_WATCHED_THREAD_H

#include <kvutil/critsec.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <thread>
#include <unistd.h>

/// What a process or a thread does, as the kernel says it in one letter: 'S' while it sleeps.
/// Allocates nothing, as others may fork at that moment.
/// @param format  of the file that says it, for the number
/// @return        'X' when it has ended
[[gnu::format(printf, 1, 0)]] inline char state_in(const char* format, pid_t id)
{
    char path[64];
    std::snprintf(path, sizeof path, format, static_cast<int>(id));
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    char text[128] = {};
    const bool is_there = file >= 0 && read(file, text, sizeof text - 1) > 0;
    if (file >= 0)
        close(file);
    const char* const end_of_name = is_there ? std::strrchr(text, ')') : nullptr;
    return end_of_name == nullptr ? 'X' : end_of_name[2];
}

inline char state_of_process(pid_t id)
{
    return state_in("/proc/%d/stat", id);
}

/// @param id  of a thread of this process
inline char state_of_thread(pid_t id)
{
    return state_in("/proc/self/task/%d/stat", id);
}

/// A thread that is expected to wait for a lock, a pipe, or another process: tests look until they
/// see it asleep, which takes as long as it takes, instead of giving it some time.
class watched_t {
public:
    /// Says which thread it is: the caller, which is about to wait.
    void watch_me()
    {
        id_ = gettid();
        id_.notify_all();
    }

    /// @return  false when the thread has come to its end instead
    bool falls_asleep() const
    {
        id_.wait(0);
        for (;;) {
            const char state = state_of_thread(id_);
            if (state == 'S')
                return true;
            if (state == 'X' || state == 'Z')
                return false;
            std::this_thread::yield();
        }
    }

private:
    std::atomic<pid_t> id_{0};
};

/// A thread that is watched from its beginning.
class watched_thread_t {
public:
    template <class Body>
    explicit watched_thread_t(Body body)
        : thread_([this, body] {
              watched_.watch_me();
              body();
          })
    {
    }

    bool falls_asleep() const { return watched_.falls_asleep(); }
    void join() { thread_.join(); }

private:
    watched_t watched_;
    std::thread thread_;
};

/// @return  whether the operation waits for whoever holds the lock
template <class Operation>
bool waits_for(const Kvl::CriticalSectionLock& lock, Operation operation)
{
    std::optional<watched_thread_t> operating;
    bool has_waited = false;
    {
        const Kvl::CriticalSection section(lock);
        operating.emplace(operation);
        has_waited = operating->falls_asleep();
    }
    operating->join();
    return has_waited;
}

#endif
