#include "message_buffer_impl.h"

#include <algorithm>
#include <limits>
#include <new>
#include <pthread.h>

namespace Log::MessageImpl {
namespace {

constexpr std::size_t FIRST_CAPACITY = 256;
/// A thread keeps no more than this from one message to the next.
constexpr std::size_t KEPT_CAPACITY = 64 * 1024;

struct thread_storage_t {
    storage_t storages[2];
    bool second_is_next = false;
    bool freed_at_end = false;
};

// Part of every thread's static storage, which is found without a call.
[[gnu::tls_model("initial-exec")]] constinit thread_local thread_storage_t g_thread;

constinit pthread_once_t g_key_once = PTHREAD_ONCE_INIT;
constinit pthread_key_t g_key = 0;
constinit bool g_key_exists = false;

void release(storage_t& storage)
{
    ::operator delete(storage.data);
    storage = storage_t();
}

// Runs at the end of a thread. A later message of the same thread starts afresh, and brings the
// thread here once more.
void release_thread(void* thread)
{
    auto& t = *static_cast<thread_storage_t*>(thread);
    release(t.storages[0]);
    release(t.storages[1]);
    t.freed_at_end = false;
}

void create_key()
{
    g_key_exists = pthread_key_create(&g_key, release_thread) == 0;
}

// A key rather than a thread_local destructor, because the run-time ends the process when it has
// no memory to note one. Without a key the memory of an ended thread is lost, nothing else.
void free_at_thread_end(thread_storage_t& t)
{
    pthread_once(&g_key_once, create_key);
    t.freed_at_end = g_key_exists && pthread_setspecific(g_key, &t) == 0;
}

}  // namespace

storage_t& next_storage()
{
    thread_storage_t& t = g_thread;
    if (!t.freed_at_end)
        free_at_thread_end(t);
    storage_t& storage = t.storages[t.second_is_next ? 1 : 0];
    if (storage.capacity > KEPT_CAPACITY)
        release(storage);
    return storage;
}

void keep_storage()
{
    g_thread.second_is_next = !g_thread.second_is_next;
}

void grow(storage_t& storage, std::size_t used, std::size_t size)
{
    constexpr std::size_t LARGEST = std::numeric_limits<std::ptrdiff_t>::max();
    if (size > LARGEST / 2 || used > LARGEST / 4)
        throw std::bad_alloc();
    const std::size_t capacity = std::max({FIRST_CAPACITY, used * 2, used + size});
    char* const data = static_cast<char*>(::operator new(capacity));
    if (used != 0)
        std::memcpy(data, storage.data, used);
    ::operator delete(storage.data);
    storage = {data, capacity};
}

}  // namespace Log::MessageImpl
