#pragma once

#include "session.h"
#include "tsbackup/run.h"

#include <cstddef>
#include <string>

namespace tsbackup {

/// A download as a whole.
struct Download {
    FtpEndpoint endpoint;
    BackupRun &run;
    UniqueCurl handle;      ///< lists and fetches; renewed after a failure, empty when that failed
    UniqueCurl stat_handle; ///< asks for a file's size and time meanwhile
    std::size_t listed = 0; ///< entries that the handle was told of
};

/// Fetches what a remote directory holds into a local one that exists, then its folders. Returns the last result of the
/// library; a denied log-in ends the whole download.
CURLcode _ftp_mget_recurse(Download &download, const std::string &relative, const std::string &local_dir);

} // namespace tsbackup
