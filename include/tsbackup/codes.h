// The numbers that leave the program: results of a run and states of its status files.
//
// Other programs match on every value here; none may change.

#pragma once

#include <cstdint>

namespace tsbackup {

/// Result of a run: the `status` of its event and of its history entry. The first one recorded stays.
namespace error_code {
inline constexpr std::int32_t success = 0;
inline constexpr std::int32_t source_setup = 1;           ///< the source end could not be set up
inline constexpr std::int32_t not_available = 2;          ///< a mount or an end that is not there
inline constexpr std::int32_t invalid_source = 3;         ///< the job names a source that cannot be one
inline constexpr std::int32_t invalid_destination = 4;    ///< the job names a destination that cannot be one
inline constexpr std::int32_t path_missing = 5;           ///< a path of the job does not exist
inline constexpr std::int32_t copy_failed = 6;            ///< something could not be copied or transferred
inline constexpr std::int32_t login_refused = 7;          ///< the remote end refused the log-in
inline constexpr std::int32_t destination_full = 8;       ///< the destination is full or read-only
inline constexpr std::int32_t rsync_error_line = 9;       ///< rsync printed an error line
inline constexpr std::int32_t tool_failed = 10;           ///< a transfer tool's own failure code
inline constexpr std::int32_t cancelled = 11;             ///< the user cancelled the run
inline constexpr std::int32_t rsync_protocol = 12;        ///< rsync ended with its exit code 12
inline constexpr std::int32_t destination_read_only = 13; ///< a destination file could not even be created
inline constexpr std::int32_t cifs_other = 99;            ///< any other failure that the CIFS tools reported
} // namespace error_code

/// State of a job as its status file shows it.
enum class BackupStatusCode : std::uint32_t {
    in_progress = 0,
    in_queue = 1, ///< part of the vocabulary; this program never writes it
    failed = 2,
    cancelling = 3,
    cancelled = 4,
    completed = 5,
    wol_waking = 6, ///< a remote machine is being woken
};

/// State of a camera import as its status file shows it.
enum class MtpBackupStatusCode : std::uint32_t {
    active_copying = 0,
    active_removing = 1,
    failed = 2,
    partly_completed = 3,
    completed = 4,
};

} // namespace tsbackup
