#include "critsec_lock_impl.h"

namespace Kvl {
namespace {

using CriticalSectionImpl::listed_mutex_t;
using CriticalSectionImpl::mutex_t;

/// Guards the lists and their links.
constinit pthread_mutex_t list_mutex = PTHREAD_MUTEX_INITIALIZER;
constinit listed_mutex_t* owned_head = nullptr;
/// Newest first; never shortened, so that it can be walked from any of its elements.
constinit listed_mutex_t* immortal_head = nullptr;
/// From where on the forking thread has taken the immortal ones.
constinit listed_mutex_t* taken_head = nullptr;
constinit bool fork_handlers_registered = false;

/// Whether this thread is between the handlers before and after its fork(). Other handlers that
/// run meanwhile may use the library: they pass the locks that this thread has taken.
[[gnu::tls_model("initial-exec")]] constinit thread_local bool is_forking = false;

void initialize_recursive(pthread_mutex_t& mutex)
{
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

/// Holds the lists' mutex, which a thread that is forking has already: other handlers of its fork()
/// may make locks.
class list_section_t {
public:
    list_section_t() noexcept
    {
        if (!is_forking)
            pthread_mutex_lock(&list_mutex);
    }
    ~list_section_t()
    {
        if (!is_forking)
            pthread_mutex_unlock(&list_mutex);
    }
    list_section_t(const list_section_t&) = delete;
    list_section_t& operator=(const list_section_t&) = delete;
};

listed_mutex_t* newest_immortal()
{
    const list_section_t section;
    return immortal_head;
}

void lock_all(listed_mutex_t* m)
{
    for (; m != nullptr; m = m->next)
        if (m->is_held_over_fork)
            pthread_mutex_lock(&m->mutex);
}

void unlock_all(listed_mutex_t* m)
{
    for (; m != nullptr; m = m->next)
        if (m->is_held_over_fork)
            pthread_mutex_unlock(&m->mutex);
}

// The list's own mutex comes last, because whoever holds one of the others may create a lock.
listed_mutex_t* lock_listed()
{
    listed_mutex_t* const newest = newest_immortal();
    lock_all(newest);
    pthread_mutex_lock(&list_mutex);
    return newest;
}

void unlock_listed(listed_mutex_t* newest)
{
    pthread_mutex_unlock(&list_mutex);
    unlock_all(newest);
}

void before_fork()
{
    listed_mutex_t* newest = lock_listed();
    // One that came meanwhile may be held by now, and is to be taken before the others.
    while (newest != immortal_head) {
        unlock_listed(newest);
        newest = lock_listed();
    }
    taken_head = newest;
    is_forking = true;
}

void after_fork_in_parent()
{
    is_forking = false;
    unlock_listed(taken_head);
}

void make_all_free(listed_mutex_t* m)
{
    for (; m != nullptr; m = m->next)
        initialize_recursive(m->mutex);
}

// The taken ones are made anew as well, because to a recursive mutex the child's thread is not the
// one that took it: unlocking fails. It is called for those tools that watch locks.
void after_fork_in_child()
{
    is_forking = false;
    unlock_listed(taken_head);
    make_all_free(owned_head);
    make_all_free(immortal_head);
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
    const list_section_t section;
    if (!fork_handlers_registered)
        fork_handlers_registered =
            pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child) == 0;
    if (!m.is_listed) {
        initialize_recursive(m.mutex);
        put_in_front(m.is_immortal ? immortal_head : owned_head, m);
        m.is_listed = true;
    }
}

listed_mutex_t& listed(mutex_t& m)
{
    return static_cast<listed_mutex_t&>(m);
}

void delist(listed_mutex_t& m)
{
    const list_section_t section;
    (m.previous != nullptr ? m.previous->next : owned_head) = m.next;
    if (m.next != nullptr)
        m.next->previous = m.previous;
}

}  // namespace

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
    pthread_mutex_destroy(&m.mutex);
    delete &m;
}

void CriticalSectionLock::lock_held_over_fork() const KVUTIL_NO_THREAD_SAFETY_ANALYSIS
{
    if (!is_forking)
        pthread_mutex_lock(&mutex_->mutex);
}

void CriticalSectionLock::unlock_held_over_fork() const KVUTIL_NO_THREAD_SAFETY_ANALYSIS
{
    if (!is_forking)
        pthread_mutex_unlock(&mutex_->mutex);
}

}  // namespace Kvl
