#include "number.h"
#include "tsbackup.h"
#include "tsbackup/log.h"
#include "tsbackup/owners.h"
#include "tsbackup/paths.h"
#include "wait.h"

#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace tsbackup {

namespace {

/// The process id at the start of a PID file's content, 0 when it holds no positive number. Zero and negative numbers
/// mean whole groups to kill(), so they must never count as a process.
pid_t process_in(const char *content) {
    const std::optional<long> number = leading_number(content);
    return number && *number > 0 && *number <= INT_MAX ? static_cast<pid_t>(*number) : 0;
}

/// Reads up to 255 bytes as a text; empty when nothing can be read.
std::string read_start(int fd) {
    std::array<char, 255> content{};
    const ssize_t got = read(fd, content.data(), content.size());
    return {content.data(), got > 0 ? static_cast<std::size_t>(got) : 0};
}

void write_own_group(int fd) {
    const std::string text = std::to_string(getpgrp());
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t written = write(fd, text.data() + done, text.size() - done);
        if (written >= 0) {
            done += static_cast<std::size_t>(written);
        } else if (errno == EAGAIN) {
            wait_seconds(1);
        } else {
            TSBACKUP_LOG(level::error, "Error from write(). errno=%d\n", errno);
            return;
        }
    }
}

} // namespace

std::int32_t pid_file_claim(std::int32_t job_id) {
    if (job_id < 0) return -1;
    const std::string path = paths::pid_file(job_id);

    const UniqueFd file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (!file) {
        TSBACKUP_LOG(level::debug, "Cannot open %s errno=%d\n", path.c_str(), errno);
        return -2;
    }
    if (lockf(file.get(), F_TLOCK, 0) != 0) {
        TSBACKUP_LOG(level::debug, "Cannot lock %s errno=%d\n", path.c_str(), errno);
        return -3;
    }

    const std::string content = read_start(file.get());
    if (!content.empty()) {
        const pid_t holder = process_in(content.c_str());
        // Kept: a process that may not be signalled counts as alive here and as gone in pid_file_read. Claimants rely
        // on the one, the canceller on the other.
        if (holder > 0 && (kill(holder, 0) == 0 || errno != ESRCH)) {
            // The wording of a lock failure is kept for this unlock: log watchers look for it.
            if (lockf(file.get(), F_ULOCK, 0) != 0)
                TSBACKUP_LOG(level::error, "Cannot lock pidfile (%s) errno=%d\n", path.c_str(), errno);
            return holder;
        }
        if (lseek(file.get(), 0, SEEK_SET) < 0) {
            TSBACKUP_LOG(level::error, "lseek() failed. errno=%d\n", errno);
            return -1;
        }
    }

    if (ftruncate(file.get(), 0) != 0) TSBACKUP_LOG(level::error, "Fail truncate(%s)\n", path.c_str());
    write_own_group(file.get());
    if (lockf(file.get(), F_ULOCK, 0) != 0) TSBACKUP_LOG(level::error, "Cannot unlock. errno=%d\n", errno);
    return 0;
}

pid_t pid_file_read(std::int32_t job_id) {
    if (job_id < 0) return -1;
    const UniqueFd file(open(paths::pid_file(job_id).c_str(), O_RDONLY | O_CLOEXEC));
    if (!file) return 0;
    const pid_t holder = process_in(read_start(file.get()).c_str());
    return holder > 0 && kill(holder, 0) == 0 ? holder : 0;
}

} // namespace tsbackup
