// The rsync command line of a job.

#pragma once

#include "tsbackup/job.h"
#include "tsbackup/run.h"

#include <cstddef>
#include <dirent.h>
#include <string>
#include <vector>

namespace tsbackup {

/// The fields of a job's rsync server.
struct RsyncEndpoint {
    const JobText &path;
    const JobText &login;
    const JobText &password;
    const JobText &port;
};

/// The server's fields: those of the source (`as_source` not 0) or of the destination.
RsyncEndpoint rsync_endpoint(const BackupJob &job, int as_source);

/// Appends every option that depends on the job. `as_source`: 1 when the rsync server is the source. `remote_shell`: 1
/// over ssh, 0 for a daemon. `attempt`: 0, or 1 for the second one, which carries no access lists and permissions.
/// Returns 0, or -1 when the local destination's disk is not there; what was appended before stays.
int rsync_build_options(const BackupJob &job, const BackupRun &run, int as_source, int remote_shell, int attempt,
                        std::vector<std::string> &arguments);

/// Takes "host:path" (ssh, `*remote_shell` becomes 1) or "host::module/path" (daemon, 0) apart. The host is cut to its
/// buffer. Returns what follows the colons, null for a path without any.
const char *rsync_split_remote_path(const char *path, char *host, std::size_t host_size, int *remote_shell);

/// The login as a prefix of the host ("" or "LOGIN@"), and the environment entry with the password, for a daemon alone
/// ("" otherwise). The password goes nowhere else.
void rsync_login_and_password(const RsyncEndpoint &endpoint, int remote_shell, std::string &login_prefix,
                              std::string &environment_entry);

/// 1 when the path lies on a file system that keeps Linux owners and modes (btrfs, ext2 to ext4), else 0.
int fs_keeps_ownership(const char *path);

/// Accepts the folders of a volume whose names do not begin with ".".
int visible_subdir_filter(const dirent *entry);

} // namespace tsbackup
