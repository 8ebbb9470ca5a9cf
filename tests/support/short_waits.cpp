// Preloaded into a program under test: every wait of its own lasts a hundredth of what it asked for, a wait of an hour
// or more for data (three hours of a silent rsync) a second for three hours. A line with the seconds of each wait that
// passed goes to the file that SHORT_WAITS_LOG names. The installed program knows nothing of this.

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <sys/select.h>
#include <unistd.h>

namespace {

constexpr double kShortening = 100;
constexpr double kDataShortening = 10800;
constexpr double kLongWaitForData = 3600;

timespec duration(double seconds) {
    timespec wait{};
    wait.tv_sec = static_cast<time_t>(seconds);
    wait.tv_nsec = static_cast<long>((seconds - static_cast<double>(wait.tv_sec)) * 1e9);
    return wait;
}

void note(double seconds) {
    const char *log = std::getenv("SHORT_WAITS_LOG");
    if (log != nullptr) {
        if (std::FILE *file = std::fopen(log, "ae")) {
            std::fprintf(file, "%.6f\n", seconds);
            std::fclose(file);
        }
    }
}

void wait_shortened(double seconds) {
    note(seconds);
    const timespec wait = duration(seconds / kShortening);
    clock_nanosleep(CLOCK_MONOTONIC, 0, &wait, nullptr);
}

} // namespace

extern "C" {

unsigned int sleep(unsigned int seconds) {
    wait_shortened(seconds);
    return 0;
}

int usleep(useconds_t microseconds) {
    wait_shortened(microseconds / 1e6);
    return 0;
}

int select(int count, fd_set *readable, fd_set *writable, fd_set *exceptional, timeval *limit) {
    if (limit == nullptr) return pselect(count, readable, writable, exceptional, nullptr, nullptr);
    const double seconds = static_cast<double>(limit->tv_sec) + static_cast<double>(limit->tv_usec) / 1e6;
    const bool shortened = seconds >= kLongWaitForData;
    const timespec wait = duration(shortened ? seconds / kDataShortening : seconds);
    const int result = pselect(count, readable, writable, exceptional, &wait, nullptr);
    if (result == 0 && shortened) note(seconds);
    return result;
}
}
