// What the files tell about jobs and camera imports.

#pragma once

#include "history.h"
#include "tsbackup_utils.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tsbackup {

/// Failures of the run in progress, or else of the last one, in words, from the job's error log.
struct ErrorLines {
    bool more = false; ///< the log goes on behind these lines
    std::vector<std::string> lines;
};

struct JobStatus {
    std::int32_t job_id = 0;
    bool configured = false; ///< the job file has it
    std::string name;        ///< from the job file, else from the history
    std::string source;      ///< the end in words; empty for a job that is not configured
    std::string destination;

    bool has_status_file = false;
    std::optional<BackupStatus> status; ///< nothing, with a status file: the file says nothing that is known
    std::int64_t updated = 0;           ///< time of the status file's last write
    std::optional<BackupProgress> progress;

    std::vector<HistoryEntry> history; ///< newest first
    bool history_goes_on = false;      ///< there is more than was read
    ErrorLines errors;

    bool is_running() const;
    const HistoryEntry *last_run() const;
    /// When the job came into its state: a run that ended, when it ended. Nothing when that is not known.
    std::optional<std::int64_t> since() const;
    /// The kind of the run in progress, else of the last one.
    std::optional<bool> full() const;
    /// Seconds that the run in progress has taken until `now`, else the last one took.
    std::optional<std::int64_t> elapsed(std::int64_t now) const;
};

struct ImportStatus {
    std::string device;
    std::optional<MtpBackupStatus> status; ///< nothing: the file says nothing that is known
    std::int64_t updated = 0;
};

struct Overview {
    std::int64_t now = 0;
    std::vector<JobStatus> jobs;       ///< in the order of their numbers
    std::vector<ImportStatus> imports; ///< in the order of their devices' names
    std::vector<std::string> problems; ///< what could not be read, a line each
};

/// State words for people: "in progress", "never run".
std::string state_in_words(const JobStatus &job);
std::string state_in_words(const ImportStatus &import);

/// Everything. `runs`: how many entries of each history.
Overview collect_all(std::size_t runs);

/// One job; nothing when neither the job file nor any other file knows it.
std::optional<JobStatus> collect_job(std::int32_t job_id, std::size_t runs, std::vector<std::string> &problems);

} // namespace tsbackup
