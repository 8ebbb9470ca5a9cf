#include "tsbackup.h"
#include "tsbackup/log.h"
#include "tsbackup/owners.h"
#include "tsbackup/paths.h"
#include "tsbackup_utils.h"
#include "wait.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <optional>
#include <sstream>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace tsbackup {

namespace {

/// Whether the process group of a job's holder may be signalled. Group 1 would mean every process of the machine, and
/// a file that names this process is left over from a run that had the same number.
bool is_foreign_group(pid_t holder) { return holder > 1 && holder != getpgrp(); }

/// Whether signalling a process fails for another reason than that it is gone.
bool is_out_of_reach(pid_t pid) { return kill(pid, 0) != 0 && errno != ESRCH; }

/// A process. Its number alone may be another one's by the time it is looked at again.
struct Process {
    pid_t pid = -1;
    pid_t parent = -1;
    char state = 0;
    std::string start_time;

    bool operator==(const Process &other) const { return pid == other.pid && start_time == other.start_time; }
};

/// A process as the kernel shows it now; nothing when there is none, or only its exit status is left.
std::optional<Process> living_process(pid_t pid) {
    constexpr int kWordsBetween = 17; // between the parent and the start time
    const std::string path = "/proc/" + std::to_string(pid) + "/stat";
    const std::string line = read_first_line(path.c_str(), 1024).value_or("");
    const std::size_t name_end = line.rfind(") ");
    if (name_end == std::string::npos) return std::nullopt;
    std::istringstream words(line.substr(name_end + 2));
    Process process;
    process.pid = pid;
    words >> process.state >> process.parent;
    for (int count = 0; count <= kWordsBetween; ++count)
        words >> process.start_time;
    if (!words || process.state == 'Z' || process.state == 'X') return std::nullopt;
    return process;
}

std::vector<Process> living_processes() {
    std::vector<Process> found;
    const UniqueDir processes(opendir("/proc"));
    while (const dirent *entry = processes ? readdir(processes.get()) : nullptr) {
        const pid_t pid = decimal_value(entry->d_name);
        if (pid <= 0) continue;
        if (auto process = living_process(pid)) found.push_back(std::move(*process));
    }
    return found;
}

/// What a process has started, directly or not. A tool that runs under a time limit has a group of its own, which no
/// signal to the job's group reaches.
std::vector<Process> descendants_of(pid_t ancestor) {
    const std::vector<Process> all = living_processes();
    std::vector<Process> found;
    std::vector<pid_t> parents = {ancestor};
    while (!parents.empty()) {
        const pid_t parent = parents.back();
        parents.pop_back();
        for (const Process &process : all) {
            if (process.parent != parent) continue;
            found.push_back(process);
            parents.push_back(process.pid);
        }
    }
    return found;
}

bool is_living(const Process &process) { return living_process(process.pid) == process; }

/// Hangs a job up; what it had started until then.
std::vector<Process> stop_group(pid_t holder) {
    TSBACKUP_LOG(level::notice, "killpg(%d,SIGHUP)\n", holder);
    sync();
    std::vector<Process> started = descendants_of(holder);
    killpg(holder, SIGHUP);
    wait_seconds(1);

    // Kept with this sense: a job that outlives the hang-up is not signalled again, and the administration interface
    // shows it as cancelled all the same.
    if (is_out_of_reach(holder)) {
        killpg(holder, SIGKILL);
        wait_seconds(1);
        if (is_out_of_reach(holder)) TSBACKUP_LOG(level::error, "Cannot kill pid=%d errno=%d\n", holder, errno);
    }
    TSBACKUP_LOG(level::notice, "Backup job killed pid=%d\n", holder);
    return started;
}

/// The record of the run that was stopped, as far as its last status line tells.
BackupRun cancelled_run(std::int32_t job_id, std::int32_t start_time, const std::optional<std::string> &last_status) {
    BackupRun run;
    run.job_id = job_id;
    run.start_time = start_time;
    run.full = -1;
    if (last_status) {
        const std::size_t comma = last_status->find(',');
        if (comma != std::string::npos) run.full = decimal_value(last_status->c_str() + comma + 1);
    }
    TSBACKUP_ERROR_SET(error_code::cancelled, &run, "Cancelled");
    return run;
}

void settle_file_systems() {
    sync();
    wait_seconds(1);
    sync();
}

/// The processes of a group that have not ended.
std::vector<pid_t> living_members(pid_t group) {
    std::vector<pid_t> members;
    for (const Process &process : living_processes())
        if (getpgid(process.pid) == group) members.push_back(process.pid);
    return members;
}

/// Ends what a job has left behind when the job itself is gone: a transfer tool can outlive the hang-up and would go on
/// using the mounts that are about to be taken down, a mount command would make one afterwards. A job that lives on is
/// left alone.
void end_stragglers(pid_t holder, std::vector<Process> started) {
    const std::vector<pid_t> members = living_members(holder);
    if (std::find(members.begin(), members.end(), holder) != members.end()) return;
    if (!members.empty()) killpg(holder, SIGKILL);

    // A mount that the kernel is busy with ends its process only once it is made or has failed.
    constexpr int kLongestWait = 200;
    constexpr useconds_t kStep = 50'000;
    for (int waited = 0;; ++waited) {
        std::erase_if(started, [](const Process &process) { return !is_living(process); });
        if (started.empty() || waited == kLongestWait) return;
        for (const Process &process : started)
            kill(process.pid, SIGKILL);
        usleep(kStep);
    }
}

/// Quiet when there is no such folder. It is not looked at first: a remote end that no longer answers would hold that
/// up.
void release_mount_point(std::int32_t job_id) {
    const std::string mount_point = paths::mount_point(job_id);
    if (umount(mount_point.c_str()) != 0 && umount2(mount_point.c_str(), MNT_FORCE) != 0)
        umount2(mount_point.c_str(), MNT_DETACH); // a job that still waits for its server uses it to its end
    rmdir(mount_point.c_str());
}

/// Takes away whatever is mounted on a folder; false when something may still be. A mount that a straggler still uses
/// is detached: the folder itself must come to light, never the user's source.
bool unmount_all(const std::string &folder) {
    constexpr int kMostMounts = 16;
    for (int count = 0; count < kMostMounts; ++count) {
        if (umount2(folder.c_str(), UMOUNT_NOFOLLOW) == 0) continue;
        if (umount2(folder.c_str(), MNT_DETACH | UMOUNT_NOFOLLOW) != 0) return errno == EINVAL || errno == ENOENT;
    }
    return false;
}

void cancel_running(std::int32_t job_id, pid_t holder, std::int32_t now) {
    const std::optional<std::string> last_status = backup_status_read(job_id);
    backup_status_write(job_id, BackupStatusCode::cancelling, static_cast<std::uint32_t>(now), 0);
    queue_request_send("dequeue:%d\n", job_id);
    const std::unique_ptr<BackupJob> job = backup_job_load(job_id);

    const std::vector<Process> started = stop_group(holder);
    const BackupRun run = cancelled_run(job_id, now, last_status);
    settle_file_systems();
    end_stragglers(holder, started);
    // A job that was deleted while it ran has neither a history nor a name to report.
    if (job) backup_log_finish(*job, run);
    release_mount_point(job_id);
    staging_clean_up(holder);
    backup_snapshot_cleanup(static_cast<std::uint32_t>(holder));
    if (job)
        event_job_result(job_id, text_or_empty(job->name), error_code::cancelled,
                         decimal_value(job->opt_email_this_to_alert_email), 0);
}

} // namespace

