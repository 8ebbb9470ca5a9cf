#include "collect.h"

#include "job_file.h"
#include "read_start.h"
#include "tsbackup/owners.h"
#include "tsbackup/paths.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <map>
#include <set>
#include <string_view>

namespace tsbackup {

namespace {

constexpr std::size_t kStatusStart = 4096; ///< the two lines that count are far shorter
constexpr std::size_t kErrorLogStart = 64UL * 1024;
constexpr std::size_t kHistoryStart = 16UL * 1024; ///< of one entry, whose texts have no limit of their own
constexpr std::size_t kMostErrorLines = 20;
constexpr std::size_t kMostHistory = 16UL * 1024 * 1024;
constexpr long kWriterPause = 20'000'000; ///< nanoseconds; a writer needs a fraction of that

using ConfiguredJobs = std::map<std::int32_t, BackupJob>;

// ---- the job file ----------------------------------------------------------------------------------------------

/// The jobs of the file by their numbers, the first of each number, as the program finds them.
ConfiguredJobs configured_jobs(std::vector<std::string> &problems) {
    ConfiguredJobs jobs;
    const FileStart file = read_start(paths::job_file, kLargestJobFile);
    if (file.missing) return jobs;
    const auto report = [&problems](const std::string &what) {
        problems.push_back(std::string(paths::job_file) + ": " + what);
    };
    if (!file.fault.empty() || !file.whole) {
        report(!file.fault.empty() ? file.fault : "Too large");
        return jobs;
    }
    const UniqueXmlDoc document = job_text_parse(file.bytes);
    if (!document) report("Not well-formed; no job can run (see tsbackup-check)");
    for (const xmlNode *entry = first_entry(document.get()); entry != nullptr; entry = entry->next) {
        BackupJob job = job_read(entry);
        if (job.job_id >= 0) jobs.try_emplace(job.job_id, std::move(job));
    }
    return jobs;
}

std::string below(const JobText &path) {
    const std::string text = text_or_empty(path);
    if (text.empty()) return "";
    return text.front() == '/' ? text : "/" + text;
}

std::string end_in_words(const JobText &type, const JobText &name, const JobText &volume, const JobText &path) {
    const std::string kind = text_or_empty(type);
    if (kind.empty()) return "";
    if (kind == "remote") return std::string(text_or_empty(name)) + " " + text_or_empty(path);
    if (kind == "share") return kind + " " + text_or_empty(volume) + "/" + text_or_empty(name) + below(path);
    const char *what = kind == "timemachine" ? text_or_empty(volume) : text_or_empty(name);
    return kind + " " + what + below(path);
}

// ---- the files of one job --------------------------------------------------------------------------------------

/// The next line without its end; nothing when no whole line is left.
std::optional<std::string> take_line(std::string_view &text) {
    const std::size_t end = text.find('\n');
    if (end == std::string_view::npos) return std::nullopt;
    std::string line(text.substr(0, end));
    text.remove_prefix(end + 1);
    return line;
}

/// A status file that does not hold a whole line, which a writer may be about to complete.
bool read_status(JobStatus &job) {
    const FileStart file = read_start(paths::status_file(job.job_id), kStatusStart);
    job.has_status_file = !file.missing;
    if (!file.fault.empty()) return true;
    job.updated = file.changed;
    std::string_view text = file.bytes;
    const std::optional<std::string> state = take_line(text);
    if (!state) return false;
    job.status = backup_status_parse(*state);
    // What stands behind the second line is left over from a longer one.
    if (const std::optional<std::string> second = take_line(text); second && job.is_running())
        job.progress = backup_progress_parse(*second);
    return true;
}

void read_history(JobStatus &job, std::size_t runs) {
    const std::size_t start = std::min(kMostHistory, std::max<std::size_t>(runs, 1) * kHistoryStart);
    const FileStart file = read_start(paths::history(job.job_id), start);
    job.history = history_parse(file.bytes, runs + 1);
    job.history_goes_on = job.history.size() > runs || !file.whole;
    if (job.history.size() > runs) job.history.resize(runs);
}

void read_errors(JobStatus &job) {
    const FileStart file = read_start(paths::error_log(job.job_id), kErrorLogStart);
    std::string_view text = file.bytes;
    while (job.errors.lines.size() < kMostErrorLines && !text.empty()) {
        std::optional<std::string> line = take_line(text);
        // The last line of a log that is being written may have no end yet.
        if (!line) line = std::string(std::exchange(text, {}));
        if (!line->empty()) job.errors.lines.push_back(std::move(*line));
    }
    job.errors.more = !text.empty() || !file.whole;
}

/// False when the status file should be read once more, after a pause.
bool read_job(JobStatus &job, const ConfiguredJobs &configured, std::size_t runs) {
    const bool complete = read_status(job);
    read_history(job, runs);
    read_errors(job);
    const auto found = configured.find(job.job_id);
    job.configured = found != configured.end();
    if (job.configured) {
        const BackupJob &record = found->second;
        job.name = text_or_empty(record.name);
        job.source = end_in_words(record.src_type, record.src_share_proto, record.src_share_vol, record.src_path);
        job.destination = end_in_words(record.dst_type, record.dst_share_proto, record.dst_share_vol, record.dst_path);
    } else if (const HistoryEntry *last = job.last_run()) {
        job.name = last->name;
    }
    return complete;
}

void pause_for_writers() {
    const timespec pause{0, kWriterPause};
    nanosleep(&pause, nullptr);
}

// ---- the folder ------------------------------------------------------------------------------------------------

struct FolderNames {
    std::set<std::int32_t> jobs;
    std::vector<std::string> devices;
};

/// The part of a name between its beginning and its end; nothing for any other name.
std::optional<std::string> middle_of(std::string_view name, std::string_view beginning, std::string_view end) {
    if (name.size() < beginning.size() + end.size() || !name.starts_with(beginning) || !name.ends_with(end))
        return std::nullopt;
    return std::string(name.substr(beginning.size(), name.size() - beginning.size() - end.size()));
}

/// The job whose status file or history has this name.
std::optional<std::int32_t> job_of_file(const std::string &name) {
    for (const std::string_view beginning : {"status_backup_", "backup_"}) {
        const std::string_view end = beginning == "backup_" ? ".log" : "";
        const std::optional<std::string> digits = middle_of(name, beginning, end);
        if (!digits || digits->empty() || digits->find_first_not_of("0123456789") != std::string::npos) continue;
        const std::int32_t job_id = decimal_value(digits->c_str());
        const std::string path = std::string(paths::log_folder) + "/" + name;
        // Only the name that the program itself would give to the number.
        if (path == paths::status_file(job_id) || path == paths::history(job_id)) return job_id;
    }
    return std::nullopt;
}

FolderNames folder_names(std::vector<std::string> &problems) {
    FolderNames names;
    const UniqueDir folder(opendir(paths::log_folder));
    if (!folder) {
        if (errno != ENOENT) problems.push_back(std::string(paths::log_folder) + ": " + std::strerror(errno));
        return names;
    }
    while (const dirent *entry = readdir(folder.get())) {
        const std::string name = entry->d_name;
        if (const std::optional<std::int32_t> job_id = job_of_file(name)) names.jobs.insert(*job_id);
        if (const std::optional<std::string> device = middle_of(name, "status_mtpbackup_", ""))
            names.devices.push_back(*device);
    }
    std::sort(names.devices.begin(), names.devices.end());
    return names;
}

bool read_import(ImportStatus &import) {
    const FileStart file = read_start(paths::camera_status_file(import.device.c_str()), kStatusStart);
    import.updated = file.changed;
    std::string_view text = file.bytes;
    const std::optional<std::string> line = take_line(text);
    if (line) import.status = mtpbackup_status_parse(*line);
    return line || !file.fault.empty();
}

template <typename Value>
std::string word_of(Value value, std::initializer_list<std::pair<Value, const char *>> words) {
    for (const auto &[known, word] : words)
        if (known == value) return word;
    return "unknown";
}

} // namespace

bool JobStatus::is_running() const { return status && status->code == BackupStatusCode::in_progress; }

const HistoryEntry *JobStatus::last_run() const { return history.empty() ? nullptr : &history.front(); }

std::optional<std::int64_t> JobStatus::since() const {
    if (!status) return std::nullopt;
    const bool ended = status->code == BackupStatusCode::completed || status->code == BackupStatusCode::failed ||
                       status->code == BackupStatusCode::cancelled;
    // The status line of a run that has ended carries the time of its start.
    if (ended && last_run() != nullptr && last_run()->start == status->timestamp) return last_run()->finish;
    return status->timestamp;
}

std::optional<bool> JobStatus::full() const {
    if (is_running()) return status->full < 0 ? std::nullopt : std::optional(status->full != 0);
    return last_run() != nullptr ? last_run()->full : std::nullopt;
}

std::optional<std::int64_t> JobStatus::elapsed(std::int64_t now) const {
    std::int64_t seconds = -1;
    if (progress)
        seconds = progress->elapsed;
    else if (is_running())
        seconds = now - status->timestamp;
    else if (last_run() != nullptr)
        seconds = std::int64_t{last_run()->finish} - last_run()->start;
    // A clock that was set in between tells nothing.
    return seconds < 0 ? std::nullopt : std::optional(seconds);
}

std::string state_in_words(const JobStatus &job) {
    if (!job.has_status_file) return "never run";
    if (!job.status) return "unknown";
    return word_of<BackupStatusCode>(job.status->code, {{BackupStatusCode::in_progress, "in progress"},
                                                        {BackupStatusCode::in_queue, "in queue"},
                                                        {BackupStatusCode::failed, "failed"},
                                                        {BackupStatusCode::cancelling, "cancelling"},
                                                        {BackupStatusCode::cancelled, "cancelled"},
                                                        {BackupStatusCode::completed, "completed"},
                                                        {BackupStatusCode::wol_waking, "waking"}});
}

std::string state_in_words(const ImportStatus &import) {
    if (!import.status) return "unknown";
    return word_of<MtpBackupStatusCode>(import.status->code,
                                        {{MtpBackupStatusCode::active_copying, "copying"},
                                         {MtpBackupStatusCode::active_removing, "removing"},
                                         {MtpBackupStatusCode::failed, "failed"},
                                         {MtpBackupStatusCode::partly_completed, "partly completed"},
                                         {MtpBackupStatusCode::completed, "completed"}});
}

Overview collect_all(std::size_t runs) {
    Overview overview;
    const ConfiguredJobs configured = configured_jobs(overview.problems);
    FolderNames names = folder_names(overview.problems);
    for (const auto &[job_id, job] : configured)
        names.jobs.insert(job_id);

    bool complete = true;
    for (const std::int32_t job_id : names.jobs) {
        JobStatus job;
        job.job_id = job_id;
        complete = read_job(job, configured, runs) && complete;
        overview.jobs.push_back(std::move(job));
    }
    for (std::string &device : names.devices) {
        ImportStatus import;
        import.device = std::move(device);
        complete = read_import(import) && complete;
        overview.imports.push_back(std::move(import));
    }
    // Writers replace a status file without a lock: one that was found empty gets a moment to be filled.
    if (!complete) {
        pause_for_writers();
        for (JobStatus &job : overview.jobs)
            if (!job.status) read_status(job);
        for (ImportStatus &import : overview.imports)
            if (!import.status) read_import(import);
    }
    overview.now = std::time(nullptr);
    return overview;
}

std::optional<JobStatus> collect_job(std::int32_t job_id, std::size_t runs, std::vector<std::string> &problems) {
    const ConfiguredJobs configured = configured_jobs(problems);
    JobStatus job;
    job.job_id = job_id;
    if (!read_job(job, configured, runs)) {
        pause_for_writers();
        read_status(job);
    }
    if (!job.configured && !job.has_status_file && job.history.empty()) return std::nullopt;
    return job;
}

} // namespace tsbackup
