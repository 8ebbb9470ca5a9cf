// The HTTP backend: web sites and web folders, fetched link by link. HTTP is a source, never a destination.
//
// The transfer is wget's; this unit builds its command line, keeps the password out of it, and turns its log into the
// run's copy log and error record.

#pragma once

#include "tsbackup/job.h"
#include "tsbackup/run.h"

namespace tsbackup {

/// Fetches what a URL leads to into a local folder, three levels of links deep; what is there and no older stays.
/// Records 6 (wget failed), and 7 or 8 for a line of wget's log that tells of a missing permission or a full disk,
/// besides what resolving the local end records. The error log is removed when wget succeeded.
void backup_http_to_local(const BackupJob &job, BackupRun &run);

} // namespace tsbackup
