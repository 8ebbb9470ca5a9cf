// The CIFS backends: SMB shares that are mounted and copied like a folder, and shares that are fetched as an archive.
//
// The mounted share is the kernel's; this unit finds the dialect that the server speaks, and keeps the password out of
// every command line and diagnostic.

#pragma once

#include "tsbackup/job.h"
#include "tsbackup/run.h"

namespace tsbackup {

/// Copies from a mounted share to a local end. Records 1 (malformed remote path, a share that cannot be mounted, no
/// mount point), besides what resolving the local end and copying record. A folder that is not there on the share is
/// not reported: the run copies nothing. Then, and when the local end cannot be had, the extensions switch is not put
/// back.
void backup_cifs_to_local(const BackupJob &job, BackupRun &run);

/// Copies from a local end to a mounted share. Records 1 (malformed remote path, no mount point), 2 (a share that
/// cannot be mounted), 4 (the folder on the share is a file or cannot be created; the share stays mounted then until
/// the job's next run takes it down) and 5 (the source is missing), besides what resolving the local end and copying
/// record. Sets the run's `no_chown` when the share keeps no owners.
void backup_local_to_cifs(const BackupJob &job, BackupRun &run);

/// Fetches a share, or a folder of it, as an archive and unpacks it at a local end: all files on a full run, those
/// whose archive bit is set on an incremental one. Both reset the bits on the server.
///
/// Records 1 (malformed remote path, no connection), 6 (smbclient or tar failed, a file could not be read), 7 (log-in
/// or access refused), 8 (no space left) and 99 (any other status of the server), besides what resolving the local end
/// records. Owners and access lists do not travel.
void backup_cifsab_to_local(const BackupJob &job, BackupRun &run);

} // namespace tsbackup
