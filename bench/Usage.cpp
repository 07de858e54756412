#include "Usage.h"

#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace usage {

namespace {

std::size_t entries(const char* folder) {
    using Iterator = std::filesystem::directory_iterator;
    return static_cast<std::size_t>(std::distance(Iterator(folder), Iterator()));
}

double microseconds(const timeval& time) {
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_usec);
}

}  // namespace

double cpuMicroseconds() {
    rusage used{};
    ::getrusage(RUSAGE_SELF, &used);
    return microseconds(used.ru_utime) + microseconds(used.ru_stime);
}

double wallMicroseconds() {
    using std::chrono::steady_clock;
    return std::chrono::duration<double, std::micro>(steady_clock::now().time_since_epoch()).count();
}

double residentKiB() {
    std::ifstream statm("/proc/self/statm");
    double total = 0;
    double resident = 0;
    statm >> total >> resident;
    return resident * static_cast<double>(::sysconf(_SC_PAGESIZE)) / 1024;
}

std::size_t threads() {
    return entries("/proc/self/task");
}

std::size_t descriptors() {
    return entries("/proc/self/fd");
}

void allowManyDescriptors() {
    rlimit files{};
    ::getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &files);
}

}  // namespace usage
