#include <kvutil/critsec_lock.h>

namespace Kvl {

namespace CriticalSectionImpl {

/// A mutex and its place in the list of all, which the child of a fork() walks.
struct mutex_t {
    pthread_mutex_t mutex{};
    mutex_t* next = nullptr;
    mutex_t* previous = nullptr;
};

}  // namespace CriticalSectionImpl

namespace {

using CriticalSectionImpl::mutex_t;

constinit pthread_mutex_t list_mutex = PTHREAD_MUTEX_INITIALIZER;
constinit mutex_t* list_head = nullptr;
constinit bool fork_handlers_registered = false;

void initialize_recursive(pthread_mutex_t& mutex)
{
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

// The list is held over the fork, so that the child never finds it half changed.
void before_fork()
{
    pthread_mutex_lock(&list_mutex);
}

void after_fork_in_parent()
{
    pthread_mutex_unlock(&list_mutex);
}

void after_fork_in_child()
{
    for (mutex_t* m = list_head; m != nullptr; m = m->next)
        initialize_recursive(m->mutex);
    pthread_mutex_init(&list_mutex, nullptr);
}

void enlist(mutex_t& m)
{
    pthread_mutex_lock(&list_mutex);
    if (!fork_handlers_registered)
        fork_handlers_registered =
            pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child) == 0;
    m.next = list_head;
    if (list_head != nullptr)
        list_head->previous = &m;
    list_head = &m;
    pthread_mutex_unlock(&list_mutex);
}

void delist(mutex_t& m)
{
    pthread_mutex_lock(&list_mutex);
    (m.previous != nullptr ? m.previous->next : list_head) = m.next;
    if (m.next != nullptr)
        m.next->previous = m.previous;
    pthread_mutex_unlock(&list_mutex);
}

}  // namespace

CriticalSectionLock::CriticalSectionLock() : mutex_(new mutex_t)
{
    initialize_recursive(mutex_->mutex);
    enlist(*mutex_);
}

CriticalSectionLock::~CriticalSectionLock()
{
    delist(*mutex_);
    pthread_mutex_destroy(&mutex_->mutex);
    delete mutex_;
}

// clang's analysis sees a capability, not the mutex behind it.
void CriticalSectionLock::lock() const KVUTIL_NO_THREAD_SAFETY_ANALYSIS
{
    pthread_mutex_lock(&mutex_->mutex);
}

void CriticalSectionLock::unlock() const KVUTIL_NO_THREAD_SAFETY_ANALYSIS
{
    pthread_mutex_unlock(&mutex_->mutex);
}

}  // namespace Kvl
