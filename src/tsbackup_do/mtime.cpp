#include "tsbackup_do.h"

namespace tsbackup {

namespace {

constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;

std::uint64_t in_units(const timespec &time, std::int32_t resolution_ns) {
    const std::uint64_t nanoseconds =
        static_cast<std::uint64_t>(time.tv_sec) * kNanosecondsPerSecond + static_cast<std::uint64_t>(time.tv_nsec);
    return nanoseconds / static_cast<std::uint64_t>(resolution_ns);
}

} // namespace

// The tolerance of a coarse destination is lopsided, and kept so: network servers cut a time down to the second or
// the even second below it, and hardly ever round it up.
int mtime_compare(const struct stat &src, const struct stat &dst, std::int32_t resolution_ns, std::int32_t coarse) {
    const auto difference =
        static_cast<std::int64_t>(in_units(src.st_mtim, resolution_ns) - in_units(dst.st_mtim, resolution_ns));
    if (difference == 0) return 0;
    const bool tolerant = coarse != 0 && dst.st_mtim.tv_nsec == 0;
    if (difference > 0) return tolerant && difference < kNanosecondsPerSecond / resolution_ns ? 0 : 1;
    return tolerant && difference > -2 * kNanosecondsPerSecond / resolution_ns ? 0 : -1;
}

} // namespace tsbackup
