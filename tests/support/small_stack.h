#ifndef KVUTIL_TESTS_SUPPORT_SMALL_STACK_H
#define KVUTIL_TESTS_SUPPORT_SMALL_STACK_H

#include <pthread.h>

#include <stdexcept>

/// Runs `operation` on a thread that has as much stack as any operation of the library may need.
/// A thread that needs more ends the program.
template <class Operation>
void on_small_stack(Operation operation)
{
    constexpr size_t size_bytes = 128 * 1024;
    const auto run = [](void* argument) -> void* {
        (*static_cast<Operation*>(argument))();
        return nullptr;
    };
    pthread_attr_t attributes;
    pthread_t thread;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, size_bytes);
    const int error = pthread_create(&thread, &attributes, run, &operation);
    pthread_attr_destroy(&attributes);
    if (error != 0)
        throw std::runtime_error("no thread");
    pthread_join(thread, nullptr);
}

#endif
