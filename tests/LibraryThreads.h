#ifndef TESTS_LIBRARYTHREADS_H
#define TESTS_LIBRARYTHREADS_H

#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <utility>

// Tells the library's threads from those of the test and of the simulator, and has the system refuse them.
// For one source file of a program.

/// Whether what runs on this thread is the library. A test says so around its calls, and the threads that are
/// started meanwhile inherit it.
inline thread_local bool inLibrary = false;

class LibraryScope {
public:
    explicit LibraryScope(bool inside) : _before(std::exchange(inLibrary, inside)) {}
    ~LibraryScope() { inLibrary = _before; }
    LibraryScope(const LibraryScope&) = delete;
    LibraryScope& operator=(const LibraryScope&) = delete;

private:
    const bool _before;
};

/// How many of the threads that the library starts next are refused.
inline std::atomic<int> threadsToRefuse{0};

/// Stands before the system's, or a sanitizer's, for the whole process.
extern "C" __attribute__((visibility("default"))) int pthread_create(pthread_t* thread,
                                                                     const pthread_attr_t* attributes,
                                                                     void* (*body)(void*),
                                                                     void* argument) noexcept {
    using Start = std::pair<void* (*)(void*), void*>;
    static const auto next = reinterpret_cast<decltype(&pthread_create)>(dlsym(RTLD_NEXT, "pthread_create"));
    if (!inLibrary) return next(thread, attributes, body, argument);
    int left = threadsToRefuse;
    while (left > 0)
        if (threadsToRefuse.compare_exchange_weak(left, left - 1)) return EAGAIN;
    const LibraryScope outside(false);
    auto start = std::make_unique<Start>(body, argument);
    const auto begin = [](void* given) {
        const std::unique_ptr<Start> owned(static_cast<Start*>(given));
        inLibrary = true;
        return owned->first(owned->second);
    };
    const int error = next(thread, attributes, begin, start.get());
    if (error == 0) static_cast<void>(start.release());
    return error;
}

#endif
