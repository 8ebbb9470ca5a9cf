// The remote end of an FTP job, and the names that lead to a file there.

#pragma once

#include "tsbackup/job.h"

#include <cstdint>
#include <string>

namespace tsbackup {

struct FtpEndpoint {
    static constexpr char scheme[] = "ftp";
    std::string host;
    std::int32_t port = 0; ///< 0: the protocol's own
    std::string login;     ///< empty: anonymous
    std::string password;
    std::string path;        ///< base of all remote paths; empty: where the log-in leads
    bool site_utime = false; ///< the server sets times of files (uploads)
    bool old_tls = false;    ///< no newer encryption than TLS 1.2 (uploads, see _check_site_command)
};

/// Takes "ftp://HOST:PORT/PATH" apart (the scheme, the port and the path may be missing). A positive port of the job's
/// own takes the place of the one in the text.
FtpEndpoint ftp_endpoint(const JobText &url, const JobText &login, const JobText &password, const JobText &port);

/// The path of something below the endpoint's base, "." for the base itself when it is empty. Cut at 4095 characters.
std::string ftp_join(const FtpEndpoint &endpoint, const std::string &relative);

/// Whether `ftp_join` gives the whole path, and a command line of the protocol can hold it: a cut path, or one with a
/// line end in it, would name something else.
bool ftp_can_name(const FtpEndpoint &endpoint, const std::string &relative);

/// The address of something below the base, escaped; `suffix` is not. The bare host with neither.
std::string ftp_url(const FtpEndpoint &endpoint, const std::string &relative, const std::string &suffix);

/// A name below a path; the name alone below an empty one.
std::string ftp_below(const std::string &relative, const std::string &name);

} // namespace tsbackup
