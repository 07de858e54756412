#ifndef BENCH_USAGE_H
#define BENCH_USAGE_H

#include <cstddef>

/// What this process uses of the machine.
namespace usage {

/// CPU time of all threads, user and system (getrusage), in microseconds.
double cpuMicroseconds();

/// Wall clock since some moment, in microseconds.
double wallMicroseconds();

/// Resident memory in KiB.
double residentKiB();

std::size_t threads();
std::size_t descriptors();

/// Allows as many descriptors as the system permits.
void allowManyDescriptors();

}  // namespace usage

#endif
