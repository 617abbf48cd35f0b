#include "critsec_lock_impl.h"

namespace Kvl {
namespace {

using CriticalSectionImpl::mutex_t;

/// Guards the lists and their links.
constinit pthread_mutex_t list_mutex = PTHREAD_MUTEX_INITIALIZER;
constinit mutex_t* owned_head = nullptr;
/// Newest first; never shortened, so that it can be walked from any of its elements.
constinit mutex_t* immortal_head = nullptr;
/// From where on the forking thread has taken the immortal ones.
constinit mutex_t* taken_head = nullptr;
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

bool passes(const mutex_t& m)
{
    return m.is_held_over_fork && is_forking;
}

mutex_t* newest_immortal()
{
    pthread_mutex_lock(&list_mutex);
    mutex_t* const newest = immortal_head;
    pthread_mutex_unlock(&list_mutex);
    return newest;
}

// The list's own mutex comes last, because whoever holds one of the others may create a lock.
void before_fork()
{
    mutex_t* const newest = newest_immortal();
    for (mutex_t* m = newest; m != nullptr; m = m->next)
        if (m->is_held_over_fork)
            pthread_mutex_lock(&m->mutex);
    pthread_mutex_lock(&list_mutex);
    taken_head = newest;
    is_forking = true;
}

void unlock_taken()
{
    mutex_t* const newest = taken_head;
    pthread_mutex_unlock(&list_mutex);
    for (mutex_t* m = newest; m != nullptr; m = m->next)
        if (m->is_held_over_fork)
            pthread_mutex_unlock(&m->mutex);
}

void after_fork_in_parent()
{
    is_forking = false;
    unlock_taken();
}

void make_all_free(mutex_t* m)
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

void put_in_front(mutex_t*& head, mutex_t& m)
{
    m.next = head;
    if (head != nullptr)
        head->previous = &m;
    head = &m;
}

// An immortal one comes here again with every further lock that refers to it.
void enlist(mutex_t& m)
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

void delist(mutex_t& m)
{
    pthread_mutex_lock(&list_mutex);
    (m.previous != nullptr ? m.previous->next : owned_head) = m.next;
    if (m.next != nullptr)
        m.next->previous = m.previous;
    pthread_mutex_unlock(&list_mutex);
}

}  // namespace

CriticalSectionLock::CriticalSectionLock() : mutex_(new mutex_t)
{
    enlist(*mutex_);
}

CriticalSectionLock::CriticalSectionLock(mutex_t& immortal) noexcept : mutex_(&immortal)
{
    enlist(*mutex_);
}

CriticalSectionLock::~CriticalSectionLock()
{
    if (mutex_->is_immortal)
        return;
    delist(*mutex_);
    pthread_mutex_destroy(&mutex_->mutex);
    delete mutex_;
}

// clang's analysis sees a capability, not the mutex behind it.
void CriticalSectionLock::lock() const KVUTIL_NO_THREAD_SAFETY_ANALYSIS
{
    if (!passes(*mutex_))
        pthread_mutex_lock(&mutex_->mutex);
}

void CriticalSectionLock::unlock() const KVUTIL_NO_THREAD_SAFETY_ANALYSIS
{
    if (!passes(*mutex_))
        pthread_mutex_unlock(&mutex_->mutex);
}

}  // namespace Kvl
