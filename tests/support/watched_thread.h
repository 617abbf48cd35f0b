#ifndef KVUTIL_TESTS_SUPPORT_WATCHED_THREAD_H
#define KVUTIL_TESTS_SUPPORT_WATCHED_THREAD_H

#include <kvutil/critsec.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <thread>
#include <unistd.h>

/// What the kernel says of a process or a thread. Allocates nothing, as others may fork at that
/// moment.
/// @param format  of the file that says it, for the number
/// @return        the beginning of the file; empty when it has ended
template <std::size_t size>
std::array<char, size> said_in(const char* format, pid_t id)
{
    char path[64];
    std::snprintf(path, sizeof path, format, static_cast<int>(id));
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    std::array<char, size> text{};
    if (file < 0 || read(file, text.data(), size - 1) < 0)
        text[0] = '\0';
    if (file >= 0)
        close(file);
    return text;
}

/// What a process or a thread does, in one letter: 'S' while it sleeps.
/// @return  'X' when it has ended
inline char state_in(const char* format, pid_t id)
{
    const auto text = said_in<128>(format, id);
    const char* const end_of_name = std::strrchr(text.data(), ')');
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

/// How often it has waited for something, what it waits for now included.
/// @param id  of a thread of this process
inline unsigned long num_waits_of_thread(pid_t id)
{
    static constexpr char KEY[] = "\nvoluntary_ctxt_switches:";
    const auto text = said_in<4096>("/proc/self/task/%d/status", id);
    const char* const number = std::strstr(text.data(), KEY);
    return number == nullptr ? 0 : std::strtoul(number + sizeof KEY - 1, nullptr, 10);
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

    /// @param waits_before  of its waits, how many do not count
    /// @return              false when the thread has come to its end instead
    bool falls_asleep(unsigned long waits_before = 0) const
    {
        id_.wait(0);
        for (;;) {
            const char state = state_of_thread(id_);
            if (state == 'S' && (waits_before == 0 || num_waits() > waits_before))
                return true;
            if (state == 'X' || state == 'Z')
                return false;
            std::this_thread::yield();
        }
    }

    unsigned long num_waits() const { return num_waits_of_thread(id_); }

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
