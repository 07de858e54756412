#ifndef TESTS_FOOTPRINT_H
#define TESTS_FOOTPRINT_H

#include <cstddef>
#include <filesystem>
#include <iterator>
#include <utility>

/// How many threads this process has.
inline std::ptrdiff_t threadCount() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
}

/// How many descriptors it has open.
inline std::ptrdiff_t descriptorCount() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

/// Both, threads first.
inline std::pair<std::ptrdiff_t, std::ptrdiff_t> footprint() {
    return {threadCount(), descriptorCount()};
}

#endif
