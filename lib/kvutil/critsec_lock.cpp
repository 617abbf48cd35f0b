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

listed_mutex_t* newest_immortal()
{
    pthread_mutex_lock(&list_mutex);
    listed_mutex_t* const newest = immortal_head;
    pthread_mutex_unlock(&list_mutex);
    return newest;
}

// The list's own mutex comes last, because whoever holds one of the others may create a lock.
void before_fork()
{
    listed_mutex_t* const newest = newest_immortal();
    for (listed_mutex_t* m = newest; m != nullptr; m = m->next)
        if (m->is_held_over_fork)
            pthread_mutex_lock(&m->mutex);
    pthread_mutex_lock(&list_mutex);
    taken_head = newest;
    is_forking = true;
}

void unlock_taken()
{
    listed_mutex_t* const newest = taken_head;
    pthread_mutex_unlock(&list_mutex);
    for (listed_mutex_t* m = newest; m != nullptr; m = m->next)
        if (m->is_held_over_fork)
            pthread_mutex_unlock(&m->mutex);
}

void after_fork_in_parent()
{
    is_forking = false;
    unlock_taken();
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
    unlock_taken();
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
    pthread_mutex_lock(&list_mutex);
    if (!fork_handlers_registered)
        fork_handlers_registered =
            pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child) == 0;
    if (!m.is_listed) {
        initialize_recursive(m.mutex);
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
