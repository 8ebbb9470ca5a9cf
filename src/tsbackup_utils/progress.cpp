// Progress of a running job: its rate, and the two lines that show it in the status file.

#include "tsbackup_utils.h"

#include "read_number.h"
#include "tsbackup/log.h"
#include "tsbackup/paths.h"
#include "zelkova.h"

#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace tsbackup {

namespace {
constexpr long kNanosecondsPerSecond = 1'000'000'000;
}

std::int64_t whole_seconds_between(const timespec &now, timespec &earlier) {
    if (now.tv_nsec < earlier.tv_nsec) {
        const long seconds = (earlier.tv_nsec - now.tv_nsec) / kNanosecondsPerSecond + 1;
        earlier.tv_nsec -= kNanosecondsPerSecond * seconds;
        earlier.tv_sec += seconds;
    }
    // Kept as it is: exactly one second apart is left so. The moments of a status file's writes depend on it.
    if (now.tv_nsec - earlier.tv_nsec > kNanosecondsPerSecond) {
        const long seconds = (now.tv_nsec - earlier.tv_nsec) / kNanosecondsPerSecond;
        earlier.tv_nsec += kNanosecondsPerSecond * seconds;
        earlier.tv_sec -= seconds;
    }
    return now.tv_sec - earlier.tv_sec;
}

void backup_progress_write(BackupRun *run) {
    if (run == nullptr) return;

    const std::string path = paths::status_file(run->job_id);
    const int fd = safe_open(path.c_str(), O_WRONLY | O_CREAT, 0644);
    if (fd < 0) {
        TSBACKUP_LOG(level::error, "Failed to open %s for write operation.\n", path.c_str());
        return;
    }

    std::array<char, 128> lines;
    const int length =
        std::snprintf(lines.data(), lines.size(), "BACKUP_STATUS__IN_PROGRESS,%d!!%d!!OK\n%d!!%d!!%" PRId64 "\n",
                      run->full, run->start_time, run->rate, run->elapsed, run->bytes);
    // One write for both lines, so that a reader never sees the rate of one moment under the state of another. A
    // failure is not reported: the next write shows the same totals.
    [[maybe_unused]] const ssize_t written = write(fd, lines.data(), static_cast<std::size_t>(length));

    // The misspelt word is what the readers of the diagnostics know.
    if (close(fd) != 0) TSBACKUP_LOG(level::error, "Failed to close file %s. errnor = %d\n", path.c_str(), errno);
}

std::optional<BackupProgress> backup_progress_parse(const std::string &line) {
    const std::vector<std::string> fields = str_split_all(line, "!!");
    BackupProgress progress;
    if (fields.size() != 3 || !read_number(fields[0], progress.rate) || !read_number(fields[1], progress.elapsed) ||
        !read_number(fields[2], progress.bytes))
        return std::nullopt;
    return progress;
}

void backup_progress_record(BackupRun *run, std::int32_t interval) {
    if (run == nullptr || run->clock_failed != 0) return;

    timespec now{};
    run->clock_failed = clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    if (run->clock_failed != 0) {
        TSBACKUP_LOG(level::error, "backup_progress_record clock_gettime failed !!!\n");
        return;
    }
    if (interval > 0 && whole_seconds_between(now, run->last_write) <= interval) return;

    run->last_write = now;
    const std::int64_t seconds = whole_seconds_between(now, run->started);
    if (seconds == 0) return;

    run->rate = static_cast<std::int32_t>(run->bytes / seconds);
    run->elapsed = static_cast<std::int32_t>(seconds);
    backup_progress_write(run);
}

} // namespace tsbackup
