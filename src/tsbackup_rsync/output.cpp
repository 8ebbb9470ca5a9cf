#include "output.h"

#include "tsbackup/log.h"
#include "tsbackup/owners.h"
#include "tsbackup/paths.h"
#include "tsbackup_error.h"
#include "tsbackup_utils.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <sys/select.h>
#include <unistd.h>

namespace tsbackup {

namespace {

constexpr time_t kLongestSilence = 10800;
constexpr std::int32_t kNoCopyLog = -5;

/// Far longer than a name that rsync prints; a server that never ends its line must not use up the memory.
constexpr std::size_t kLongestLine = std::size_t{1} << 20;

struct ProgressFields {
    std::array<char, 61> bytes{};
    std::array<char, 61> percent{};
    std::array<char, 61> rate{};
    std::array<char, 61> time{};
};

bool read_fields(const std::string &line, ProgressFields &fields) {
    char *bytes = fields.bytes.data();
    char *percent = fields.percent.data();
    char *rate = fields.rate.data();
    char *time = fields.time.data();
    return std::sscanf(line.c_str(), "%*[ ]%60[^ ]%*[ ]%60[^ ]%*[ ]%60[^ ]%*[ ]%60[^ ]", bytes, percent, rate, time) ==
               4 ||
           std::sscanf(line.c_str(), "%60[^ ]%*[ ]%60[^ ]%*[ ]%60[^ ]%*[ ]%60[^ ]", bytes, percent, rate, time) == 4;
}

/// A server may claim any size.
std::int64_t saturating_sum(std::int64_t left, std::int64_t right) {
    std::int64_t sum = 0;
    return __builtin_add_overflow(left, right, &sum) ? std::numeric_limits<std::int64_t>::max() : sum;
}

/// Takes a progress line into the counters. False for any other line; `finishes` tells of a file's last one.
bool take_progress(RsyncOutput &output, const std::string &line, BackupRun &run, bool &finishes) {
    ProgressFields fields;
    if (line.find("B/s") == std::string::npos || !read_fields(line, fields)) return false;
    std::string bytes = fields.bytes.data();
    remove_char(bytes, ',');
    const bool digits = std::all_of(bytes.begin(), bytes.end(), [](char c) { return c >= '0' && c <= '9'; });
    if (!digits || std::strstr(fields.rate.data(), "B/s") == nullptr) return false;

    const std::int64_t count = std::strtoll(bytes.c_str(), nullptr, 10);
    finishes = std::strcmp(fields.percent.data(), "100%") == 0;
    if (finishes) {
        output.finished = saturating_sum(output.finished, count);
        output.in_progress = 0;
    } else {
        TSBACKUP_LOG(level::debug, "percent : %s", fields.percent.data());
        output.in_progress = count;
    }
    run.bytes = saturating_sum(output.finished, output.in_progress);
    backup_progress_record(&run, 1);
    return true;
}

void take_line(RsyncOutput &output, const std::string &line, BackupRun &run, std::string &kept) {
    bool finishes = false;
    if (take_progress(output, line, run, finishes) && !finishes) return;
    TSBACKUP_LOG(level::debug, "%s\n", line.c_str());
    kept += line;
    kept += '\n';
}

enum class Wait { readable, silent, failed };

Wait wait_for_output(int fd) {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(fd, &readable);
    timeval limit{kLongestSilence, 0};
    const int result = select(fd + 1, &readable, nullptr, nullptr, &limit);
    if (result > 0) return Wait::readable;
    if (result == 0) {
        TSBACKUP_LOG(level::error, "Can't read info from rsync log. retry rsync.\n");
        return Wait::silent;
    }
    TSBACKUP_LOG(level::error, "select return error %d\n", result);
    return Wait::failed;
}

/// Gives rsync, which writes a few words at a time, a moment to write more. Waking up for every word would cost a
/// transfer of small files a tenth of its time.
void let_output_gather() {
    constexpr timespec kMoment{0, 2'000'000};
    nanosleep(&kMoment, nullptr);
}

/// Follows the output until its end, a cancel or a long silence.
std::int32_t follow(RsyncOutput &output, BackupRun &run, int fd, std::FILE *copy_log) {
    bool drained = true;
    while (!backup_aborted()) {
        const Wait wait = wait_for_output(fd);
        if (wait == Wait::silent) return kExecCancelled;
        if (wait == Wait::failed) return 0;
        if (drained) let_output_gather();
        std::array<char, 1024> chunk{};
        const ssize_t got = read(fd, chunk.data(), chunk.size() - 1);
        if (got <= 0) return 0;
        drained = static_cast<std::size_t>(got) < chunk.size() - 1;
        TSBACKUP_LOG(level::debug, "%s", chunk.data());
        std::string kept;
        rsync_output_feed(output, {chunk.data(), static_cast<std::size_t>(got)}, run, kept);
        std::fwrite(kept.data(), 1, kept.size(), copy_log);
        std::fflush(copy_log);
    }
    return 0;
}

} // namespace

void rsync_output_feed(RsyncOutput &output, std::string_view chunk, BackupRun &run, std::string &kept) {
    std::string &line = output.carry_over;
    const auto ends_line = [](char character) { return character == '\n' || character == '\r'; };
    while (!chunk.empty()) {
        const auto *end = std::find_if(chunk.begin(), chunk.end(), ends_line);
        const std::size_t taken = std::min(static_cast<std::size_t>(end - chunk.begin()), kLongestLine - line.size());
        line.append(chunk.substr(0, taken));
        chunk.remove_prefix(taken);
        if (chunk.empty()) return;
        if (ends_line(chunk.front())) chunk.remove_prefix(1);
        take_line(output, line, run, kept);
        line.clear();
    }
}

std::int32_t _parse_output(BackupRun *run, int fd) {
    UniqueFile copy_log(std::fopen(paths::copy_log(run->job_id).c_str(), "w+e"));
    if (!copy_log) {
        TSBACKUP_LOG(level::error, "%s fopen outfile failed.\n", "_parse_output");
        return kNoCopyLog;
    }
    RsyncOutput output;
    const std::int32_t result = follow(output, *run, fd, copy_log.get());
    std::fwrite(output.carry_over.data(), 1, output.carry_over.size(), copy_log.get());
    backup_progress_record(run, 0);
    if (std::fclose(copy_log.release()) != 0)
        TSBACKUP_LOG(level::error, "%s fclose outfile failed.\n", "_parse_output");
    return result;
}

} // namespace tsbackup
