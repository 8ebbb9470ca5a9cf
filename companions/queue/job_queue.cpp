// The queue of backup jobs: their requests, and the states that they show while they wait.

#include "queue_kind.h"
#include "tell.h"
#include "tsbackup.h"
#include "tsbackup/paths.h"
#include "tsbackup_utils.h"

#include <algorithm>
#include <charconv>
#include <csignal>
#include <ctime>

namespace tsbackup {

namespace {

/// The job that stands for the backup button.
const std::string kButton = "0";

std::uint32_t now() { return static_cast<std::uint32_t>(std::time(nullptr)); }

std::int32_t job_of(const std::string &task) { return decimal_value(task.c_str()); }

/// A job number in its only spelling: digits alone, no needless zero.
bool is_job(std::string_view text) {
    std::int32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() && std::to_string(number) == text && number >= 0;
}

std::optional<Request> parse_job_request(std::string_view text) {
    constexpr std::string_view kEnqueue = "enqueue:";
    constexpr std::string_view kDequeue = "dequeue:";
    if (text.ends_with('\n')) text.remove_suffix(1);
    for (const std::string_view verb : {kEnqueue, kDequeue})
        if (text.starts_with(verb) && is_job(text.substr(verb.size())))
            return Request{verb == kEnqueue, std::string(text.substr(verb.size()))};
    return std::nullopt;
}

std::vector<std::string> jobs_asked_for(const std::string &task) {
    std::vector<std::string> tasks;
    if (task == kButton) {
        for (const std::int32_t job_id : button_jobs_load()) {
            if (job_id > 0)
                tasks.push_back(std::to_string(job_id));
            else
                tell(LOG_WARNING, "%s lists button job %d, which is no job", paths::job_file, job_id);
        }
    }
    tasks.push_back(task);
    return tasks;
}

bool is_button(const std::string &task) { return task == kButton; }

std::string same(const std::string &task) { return task; }

std::vector<std::string> job_arguments(const std::string &task) { return {"-e", task}; }

bool shows(const std::string &task, std::string_view state) {
    const std::optional<std::string> line = backup_status_read(job_of(task));
    return line && line->starts_with("BACKUP_STATUS__" + std::string(state));
}

/// Whether a living process has claimed the job; started by hand, perhaps.
bool is_claimed(const std::string &task) {
    constexpr std::size_t kLongestContent = 256;
    const auto content = read_first_line(paths::pid_file(job_of(task)).c_str(), kLongestContent);
    const pid_t holder = content ? decimal_value(content->c_str()) : 0;
    return holder > 0 && kill(holder, 0) == 0;
}

/// The button's summary tells its state itself: without anything to sum up it must not look like a job that waits.
void job_waits(const std::string &task) {
    if (task != kButton && !is_claimed(task)) backup_status_write(job_of(task), BackupStatusCode::in_queue, now(), 0);
}

/// The canceller writes "cancelled" as soon as it has sent its request. This daemon may have written "in queue" after
/// that.
void job_taken_out(const std::string &task) {
    if (shows(task, "IN_QUEUE")) backup_status_write(job_of(task), BackupStatusCode::cancelled, now(), 0);
}

/// A canceller that found the job running says so in its status and hangs it up. One that came before the job was
/// claimed found nobody.
bool job_must_hang_up(const std::string &task) { return !shows(task, "CANCELLING"); }

/// A job that ends without telling how would seem to wait or to run for ever.
void job_ended(const std::string &task, WorkerEnd end) {
    if (end == WorkerEnd::dropped) return backup_status_write(job_of(task), BackupStatusCode::cancelled, now(), 0);
    if (is_claimed(task)) return;
    const bool interrupted = end != WorkerEnd::regular && (shows(task, "IN_PROGRESS") || shows(task, "WOL_WAKING"));
    if (interrupted || shows(task, "IN_QUEUE")) backup_status_write(job_of(task), BackupStatusCode::failed, now(), 0);
}

/// A claim stays when its process is gone.
bool job_had_begun(const std::string &task, pid_t worker) {
    constexpr std::size_t kLongestContent = 256;
    const auto content = read_first_line(paths::pid_file(job_of(task)).c_str(), kLongestContent);
    return content && decimal_value(content->c_str()) == worker;
}

} // namespace

const QueueKind &job_queue() {
    static constexpr QueueKind kKind = {
        .name = "job",
        .pipe = paths::job_queue_pipe,
        .state_file = "/var/lib/tsbackup/queue",
        .parse = parse_job_request,
        .tasks_of = jobs_asked_for,
        .is_last = is_button,
        .key = same,
        .arguments = job_arguments,
        .waits = job_waits,
        .taken_out = job_taken_out,
        .must_hang_up = job_must_hang_up,
        .ended = job_ended,
        .had_begun = job_had_begun,
    };
    return kKind;
}

} // namespace tsbackup
