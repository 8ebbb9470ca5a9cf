// What the units above share: texts and paths, escaping, child processes, status files, logs, events, queue
// records and the clean-up of left-over snapshots.

#pragma once

#include "tsbackup/codes.h"
#include "tsbackup/job.h"
#include "tsbackup/run.h"

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace tsbackup {

// ---- text ------------------------------------------------------------------------------------------------------

/// Value of a hexadecimal digit, 0 for any other character.
int hexval(char digit);

/// The decimal number at the text's start (leading blanks and a sign allowed; what follows is ignored): its low
/// 32 bits as a signed number, 0 when there is none. A number beyond 64 bits saturates first.
std::int32_t decimal_value(const char *text);

/// The same; 0 for a setting without a value.
std::int32_t decimal_value(const JobText &text);

/// A setting's text, empty when it has no value.
const char *text_or_empty(const JobText &text);

/// The formatted text, or nothing when it cannot be formatted.
[[gnu::format(printf, 1, 2)]] std::optional<std::string> str_printf(const char *format, ...);

/// Formats into `buffer`, cutting the text at `size` - 1 characters, and returns `buffer`.
[[gnu::format(printf, 3, 4)]] char *str_snprintf(char *buffer, std::size_t size, const char *format, ...);

/// Formats into `buffer` and returns it; a text that does not fit leaves the buffer empty.
[[gnu::format(printf, 3, 4)]] char *str_snprintf_whole(char *buffer, std::size_t size, const char *format, ...);

/// `first` (nothing counts as empty) followed by every one of `rest`.
std::string str_concat(std::optional<std::string> first, std::initializer_list<std::string_view> rest);

/// Removes every backslash, in place.
std::string &backslash_strip(std::string &text);

/// The first line of a file without trailing white space; its first character is never trimmed. At most
/// `size` - 1 characters are read. Nothing when the file cannot be opened or is empty.
std::optional<std::string> read_first_line(const char *path, std::size_t size);

/// Removes trailing white space in place, never the first character.
void rtrim_space(std::string &text);

/// Removes white space at both ends, in place.
std::string &trim_space(std::string &text);

/// Removes every occurrence of a character, in place.
void remove_char(std::string &text, char character);

/// Replaces every occurrence of a character, in place.
void replace_char(std::string &text, char from, char to);

/// Advances `cursor` to the next `character`, or to the end, and returns how many characters were passed.
std::size_t skip_to_char(const char *&cursor, char character);

/// Like `strtok_r` with a whole separator text, and empty tokens are returned. `text` (null: go on behind
/// `*saveptr`) is cut in place. Null when no token is left. A null `saveptr` stops the process.
char *strtokstr_r(char *text, const char *separator, char **saveptr);

/// The text before the first separator; `rest` becomes the text after it, or nothing when no text follows.
std::string str_split_first(const std::string &text, const std::string &separator, std::optional<std::string> &rest);

/// The pieces of the whole text between separators; n separators give n + 1 pieces.
std::vector<std::string> str_split_all(const std::string &text, const std::string &separator);

/// Reallocates; frees the old block when that fails and returns null. A size of 0 frees the block and returns null.
void *realloc_or_free(void *block, std::size_t size);

/// Deletes every node of a singly linked list whose nodes have a member `next`.
template <typename Node> void list_free(Node *head) {
    while (head != nullptr) {
        Node *next = head->next;
        delete head;
        head = next;
    }
}

// ---- path ------------------------------------------------------------------------------------------------------

/// A copy of an absolute path in which a run of "/" is one, "/./" is "/", and no "/" ends the path; a last "/." stays.
/// The root becomes an empty path, which names nothing. Nothing for a relative path or a null.
std::optional<std::string> path_normalise(const char *path);

/// Creates every missing component of `path`, left to right. A component that exists counts only when it is a
/// directory or a link to one. 0, or -1 with `errno` set.
int mkdir_p(const std::string &path, mode_t mode);

/// Takes a network path that begins with two equal separators (two backslashes or two slashes) apart: the host
/// and the share, each cut to its buffer. Returns the rest of the path behind the share, null for any other
/// start. `depth` (may be null) becomes 0 when nothing follows the share, otherwise one more than the number of
/// components behind it; separators at the end of the path do not count.
const char *unc_split(const char *path, char *host, std::size_t host_size, char *share, std::size_t share_size,
                      int *depth);

// ---- mount point -----------------------------------------------------------------------------------------------
// Where a job's remote end is mounted: a folder of the root that is there only while it is needed.

/// Creates the folder for a mount, closed to all but its owner; one that is there already will do. 0, or -1 with
/// `errno` set.
int mount_point_create(const std::string &mount_point);

/// Unmounts what is mounted there and, only when that succeeded, once more by force what came to light below it.
/// Nothing is reported; the folder stays.
void mount_point_unmount(const std::string &mount_point);

/// Whether `path`, relative to the mount point, leads to the mount point or below it: neither by ".." nor by a link
/// out of what is mounted, as far as it exists. A remote end chooses its links and must not choose local folders.
bool mount_point_holds(const std::string &mount_point, const std::string &path);

// ---- escape ----------------------------------------------------------------------------------------------------

/// Puts a backslash before every blank, tab, backslash and each of !&()|^<>?*[]$`"'{}. Nothing for a null text.
std::optional<std::string> shell_escape(const char *text);

/// The text as one word of a shell command, whatever it holds: `shell_escape`, and the bytes outside its table on
/// which a shell still acts (";", a newline, a carriage return, "#" and "~" at the word's start) are made literal.
/// For any other text the result is that of `shell_escape`; an empty text stays empty and is no word. Every name that
/// enters a command passes here.
std::string shell_word(std::string_view text);

/// Every character of " !*'();:@&=+$,?%#[]" and every byte from 128 on becomes "%" and two lower-case hexadecimal
/// digits. Nothing for a null text.
std::optional<std::string> url_escape(const char *text);

/// Turns every "%" that two more characters follow into one byte, in place.
std::string &url_unescape(std::string &text);

/// Escapes "&", "<", ">" and both quotation marks for XML. Nothing for a null text.
std::optional<std::string> escape_for_xml(const char *text);

// ---- process ---------------------------------------------------------------------------------------------------

/// Result of `_backup_execvp` when the reader asked for cancellation.
inline constexpr std::int32_t kExecCancelled = -62;

/// Consumes a child's standard output until its end; may return kExecCancelled to have the child hung up. The
/// descriptor stays the runner's.
using StdoutReader = std::int32_t (*)(BackupRun *run, int descriptor);

/// Runs `file` (looked up on the search path) with the null-terminated `argv` and `envp` and waits for it.
///
/// `stdin_text` (may be null) is written whole to the child's standard input first. `stdout_reader` (may be null)
/// gets the child's standard output, and its standard error too unless `stderr_buf` is given. `stderr_buf` (may be
/// null) receives the standard error as terminated text, cut to `stderr_buf_size`. The input is written completely
/// before output is read, and the output before the standard error: a child that fills a pipe out of this order waits
/// for ever. `envp` may be null: an empty environment. SIGPIPE has its default action in the child.
/// The child runs at normal priority, unless `file` is exactly "nice".
///
/// Returns the exit code (0 to 255; 100: the program could not be executed), -2 when a signal ended the child,
/// kExecCancelled when the reader asked for it (the child got SIGHUP and is not waited for), any other negative
/// result of the reader once the child has ended, -1 when it could not be started, or what `waitpid` returned when
/// that is no process id.
std::int32_t _backup_execvp(const char *file, const char *stdin_text, char *stderr_buf, std::size_t stderr_buf_size,
                            char *const argv[], char *const envp[], BackupRun *run, StdoutReader stdout_reader);

/// Runs a shell command line and returns its wait status, -1 when the shell cannot be started.
/// The command is logged at debug level: it must never hold a password.
std::int32_t backup_system(const char *command);

/// The same, but a hang-up reaches neither the shell nor what it starts: for a tool that does not end by it. An abort
/// of the job must end them in another way (`backup_abort_ends_group`).
std::int32_t backup_system_past_hang_up(const char *command);

/// The first one for a formatted command, cut at 2047 characters.
[[gnu::format(printf, 1, 2)]] std::int32_t backup_systemf(const char *format, ...);

/// Sets the soft and the hard limit of a core file to so many MiB; a negative number means 0.
void set_core_limit(int megabytes);

// ---- status ----------------------------------------------------------------------------------------------------
// One line that other programs poll. Nothing here reports a failure: a status that cannot be written never stops
// a job.

/// Replaces the status file of a job by the line of `code`. `timestamp`: seconds since the epoch. `full` (1, 0, or
/// negative for undecided) enters the in-progress line alone. A file that cannot be opened is skipped; the line is
/// logged at debug level in either case.
void backup_status_write(std::int32_t job_id, BackupStatusCode code, std::uint32_t timestamp, std::int32_t full);

/// The first line of a job's status file without trailing white space (at most 1023 characters), or nothing when
/// the file is missing or empty.
std::optional<std::string> backup_status_read(std::int32_t job_id);

/// What a status line says.
struct BackupStatus {
    BackupStatusCode code = BackupStatusCode::in_progress;
    std::int32_t timestamp = 0; ///< seconds since the epoch
    std::int32_t full = 0;      ///< of a run in progress: 1 full, 0 incremental, negative: undecided
};

/// Reads a status line (without its line end); nothing for any other text.
std::optional<BackupStatus> backup_status_parse(const std::string &line);

/// What a camera import has to do and has done.
struct MtpBackupStatistics {
    std::uint64_t total_bytes = 0;
    std::uint64_t copied_bytes = 0;
    std::uint64_t total_files = 0;
    std::uint64_t copied_files = 0;
    double rate = 0; ///< bytes per second of the file that was finished last
};

/// Replaces the status file of a camera's import by the line of `code`. A file that cannot be opened is logged.
void mtpbackup_status_write(const char *device, MtpBackupStatusCode code, std::int32_t timestamp,
                            const MtpBackupStatistics &statistics);

/// What the status line of a camera's import says.
struct MtpBackupStatus {
    MtpBackupStatusCode code = MtpBackupStatusCode::active_copying;
    std::int32_t timestamp = 0;
    MtpBackupStatistics statistics;
};

/// Reads such a line (without its line end); nothing for any other text.
std::optional<MtpBackupStatus> mtpbackup_status_parse(const std::string &line);

// ---- progress --------------------------------------------------------------------------------------------------

/// Whole seconds from `earlier` to `now`: the floor of the true difference. `earlier` is rewritten in place to the
/// same instant with nanoseconds that compare with those of `now`; an `earlier` that was rewritten before and now
/// lies exactly one second of nanoseconds behind stays so, and the result is then one less.
std::int64_t whole_seconds_between(const timespec &now, timespec &earlier);

/// Writes the in-progress line and the progress line over the start of the job's status file. The file is not
/// truncated: the end of a longer content stays behind, and readers take the first two lines. Null: nothing.
void backup_progress_write(BackupRun *run);

/// What a progress line says.
struct BackupProgress {
    std::int32_t rate = 0;    ///< bytes per second
    std::int32_t elapsed = 0; ///< seconds
    std::int64_t bytes = 0;
};

/// Reads a progress line (without its line end); nothing for any other text.
std::optional<BackupProgress> backup_progress_parse(const std::string &line);

/// Counts the run's bytes into a rate and writes the progress, but only when strictly more than `interval` whole
/// seconds have passed since the last write (0: always), and never within the first second of the transfer.
/// After a failed reading of the clock the run writes no more progress. Null: nothing.
void backup_progress_record(BackupRun *run, std::int32_t interval);

// ---- run log ---------------------------------------------------------------------------------------------------

/// Appends one line to the run's copy log (error log) with a single write; nothing when that log is not open.
[[gnu::format(printf, 2, 3)]] void copy_log_line(const BackupRun &run, const char *format, ...);
[[gnu::format(printf, 2, 3)]] void error_log_line(const BackupRun &run, const char *format, ...);

// ---- job log ---------------------------------------------------------------------------------------------------

/// Closes the books of a run: puts its entry on top of the history of the job's number, keeps its copy log under the
/// job's line cap in place of the older ones, removes the run's own copy log and, when `full` is not 0 (negative
/// included), notes the run as the last full one. When the history's scratch file cannot be opened nothing at all is
/// done; any other step that fails is skipped.
void backup_log_finish(const BackupJob &job, const BackupRun &run);

/// Copies the text file `src` over `dst`: its first `max_lines` lines, and of what follows the last ten, with a
/// line that says how many are missing between them. Returns the size of `dst`, -1 when a file cannot be opened.
/// A cap of 0 never keeps the very first line.
std::int64_t ts_copy_file_truncate(const char *src, const char *dst, std::int32_t max_lines);

/// Removes the kept copy logs of a job, except the one with the file name of `keep`.
void purge_copy_logs(std::int32_t job_id, const char *keep);

/// Copies `src` to the end of `dst` (`append`), or over its start without truncating it, and gives `dst` the times
/// of `src` in whole seconds. Returns the size of `src`, -1 when a file cannot be opened.
std::int64_t copy_file_keep_times(const char *src, const char *dst, bool append);

// ---- events ----------------------------------------------------------------------------------------------------
// Messages to the management daemon. Names are escaped here; a message is cut at 1023 characters.

/// End of a run: "backup". `name` may be null (an empty text).
void event_job_result(std::int32_t job_id, const char *name, std::int32_t status, std::int32_t email,
                      std::int32_t by_button);

/// End of the button jobs' summary: "backup"; status 1 when one of them failed, else 0.
void event_button_summary(std::int32_t status);

/// An SD-card run that found no target: "backup".
void event_sd_card_failed(std::int32_t job_id, std::int32_t status, std::int32_t by_button);

/// Request to eject a USB disk by its kernel device name: "ui".
void event_usb_eject(const char *device);

/// Notice of that eject in the system log: "backup". A message that does not fit is sent empty.
void event_usb_eject_notice(const char *share_name, const char *job_name);

/// A camera's arrival queued an import: "mtpbackup".
void event_camera_queued(const char *device, std::int32_t status);

/// State of a camera import: "mtpbackup".
void event_camera_import(const char *device, const char *destination, std::int32_t status);

/// A camera import that failed, and why: "mtpbackup".
void event_camera_import_failed(const char *device, const char *destination, std::int32_t status, std::int32_t reason);

// ---- queue record ----------------------------------------------------------------------------------------------

/// Size of every record that a queue daemon reads from its pipe: the request's text, then zero bytes.
inline constexpr std::size_t kQueueRecordSize = 128;

/// Who sends a record, and the wording that differs between the two senders.
struct QueueSender {
    const char *unit;                ///< tag of the sender's diagnostics
    const char *pipe;                ///< path of the queue's pipe
    bool names_pipe_in_write_errors; ///< the camera queue's sender does
};

/// Writes one record under an exclusive lock on the pipe. `length` is the length of the request's text in `record`;
/// 0 or less writes nothing. Waits in steps of a second while the pipe is full. Every failure is logged at level 3;
/// -1 when the pipe could not be opened or written (`errno` tells why), else 0.
int queue_record_send(const QueueSender &sender, const char (&record)[kQueueRecordSize], int length);

// ---- snapshot clean-up -----------------------------------------------------------------------------------------

/// Deletes left-over job snapshots ("b_...") of every share on every volume: all of them with 0, those whose name
/// ends in "_" and `pid` otherwise. With 0 this takes the snapshots of jobs that run at that moment too.
void backup_snapshot_cleanup(std::uint32_t pid);

} // namespace tsbackup
