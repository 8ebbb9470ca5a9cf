// Preloaded into a program under test: while the file exists that FAST_CLOCK names, its monotonic clock and its waits
// for descriptors run fifty times as fast. What waits by the clock for a silent server is soon through with it; before
// and behind, the program has all the time that a loaded machine needs. The installed program knows nothing of this.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <dlfcn.h>
#include <mutex>
#include <poll.h>
#include <unistd.h>

namespace {

constexpr int kSpeed = 50;
constexpr std::int64_t kNanoseconds = 1'000'000'000;

std::mutex guard;
std::int64_t seen_last = 0; ///< the machine's clock in nanoseconds, guarded
std::int64_t ahead = 0;     ///< of the machine's clock, in nanoseconds; never less than before. Guarded.

int real_time(clockid_t clock, timespec *time) {
    static const auto real = reinterpret_cast<int (*)(clockid_t, timespec *)>(dlsym(RTLD_NEXT, "clock_gettime"));
    return real(clock, time);
}

std::int64_t nanoseconds(const timespec &time) { return time.tv_sec * kNanoseconds + time.tv_nsec; }

bool is_fast() {
    const char *file = std::getenv("FAST_CLOCK");
    return file != nullptr && access(file, F_OK) == 0;
}

/// How far the program's clock is ahead at this moment.
std::int64_t get_ahead() {
    timespec time{};
    real_time(CLOCK_MONOTONIC, &time);
    const bool fast = is_fast();
    const std::lock_guard lock(guard);
    const std::int64_t now = std::max(nanoseconds(time), seen_last);
    if (fast && seen_last > 0) ahead += (now - seen_last) * (kSpeed - 1);
    seen_last = now;
    return ahead;
}

bool is_monotonic(clockid_t clock) {
    return clock == CLOCK_MONOTONIC || clock == CLOCK_MONOTONIC_COARSE || clock == CLOCK_MONOTONIC_RAW;
}

} // namespace

extern "C" {

int clock_gettime(clockid_t clock, timespec *time) noexcept {
    const int result = real_time(clock, time);
    if (result != 0 || !is_monotonic(clock)) return result;
    const std::int64_t fast = nanoseconds(*time) + get_ahead();
    time->tv_sec = fast / kNanoseconds;
    time->tv_nsec = fast % kNanoseconds;
    return 0;
}

int poll(pollfd *descriptors, nfds_t count, int milliseconds) {
    static const auto real = reinterpret_cast<int (*)(pollfd *, nfds_t, int)>(dlsym(RTLD_NEXT, "poll"));
    const bool shorter = milliseconds > 0 && is_fast();
    return real(descriptors, count, shorter ? std::max(milliseconds / kSpeed, 1) : milliseconds);
}
}
