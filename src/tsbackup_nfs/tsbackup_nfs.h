// The NFS backends: exports that are mounted and copied like a folder.

#pragma once

#include "tsbackup/job.h"
#include "tsbackup/run.h"

namespace tsbackup {

/// Copies from a mounted export to a local end. Records 1 (nothing of the path can be mounted) and 3 (malformed remote
/// path), besides what resolving the local end and copying record.
void backup_nfs_to_local(const BackupJob &job, BackupRun &run);

/// Copies from a local end to a mounted export. Records 2 (nothing of the path can be mounted), 4 (malformed remote
/// path) and 5 (the source is missing), besides what resolving the local end and copying record.
void backup_local_to_nfs(const BackupJob &job, BackupRun &run);

} // namespace tsbackup