void job_cancel(std::int32_t job_id) {
    const auto now = static_cast<std::int32_t>(std::time(nullptr));
    TSBACKUP_LOG(level::notice, "perform kill job_id=%d\n", job_id);
    // Job 0 is refused although the usage text offers it: kept, the button's jobs are cancelled one by one.
    if (job_id <= 0) {
        TSBACKUP_LOG(level::error, "Invalid job_id=%d\n", job_id);
        return;
    }

    const pid_t holder = pid_file_read(job_id);
    if (is_foreign_group(holder)) {
        cancel_running(job_id, holder, now);
    } else {
        TSBACKUP_LOG(level::debug, "Nothing to kill for job_id=%d\n", job_id);
        queue_request_send("dequeue:%d\n", job_id);
    }
    backup_status_write(job_id, BackupStatusCode::cancelled, static_cast<std::uint32_t>(now), 0);
}

void staging_clean_up(pid_t pid) {
    const std::string folder = "/tmp/" + std::to_string(pid);
    // A source without a name of its own is mounted on the folder itself: what is listed below must never be the
    // source.
    if (!unmount_all(folder)) return;
    UniqueFd fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    // "/tmp" is everybody's: a folder that another user made under this number is none of ours.
    if (!fd || fstat(fd.get(), &status) != 0 || status.st_uid != geteuid()) return;

    const UniqueDir listing(fdopendir(fd.get()));
    if (!listing) return;
    fd.release();
    while (const dirent *entry = readdir(listing.get())) {
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
        const std::string staging = folder + "/" + entry->d_name;
        if (unmount_all(staging)) rmdir(staging.c_str());
    }
    rmdir(folder.c_str());
}

} // namespace tsbackup
