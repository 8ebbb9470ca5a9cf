// The FTP backends: a tree on an FTP server, both directions, through the transfer library.
//
// Downloads take one remote directory at a time, as its listing tells; uploads walk the local tree. A server's listing
// chooses names, never places.

#pragma once

#include "tsbackup/job.h"
#include "tsbackup/run.h"

namespace tsbackup {

/// Copies from an FTP server to a local end. Records 7 (log-in denied) and 10 (no connection, or none in time), besides
/// what resolving the local end records. A file that fails is told in the error log alone, and the rest goes on.
void backup_ftp_to_local(const BackupJob &job, BackupRun &run);

/// Copies from a local end to an FTP server. Records 5 (the source is missing), 6 (a directory or a file could not be
/// transferred) and 7 (log-in denied). Files on the server are never deleted.
void backup_local_to_ftp(const BackupJob &job, BackupRun &run);

} // namespace tsbackup
