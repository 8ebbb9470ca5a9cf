// The books of a job: its history, its kept copy log, the record of its last full run.

#include "tsbackup_utils.h"

#include "tsbackup/log.h"
#include "tsbackup/owners.h"
#include "tsbackup/paths.h"
#include "write_all.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tsbackup {

namespace {

constexpr std::size_t kLogLineSize = 4095;      ///< a longer line counts as several
constexpr std::size_t kTailLines = 10;          ///< kept from the end of a log that is over its cap
constexpr std::size_t kCopyBlock = 64UL * 1024; ///< largest piece of a file copy

bool is_remote(const JobText &type) { return type == "remote"; }

const char *protocol(const BackupJob &job) {
    if (is_remote(job.src_type)) return text_or_empty(job.src_share_proto);
    if (is_remote(job.dst_type)) return text_or_empty(job.dst_share_proto);
    return "local";
}

void write_history_entry(std::FILE *history, const BackupJob &job, const BackupRun &run) {
    std::fprintf(history, "name: %s\n", text_or_empty(job.name));
    if (run.full >= 0) std::fprintf(history, "full: %s\n", run.full != 0 ? "yes" : "no");
    std::fprintf(history, "proto: %s\n", protocol(job));
    std::fprintf(history, "src: [%s:%s]/%s\n", text_or_empty(job.src_type), text_or_empty(job.src_share_proto),
                 text_or_empty(job.src_path));
    std::fprintf(history, "dst: [%s:%s]/%s\n", text_or_empty(job.dst_type), text_or_empty(job.dst_share_proto),
                 text_or_empty(job.dst_path));
    std::fprintf(history, "start: %d\n", run.start_time);
    std::fprintf(history, "finish: %d\n", static_cast<std::int32_t>(std::time(nullptr)));
    std::fprintf(history, "status: %d\n", run.error_code);
    std::fputs("log:\n", history);
}

/// False when the scratch file cannot be opened. What an interrupted run left in it stays in front.
bool start_new_history(const std::string &scratch, const BackupJob &job, const BackupRun &run) {
    const UniqueFile file(std::fopen(scratch.c_str(), "ae"));
    if (!file) return false;
    write_history_entry(file.get(), job, run);
    return true;
}

std::int64_t file_size(const std::string &path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? status.st_size : 0;
}

/// Puts the older entries behind the new one and the whole in the history's place. On a full disk the older entries
/// stay where they are, and the new one waits in the scratch file for the next run.
void complete_history(const std::string &history, const std::string &scratch) {
    const std::int64_t entry_size = file_size(scratch);
    const std::int64_t older_size =
        std::max<std::int64_t>(copy_file_keep_times(history.c_str(), scratch.c_str(), true), 0);
    if (file_size(scratch) >= entry_size + older_size)
        std::rename(scratch.c_str(), history.c_str());
    else
        static_cast<void>(truncate(scratch.c_str(), entry_size));
}

void record_last_full(std::int32_t job_id, std::int32_t start_time) {
    const UniqueFile file(std::fopen(paths::last_full_record(job_id).c_str(), "we"));
    if (file) std::fprintf(file.get(), "%d\n", start_time);
}

/// Reads up to and with the next newline, at most kLogLineSize - 1 bytes of any value. 0 at the end.
std::size_t read_log_line(std::FILE *file, std::array<char, kLogLineSize> &line) {
    std::size_t length = 0;
    while (length < line.size() - 1) {
        const int character = getc_unlocked(file);
        if (character == EOF) break;
        line[length++] = static_cast<char>(character);
        if (character == '\n') break;
    }
    return length;
}

/// Where the last lines behind a log's cap start.
struct SurplusLines {
    std::int64_t count = 0;
    std::array<off_t, kTailLines> starts{}; ///< a ring; 0: nothing recorded

    void add(off_t start) { starts[static_cast<std::size_t>(count++) % kTailLines] = start; }

