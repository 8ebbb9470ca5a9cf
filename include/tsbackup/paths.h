// Every path that the program shares with other programs or between its own units.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace tsbackup::paths {

inline constexpr char job_file[] = "/etc/tessera/backup_jobs.conf";
inline constexpr char usb_storage_table[] = "/etc/tessera/usb/storage.conf";
inline constexpr char services_file[] = "/etc/default/services";
inline constexpr char media_server_file[] = "/etc/minidlna.conf";

inline constexpr char job_queue_pipe[] = "/var/run/zelkovad/tsbackup-q";
inline constexpr char camera_queue_pipe[] = "/var/run/zelkovad/mtpbackup-q";

inline constexpr char log_folder[] = "/var/log/tessera/backup";
inline constexpr char work_folder[] = "/apps/.backup/";

/// Paths are built in buffers of this size, terminator included; what does not fit is cut.
inline constexpr std::size_t buffer_size = 4096;

// One file or folder of a job each. A job number has at least three digits.
std::string pid_file(std::int32_t job_id);          ///< claim of a running job
std::string status_file(std::int32_t job_id);       ///< its state, polled by the administration interface
std::string camera_status_file(const char *device); ///< state of a camera's import
std::string history(std::int32_t job_id);           ///< one entry a run, newest first
std::string history_scratch(std::int32_t job_id);   ///< where a new history is assembled
std::string copy_log(std::int32_t job_id);          ///< files copied by the run in progress
std::string kept_copy_log(std::int32_t job_id, std::int32_t start_time); ///< the same, kept after the run
std::string kept_copy_log_prefix(std::int32_t job_id);                   ///< how their file names begin, no folder
std::string error_log(std::int32_t job_id);                              ///< failures of the run, in words
std::string last_full_record(std::int32_t job_id);                       ///< start of the job's last full run
std::string mount_point(std::int32_t job_id);                            ///< where a job's remote end is mounted
std::string camera_log(const char *device);                              ///< log of a camera's import

} // namespace tsbackup::paths
