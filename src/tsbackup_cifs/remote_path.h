#pragma once

#include "tsbackup/job.h"

#include <optional>
#include <string>

namespace tsbackup {

/// A share on a server, as a job's remote path names it.
struct RemotePath {
    std::string host;      ///< cut to 63 characters
    std::string share;     ///< cut to 63 characters
    std::string remainder; ///< the path below the share as it is written, without separators at its start
    char separator = '/';  ///< what separates the components of the whole path, '/' or '\\'

    /// The path below the share with "/" between its components.
    std::string folder() const;
};

/// Takes a path of the form "//HOST/SHARE/FOLDER", or the same with backslashes, apart. Nothing when it is absent or
/// does not begin with two equal separators. `depth_out` (may be null) becomes 0 when nothing follows the share,
/// otherwise one more than the number of components behind it.
std::optional<RemotePath> remote_path_split(const JobText &path, int *depth_out);

/// Who logs in to a server.
struct CifsLogin {
    std::string user;
    std::string domain; ///< empty: none
};

/// Takes a login apart: DOMAIN\USER, else DOMAIN/USER, else USER@DOMAIN, else a user alone.
CifsLogin cifs_login_split(const std::string &login);

} // namespace tsbackup