    /// Kept as it is: a line at the very start of the file, which only a cap of 0 makes surplus, counts as not
    /// recorded and is never kept. 0 when nothing is recorded.
    off_t oldest() const {
        for (std::size_t i = 0; i < kTailLines; ++i) {
            const off_t start = starts[(static_cast<std::size_t>(count) + i) % kTailLines];
            if (start != 0) return start;
        }
        return 0;
    }
};

void copy_from(std::FILE *in, off_t start, std::FILE *out) {
    if (fseeko(in, start, SEEK_SET) != 0) return;
    std::array<char, 16UL * 1024> block;
    std::size_t got = 0;
    while ((got = std::fread(block.data(), 1, block.size(), in)) > 0) {
        if (std::fwrite(block.data(), 1, got, out) != got) return;
    }
}

std::int64_t size_of(std::FILE *file) {
    std::fflush(file);
    struct stat status {};
    return fstat(fileno(file), &status) == 0 ? status.st_size : -1;
}

/// Copies `size` bytes, fewer when the source ends or either side fails.
void copy_bytes(int in, int out, off_t size) {
    std::array<char, kCopyBlock> block;
    while (size > 0) {
        const std::size_t wanted = std::min(block.size(), static_cast<std::size_t>(size));
        const ssize_t got = read(in, block.data(), wanted);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0 || !write_all(out, block.data(), static_cast<std::size_t>(got))) return;
        size -= got;
    }
}

} // namespace

std::int64_t ts_copy_file_truncate(const char *src, const char *dst, std::int32_t max_lines) {
    static constexpr char name[] = "ts_copy_file_truncate";

    const UniqueFile in(std::fopen(src, "re"));
    if (!in) return -1;
    const UniqueFile out(std::fopen(dst, "we"));
    if (!out) return -1;

    SurplusLines surplus;
    std::int64_t lines = 0;
    off_t offset = 0;
    std::array<char, kLogLineSize> line;
    while (const std::size_t length = read_log_line(in.get(), line)) {
        ++lines;
        if (lines <= max_lines)
            std::fwrite(line.data(), 1, length, out.get());
        else
            surplus.add(offset);
        offset += static_cast<off_t>(length);
    }
    TSBACKUP_LOG(level::info, "%s: n_line = %" PRId64 ", n_truncated = %" PRId64 "\n", name, lines, surplus.count);

    const std::int64_t dropped = surplus.count - static_cast<std::int64_t>(kTailLines);
    if (dropped > 0) {
        std::fprintf(out.get(), "BACKUP_INFO_LOG_TRUNCATED:%" PRId64 "\n", dropped);
        TSBACKUP_LOG(level::info, "%s: BACKUP_INFO_LOG_TRUNCATED = %" PRId64 "\n", name, dropped);
    }
    if (const off_t tail = surplus.oldest(); tail != 0) copy_from(in.get(), tail, out.get());
    return size_of(out.get());
}

void purge_copy_logs(std::int32_t job_id, const char *keep) {
    const UniqueDir folder(opendir(paths::log_folder));
    if (!folder) return;

    const std::string prefix = paths::kept_copy_log_prefix(job_id);
    const char *slash = std::strrchr(keep, '/');
    const std::string_view kept_name = slash != nullptr ? slash + 1 : keep;
    while (const dirent *entry = readdir(folder.get())) {
        const std::string_view name = entry->d_name;
        if (entry->d_type == DT_REG && name.starts_with(prefix) && name != kept_name)
            unlinkat(dirfd(folder.get()), entry->d_name, 0);
    }
}

std::int64_t copy_file_keep_times(const char *src, const char *dst, bool append) {
    UniqueFd in(open(src, O_RDONLY | O_CLOEXEC));
    if (!in) return -1;
    UniqueFd out(open(dst, (append ? O_RDWR | O_APPEND : O_WRONLY) | O_CREAT | O_CLOEXEC, 0644));
    if (!out) return -1;
    struct stat status {};
    if (fstat(in.get(), &status) != 0) return -1;

    copy_bytes(in.get(), out.get(), status.st_size);
    in.reset();
    out.reset();

    const std::array<timespec, 2> times = {timespec{status.st_atim.tv_sec, 0}, timespec{status.st_mtim.tv_sec, 0}};
    utimensat(AT_FDCWD, dst, times.data(), 0);
    return status.st_size;
}

void backup_log_finish(const BackupJob &job, const BackupRun &run) {
    const std::string scratch = paths::history_scratch(job.job_id);
    if (!start_new_history(scratch, job, run)) return;
    complete_history(paths::history(job.job_id), scratch);

    const std::string copy_log = paths::copy_log(job.job_id);
    const std::string kept_log = paths::kept_copy_log(job.job_id, run.start_time);
    ts_copy_file_truncate(copy_log.c_str(), kept_log.c_str(), decimal_value(job.opt_max_log_lines));
    purge_copy_logs(job.job_id, kept_log.c_str());
    unlink(copy_log.c_str());

    // A run that was never decided full or incremental counts as full here. Kept: the next run's policy relies on it.
    if (run.full != 0) record_last_full(job.job_id, run.start_time);
}

} // namespace tsbackup
