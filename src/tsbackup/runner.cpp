#include "run_start.h"
#include "tsbackup.h"
#include "tsbackup/codes.h"
#include "tsbackup/log.h"
#include "tsbackup/owners.h"
#include "tsbackup/paths.h"
#include "tsbackup_local.h"
#include "tsbackup_utils.h"
#include "wait.h"
#include "zelkova.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace tsbackup {

namespace {

/// Hardware with a card slot, whose button copies an SD card when no jobs are configured for it.
constexpr int kHardwareWithCardSlot = 23;

/// Owner and group of a copied tree when its folder cannot be examined.
constexpr int kFallbackOwner = 98;

void sleep_minutes(std::int32_t minutes) {
    unsigned left = std::min(static_cast<unsigned>(minutes), UINT_MAX / 60) * 60;
    while (left > 0)
        left = wait_seconds(left);
}

/// Wakes the remote machine of a job and waits for it as long as the job says. The job goes on in any case.
void wake_remote(const BackupJob &job, std::int32_t start_time) {
    if (!job.wol_addr || job.wol_addr->empty()) return;
    const int result = send_wol_packet(job.wol_addr->c_str());
    const std::int32_t minutes = decimal_value(job.time_to_wait);
    if (result == 0 && minutes > 0) {
        backup_status_write(job.job_id, BackupStatusCode::wol_waking, stamp(start_time), 0);
        sleep_minutes(minutes);
        return;
    }
    // Kept: this line also follows a packet that was sent when no wait is configured, with a result of 0.
    TSBACKUP_LOG(level::error, "Fail to send WOL packet. (rc:%d)\n", result);
}

/// The two logs of a run. While they are open, the run and the hang-up handler know them.
class RunLogs {
  public:
    explicit RunLogs(BackupRun &run) : run_(run) {}
    RunLogs(const RunLogs &) = delete;
    RunLogs &operator=(const RunLogs &) = delete;
    ~RunLogs() { close(); }

    /// False when one of them cannot be created; none is open then.
    bool open() {
        if (!create(copy_, "copy", paths::copy_log(run_.job_id))) return false;
        if (!create(error_, "error", paths::error_log(run_.job_id))) {
            copy_.reset();
            return false;
        }
        run_.copy_log = copy_.get();
        run_.error_log = error_.get();
        hangup_logs_set(run_.copy_log, run_.error_log);
        return true;
    }

    void close() {
        hangup_logs_set(-1, -1);
        run_.copy_log = -1;
        run_.error_log = -1;
        copy_.reset();
        error_.reset();
    }

  private:
    static bool create(UniqueFd &log, const char *kind, const std::string &path) {
        log.reset(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
        if (!log) TSBACKUP_LOG(level::error, "Failed to create %s log file %s!\n", kind, path.c_str());
        return static_cast<bool>(log);
    }

    BackupRun &run_;
    UniqueFd copy_;
    UniqueFd error_;
};

/// Who is to own the copied tree.
struct Ownership {
    std::string path;
    int owner = kFallbackOwner;
    int group = kFallbackOwner;
};

/// The hand-over of the copied tree to the owner of its folder, when the job asks for it. Resolving the destination
/// has its usual effects already here, ahead of the transfer.
std::optional<Ownership> ownership_wanted(const BackupJob &job, BackupRun &run) {
    if (job.opt_chown_to_share_owner != "1" || job.dst_type == "remote") return std::nullopt;
    const std::optional<std::string> path = local_path_resolve(job, run, Side::destination);
    if (!path) return std::nullopt;

    Ownership ownership{.path = *path};
    struct stat status {};
    if (stat(path->c_str(), &status) == 0) {
        ownership.owner = static_cast<int>(status.st_uid);
        ownership.group = static_cast<int>(status.st_gid);
    }
    return ownership;
}

void hand_over(const Ownership &ownership) {
    std::array<char, 1024> command{};
    // A path that does not fit would be cut to another one, a parent of the tree perhaps: then no command is run.
    str_snprintf_whole(command.data(), command.size(), "chown -R %d:%d %s", ownership.owner, ownership.group,
                       shell_word(ownership.path).c_str());
    int result = -1;
    if (command[0] == '\0')
        errno = ENAMETOOLONG;
    else
        result = backup_system(command.data());
    if (result != 0) TSBACKUP_LOG(level::error, "Chown error,the errono is %d\n", errno);
}

/// Whether one of the jobs shows a failed run.
bool any_failed(const std::vector<std::int32_t> &jobs) {
    return std::any_of(jobs.begin(), jobs.end(), [](std::int32_t job_id) {
        const std::optional<std::string> status = backup_status_read(job_id);
        return status && status->find("BACKUP_STATUS__FAILED") != std::string::npos;
    });
}

/// Job 0: what the button started, as one status and one event.
void button_summary() {
    const std::vector<std::int32_t> jobs = button_jobs_load();
    if (jobs.empty()) {
        struct sys_info info {};
        get_sys_info(&info);
        if (info.hardware_type == kHardwareWithCardSlot) sd_card_run(0);
        return;
    }

    const std::int32_t start_time = wall_clock();
    backup_status_write(0, BackupStatusCode::in_progress, stamp(start_time), 0);
    const bool failed = any_failed(jobs);
    backup_status_write(0, failed ? BackupStatusCode::failed : BackupStatusCode::completed, stamp(start_time), 0);
    event_button_summary(failed ? 1 : 0);
}

} // namespace

void job_entry(std::int32_t job_id) {
    if (job_id < 0) {
        TSBACKUP_LOG(level::error, "Invalid job_id %d\n", job_id);
        return;
    }
    if (pid_file_claim(job_id) != 0) {
        TSBACKUP_LOG(level::error, "Cannot write pidfile for job_id=%d. May be already running.\n", job_id);
        return;
    }
    if (job_id == 0)
        button_summary();
    else
        job_run(job_id, 0);
}

std::int32_t job_run(std::int32_t job_id, std::int32_t by_button) {
    const std::int32_t start_time = wall_clock();
    std::unique_ptr<BackupJob> job = backup_job_load(job_id);
    if (!job) {
        TSBACKUP_LOG(level::error, "Job_id %d is not found\n", job_id);
        return -1;
    }
    wake_remote(*job, start_time);

    BackupRun run;
    run.start_time = start_time;
    if (!run_clock_start(run)) {
        TSBACKUP_LOG(level::error, "Job_id %d clock_gettime failed!\n", job_id);
        return -1;
    }
    run.by_button = by_button;
    run.job_id = job_id;
    run_root_file_system_note(run);

    RunLogs logs(run);
    if (!logs.open()) return -1;

    const std::optional<Ownership> ownership = ownership_wanted(*job, run);
    full_policy_decide(*job, run);
    backup_status_write(job_id, BackupStatusCode::in_progress, stamp(start_time), run.full);
    do_backup(job.get(), &run);
    if (ownership) hand_over(*ownership);
    logs.close();

    backup_log_finish(*job, run);
    event_job_result(job_id, text_or_empty(job->name), run.error_code,
                     decimal_value(job->opt_email_this_to_alert_email), by_button);
    job.reset();
    backup_status_write(job_id, run.error_code != 0 ? BackupStatusCode::failed : BackupStatusCode::completed,
                        stamp(start_time), 0);
    return run.error_code;
}

} // namespace tsbackup
