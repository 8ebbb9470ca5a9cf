// The rsync backends: a daemon's modules and hosts reached over ssh, both directions.
//
// The transfer is the external program's; this unit builds its command line, follows its output and turns what it
// says into the run's progress, copy log and error record.

#pragma once

#include "tsbackup/job.h"
#include "tsbackup/run.h"

namespace tsbackup {

/// Copies from an rsync server to a local end. Records 1 (malformed remote path), 4 (the local disk is not there), 6
/// (the transfer failed), 7 or 9 (a permission was denied), 8 (no space left), 10 (rsync ended with 5), besides what
/// resolving the local end records.
void backup_rsync_to_local(const BackupJob &job, BackupRun &run);

/// Copies from a local end to an rsync server. Records 2 (malformed remote path), 5 (the source is missing), 12
/// (rsync ended with 12), and otherwise what the other direction records.
void backup_local_to_rsync(const BackupJob &job, BackupRun &run);

} // namespace tsbackup
