#include "critsec_lock_impl.h"

#include <cerrno>
#include <initializer_list>

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace Kvl {

// ---- Waiting

namespace {

using CriticalSectionImpl::listed_mutex_t;
using CriticalSectionImpl::mutex_t;

static_assert(sizeof(std::atomic<int>) == sizeof(int) && std::atomic<int>::is_always_lock_free,
              "the system takes a plain number");

/// errno stays what it was: locks are taken also where a caller is about to read it.
void ask_system(const std::atomic<int>& state, int operation, int value) noexcept
{
    const int saved_errno = errno;
    syscall(SYS_futex, &state, operation, value, nullptr, nullptr, 0);
    errno = saved_errno;
}

void pause() noexcept
{
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
}

/// Whoever holds a lock holds it shortly: to look again costs less than to sleep and be woken. But
/// each look takes the memory away from who is about to write there, so they are rare.
bool take_soon(std::atomic<int>& state) noexcept
{
    for (const int pauses : {32, 64, 128}) {
        for (int i = 0; i < pauses; ++i)
            pause();
        if (state.load(std::memory_order_relaxed) == mutex_t::FREE &&
            CriticalSectionImpl::take_if_free(state))
            return true;
    }
    return false;
}

}  // namespace

// Who has slept cannot know whether others still do, so it leaves the mutex HELD_AND_AWAITED.
void CriticalSectionImpl::take_when_free(mutex_t& mutex) noexcept
{
    if (take_soon(mutex.state))
        return;
    while (mutex.state.exchange(mutex_t::HELD_AND_AWAITED, std::memory_order_acquire) !=
           mutex_t::FREE)
        ask_system(mutex.state, FUTEX_WAIT_PRIVATE, mutex_t::HELD_AND_AWAITED);
}

void CriticalSectionImpl::wake_one(mutex_t& mutex) noexcept
{
    ask_system(mutex.state, FUTEX_WAKE_PRIVATE, 1);
}

// ---- Forking

namespace {

/// Guards the lists and their links.
constinit pthread_mutex_t list_mutex = PTHREAD_MUTEX_INITIALIZER;
constinit listed_mutex_t* owned_head = nullptr;
/// Newest first; never shortened, so that it can be walked from any of its elements.
constinit listed_mutex_t* immortal_head = nullptr;
/// From where on the forking thread has taken the immortal ones.
constinit listed_mutex_t* taken_head = nullptr;
constinit bool fork_handlers_registered = false;

listed_mutex_t* newest_immortal()
{
    pthread_mutex_lock(&list_mutex);
    listed_mutex_t* const newest = immortal_head;
    pthread_mutex_unlock(&list_mutex);
    return newest;
}

// The list's own mutex comes last, because whoever holds one of the others may create a lock. Other
// handlers that run until the fork is over may use the library: this thread takes its locks again.
void before_fork()
{
    listed_mutex_t* const newest = newest_immortal();
    for (listed_mutex_t* m = newest; m != nullptr; m = m->next)
        if (m->is_held_over_fork)
            CriticalSectionImpl::take(*m);
    pthread_mutex_lock(&list_mutex);
    taken_head = newest;
}

void after_fork_in_parent()
{
    listed_mutex_t* const newest = taken_head;
    pthread_mutex_unlock(&list_mutex);
    for (listed_mutex_t* m = newest; m != nullptr; m = m->next)
        if (m->is_held_over_fork)
            CriticalSectionImpl::release(*m);
}

void make_all_free(listed_mutex_t* m)
{
    for (; m != nullptr; m = m->next) {
        m->holder = pthread_t();
        m->depth = 0;
        m->state = mutex_t::FREE;
    }
}

void after_fork_in_child()
{
    make_all_free(owned_head);
    make_all_free(immortal_head);
    pthread_mutex_unlock(&list_mutex);
}

void put_in_front(listed_mutex_t*& head, listed_mutex_t& m)
{
    m.next = head;
    if (head != nullptr)
        head->previous = &m;
    head = &m;
}

// An immortal one comes here again with every further lock that refers to it.
void enlist(listed_mutex_t& m)
{
    pthread_mutex_lock(&list_mutex);
    if (!fork_handlers_registered)
        fork_handlers_registered =
            pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child) == 0;
    if (!m.is_listed) {
        put_in_front(m.is_immortal ? immortal_head : owned_head, m);
        m.is_listed = true;
    }
    pthread_mutex_unlock(&list_mutex);
}

listed_mutex_t& listed(mutex_t& m)
{
    return static_cast<listed_mutex_t&>(m);
}

void delist(listed_mutex_t& m)
{
    pthread_mutex_lock(&list_mutex);
    (m.previous != nullptr ? m.previous->next : owned_head) = m.next;
    if (m.next != nullptr)
        m.next->previous = m.previous;
    pthread_mutex_unlock(&list_mutex);
}

}  // namespace

// ---- The locks

CriticalSectionLock::CriticalSectionLock() : mutex_(new listed_mutex_t)
{
    enlist(listed(*mutex_));
}

CriticalSectionLock::CriticalSectionLock(mutex_t& immortal) noexcept : mutex_(&immortal)
{
    enlist(listed(immortal));
}

CriticalSectionLock::~CriticalSectionLock()
{
    listed_mutex_t& m = listed(*mutex_);
    if (m.is_immortal)
        return;
    delist(m);
    delete &m;
}

}  // namespace Kvl
