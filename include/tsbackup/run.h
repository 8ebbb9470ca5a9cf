// The record of one run of one job, handed to every piece that takes part in the run.

#pragma once

#include <array>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

namespace tsbackup {

/// Zeroed at the start of a run; owned by the job runner for as long as the run lasts.
struct BackupRun {
    std::int32_t start_time = 0; ///< wall clock, seconds since the epoch
    std::int32_t full = 0;       ///< 1 full, 0 incremental, negative: not decided (a cancelled run)
    std::int32_t job_id = 0;     ///< 0: the button jobs' summary and the SD-card job
    std::int32_t by_button = 0;  ///< 1: started by the backup button; carried in the event

    /// The two halves of the file-system id of "/"; 0 when they could not be read.
    std::array<std::int32_t, 2> root_fsid{};

    std::int32_t error_code = 0;              ///< 0 while no error is recorded; the first one stays
    std::optional<std::string> error_message; ///< no value until an error is recorded

    std::int32_t src_is_dir = 0; ///< not 0: the source is a directory tree; 0: a single file
    std::uint64_t fsid = 0;      ///< file-system id of the source; of the destination once a tree is copied

    std::optional<std::string> snapshot_path;      ///< the snapshot that this run took of its source share
    std::optional<std::string> snapshot_skip_path; ///< the share's own snapshot folder, as seen inside that snapshot

    std::int32_t no_chown = 0;         ///< not 0: the destination keeps no owners; copy times alone
    std::int32_t cifs_ext_changed = 0; ///< not 0: the CIFS extensions switch was changed for this run
    std::int32_t cifs_ext_saved = 0;   ///< its value before

    std::int64_t bytes = 0;        ///< bytes written so far
    std::int32_t rate = 0;         ///< bytes per second since `started`
    std::int32_t elapsed = 0;      ///< whole seconds from `started` to the last progress write
    timespec started{};            ///< monotonic (coarse) instant at which the transfer began
    timespec last_write{};         ///< monotonic instant of the last progress write
    std::int32_t clock_failed = 0; ///< not 0: the clock could not be read; no more progress in this run

    /// Descriptors of the run's two logs, -1: none (nothing is written then). Every line reaches the kernel
    /// with one write, so that the hang-up handler finds nothing to flush and may close them at any instant.
    int copy_log = -1;
    int error_log = -1;

    std::int32_t src_root_len = 0; ///< length of the source root; messages show what follows it
    std::int32_t dst_root_len = 0; ///< length of the destination root
};

} // namespace tsbackup
