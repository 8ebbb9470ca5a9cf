// The local ends of a job: from the job's fields to a checked path, and back.

#pragma once

#include "tsbackup/job.h"
#include "tsbackup/run.h"

#include <optional>
#include <string>

namespace tsbackup {

/// Which end of a job is meant.
enum class Side { source, destination };

/// The folder of the USB disk at a port: "/media/NAME", or "/media/NAME/SUB_PATH" when `sub_path` is not null (an
/// empty one leaves a "/" at the end). Nothing when the table of USB storage cannot be opened or names no disk there.
std::optional<std::string> usb_storage_lookup(const char *port, const char *sub_path);

/// The absolute, normalised path of a local end, or nothing after the failure was reported (a few refusals are
/// silent; the callers report those). Resolving has effects:
/// - a source share on a data volume is snapshotted, and the path is the one inside the snapshot; `snapshot_path`
///   and `snapshot_skip_path` of the run are set;
/// - a source sets the run's `src_is_dir` and `fsid`;
/// - a destination is created with its parents, and emptied when the run is full and the job asks for it.
/// Records 2 (destination not on a mounted data file system), 3 (no USB disk at the source's port), 4 (the same for
/// the destination; unknown user; destination that cannot be created) or 5 (source missing).
std::optional<std::string> local_path_resolve(const BackupJob &job, BackupRun &run, Side side);

/// Called after a copy, before the source is released: records 5 when the source lay in a snapshot that is gone by now.
/// The start of any job deletes the snapshots of all, those of running jobs included. A copy that lost its source on
/// the way leaves out what it could no longer read; it must not pass for a complete one.
void local_source_check(const std::string &source, BackupRun &run);

/// Gives a local end back: deletes the run's snapshot (source side), and asks the platform to eject the USB disk
/// that holds `local_path` when the job wants it. Reports nothing.
void local_endpoint_release(const BackupJob &job, BackupRun &run, const std::string &local_path, Side side);

/// Runs a job whose ends are both local. Besides what resolving and copying record: 3 "No SRC", 4 "No DST".
void backup_local_to_local(const BackupJob &job, BackupRun &run);

} // namespace tsbackup
