#include "number.h"
#include "tsbackup.h"
#include "tsbackup/log.h"
#include "tsbackup/owners.h"
#include "tsbackup/paths.h"
#include "tsbackup_utils.h"

#include <array>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace tsbackup {

namespace {

struct Interval {
    const char *keyword;
    std::int64_t seconds;
};

constexpr char kAlways[] = "EVERY_TIME";
constexpr char kOnce[] = "FIRST_TIME";
constexpr char kNever[] = "NEVER";

// Each is 599 seconds short of whole weeks, and kept so: a schedule that drifts by minutes still gets its full run.
constexpr Interval kIntervals[] = {
    {"EVERY_WEEK", 604201},
    {"EVERY_2_WEEKS", 1209001},
    {"EVERY_3_WEEKS", 1813801},
    {"EVERY_4_WEEKS", 2418601},
};

/// Start of the job's last full run, 0: never.
std::int32_t last_full_time(std::int32_t job_id) {
    const UniqueFd file(open(paths::last_full_record(job_id).c_str(), O_RDONLY | O_CLOEXEC));
    if (!file) return 0;
    std::array<char, 64> content{};
    if (read(file.get(), content.data(), content.size() - 1) <= 0) return 0;
    return static_cast<std::int32_t>(leading_number(content.data()).value_or(0));
}

bool is_full(const char *keyword, std::int32_t start_time, std::int32_t last_full) {
    if (std::strcmp(keyword, kAlways) == 0) return true;
    if (std::strcmp(keyword, kOnce) == 0) return last_full == 0;
    if (std::strcmp(keyword, kNever) == 0) return false;
    const std::int64_t elapsed = std::int64_t{start_time} - last_full;
    for (const Interval &interval : kIntervals)
        if (std::strcmp(keyword, interval.keyword) == 0) return elapsed >= interval.seconds;
    TSBACKUP_LOG(level::error, "Unknown full_backup_freq=%s\n", keyword);
    return true;
}

} // namespace

bool full_policy_knows(const char *keyword) {
    for (const char *known : {kAlways, kOnce, kNever})
        if (std::strcmp(keyword, known) == 0) return true;
    for (const Interval &interval : kIntervals)
        if (std::strcmp(keyword, interval.keyword) == 0) return true;
    return false;
}

int full_policy_decide(const BackupJob &job, BackupRun &run) {
    const std::int32_t last_full = last_full_time(run.job_id);
    run.full = is_full(text_or_empty(job.opt_full_backup_freq), run.start_time, last_full) ? 1 : 0;
    return 0;
}

} // namespace tsbackup
