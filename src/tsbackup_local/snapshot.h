#pragma once

#include "tsbackup/run.h"

namespace tsbackup {

/// Takes a read-only snapshot of the share and sets the run's `snapshot_path` and, when the share keeps snapshots of
/// its own, `snapshot_skip_path`. A snapshot that could not be taken shows in its path not being there.
void snapshot_take(BackupRun &run, const char *volume, const char *share);

/// Deletes the run's snapshot, if it has one, and forgets it.
void snapshot_delete(BackupRun &run);

} // namespace tsbackup
