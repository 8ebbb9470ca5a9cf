// The command front end and the job runner: from the command line to the end of a run.
//
// The roles never fail towards their caller: what happens to a job shows in its status file, its history and the
// events. The program's exit status is 1 for an unusable command line and 0 for everything else.

#pragma once

#include "tsbackup/job.h"
#include "tsbackup/run.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace tsbackup {

// ---- command line ----------------------------------------------------------------------------------------------

/// Why a command line cannot be used.
enum class CommandLineFault {
    none,
    no_arguments,
    missing_verbosity, ///< "-v" stands last
    missing_job_id,    ///< nothing but options
};

/// What a command line says. The texts belong to the argument vector.
struct CommandLine {
    CommandLineFault fault = CommandLineFault::none;
    bool kill = false; ///< the role is the first of the four flags that is set; none: enqueue
    bool execute = false;
    bool arrival_hook = false;
    bool import_worker = false;
    bool transfer_trace = false;
    std::optional<std::int32_t> verbosity; ///< no value: not given. Counts also when the rest is at fault
    const char *job_id = nullptr;          ///< as typed; null when there is a fault
};

/// Reads the options up to the first argument that begins with no "-", which is the job id. Unknown options are
/// skipped; what follows the job id is not looked at.
CommandLine command_line_parse(int argc, const char *const *argv);

/// The three lines of the usage text. `program`: the name the program was started by; null: an empty text.
std::string usage_text(const char *program);

/// What the camera import worker is given, by position: null for what the command line does not hold.
struct ImportArguments {
    const char *kind = nullptr;
    const char *bus = nullptr;
    const char *device = nullptr;
    const char *name = nullptr;
};

/// The second to the fifth argument, whatever they are.
ImportArguments import_arguments(int argc, const char *const *argv);

// ---- hang-up ---------------------------------------------------------------------------------------------------

/// From now on SIGHUP ends this process: it says so on standard error, marks the job as aborted, closes the logs of
/// the run, writes all file systems to disk and exits with 0. Status, history and event are the canceller's matter.
void hangup_handler_install();

/// The descriptors that the handler closes, -1: none.
void hangup_logs_set(int copy_log, int error_log);

// ---- queue -----------------------------------------------------------------------------------------------------

/// Sends one request to the queue daemon, cut at 127 characters. Failures are logged, nothing else.
[[gnu::format(printf, 1, 2)]] void queue_request_send(const char *format, ...);

// ---- PID file --------------------------------------------------------------------------------------------------

/// Claims a job for the process group of this process. Returns 0 when it is claimed; the positive process id that
/// holds it; -1 for a negative job id or a failed seek; -2 when the file cannot be opened; -3 when another claimant
/// has it locked at this moment. A file without a positive number, or of a dead process, is taken over.
std::int32_t pid_file_claim(std::int32_t job_id);

/// The process id that holds a job: 0 when there is none, -1 for a negative job id.
pid_t pid_file_read(std::int32_t job_id);

// ---- cancel ----------------------------------------------------------------------------------------------------

/// Takes a job out of the queue, hangs up its process group if it runs, and closes the run's books in its place:
/// history, mount point, snapshots, event and status. Takes two seconds or a little more for a running job.
void job_cancel(std::int32_t job_id);

/// Unmounts and removes what a killed upload left below "/tmp/%d" (its process id): empty folders only, and only when
/// the folder belongs to this user. Nothing is removed recursively.
void staging_clean_up(pid_t pid);

// ---- job file --------------------------------------------------------------------------------------------------

/// The first job of the job file with this number, or null: no such job, or a file that cannot be read or parsed.
/// `opt_max_log_lines` is at least 1. Elements with unknown names are logged at level 3.
std::unique_ptr<BackupJob> backup_job_load(std::int32_t job_id);

/// The jobs that the backup button starts, in the file's order; 0 for an entry without a text. Empty when there are
/// none or the file cannot be read.
std::vector<std::int32_t> button_jobs_load();

// ---- SD card ---------------------------------------------------------------------------------------------------

/// Copies the first enabled SD card of the table of USB storage into a folder named after it in the share that the
/// media server publishes, as a run of job 0: its status, history, last-full record and events are those of the
/// button's summary. Without such a card nothing is written or told; without a share to copy to the run has failed.
/// `job_id`: always 0.
void sd_card_run(std::int32_t job_id);

// ---- runner ----------------------------------------------------------------------------------------------------

/// The worker's whole task: claims the job and runs it; job 0 sums up the button jobs.
void job_entry(std::int32_t job_id);

/// Runs a job from its configuration to its completion event. Returns the run's error code, or -1 when it could not
/// start (unknown job, no clock, no logs): then there is no status and no event.
std::int32_t job_run(std::int32_t job_id, std::int32_t by_button);

// ---- dispatch --------------------------------------------------------------------------------------------------

/// Checks the local ends of a job and hands it to the one driver of its pair of ends. The outcome is in the error
/// record: 3 for a bad source or protocol, 4 for a bad destination or protocol, else what the driver records.
/// A null argument is a programming error and stops the process.
void do_backup(const BackupJob *conf, BackupRun *env);

/// Whether an end of a job can be used as a local one: 0, or -1 after the reason was logged. Texts may be null.
/// The home folder of a user who has none is made on the way.
int local_endpoint_check(const char *type, const char *share, const char *volume);

// ---- full-backup policy ----------------------------------------------------------------------------------------

/// Decides whether the run is a full one and sets its `full`. Always 0.
int full_policy_decide(const BackupJob &job, BackupRun &run);

/// Whether the text is one of the policy's keywords. With any other one every run is full.
bool full_policy_knows(const char *keyword);

} // namespace tsbackup
