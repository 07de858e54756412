#ifndef TESTS_REFUSEDTHREADS_H
#define TESTS_REFUSEDTHREADS_H

#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>

/// So many of the next threads the system refuses to this program. To be included once in a program, whose
/// pthread_create() then stands before the system's.
inline std::atomic<int> refusedThreads{0};

extern "C" __attribute__((visibility("default"))) int pthread_create(pthread_t* thread,
                                                                     const pthread_attr_t* attributes,
                                                                     void* (*body)(void*),
                                                                     void* argument) noexcept {
    for (int left = refusedThreads; left > 0;)
        if (refusedThreads.compare_exchange_weak(left, left - 1)) return EAGAIN;
    static const auto create =
        reinterpret_cast<decltype(&pthread_create)>(::dlsym(RTLD_NEXT, "pthread_create"));
    return create(thread, attributes, body, argument);
}

#endif
