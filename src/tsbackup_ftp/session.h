// One connection to an FTP server, and the requests that both directions make.

#pragma once

#include "endpoint.h"
#include "tsbackup/owners.h"

#include <cstdint>
#include <curl/curl.h>
#include <memory>
#include <string>

namespace tsbackup {

/// A handle comes with the loop that drives it, which keeps its connection.
struct CloseFtp {
    void operator()(CURL *handle) const;
};
using UniqueCurl = std::unique_ptr<CURL, CloseFtp>;
using UniqueCurlList = std::unique_ptr<curl_slist, ReleaseWith<curl_slist_free_all>>;

/// A handle without a connection. Empty when there is no memory.
UniqueCurl ftp_open();

/// Forgets what a handle was set to (its connection stays) and sets it up for a request below the endpoint's base: who
/// logs in, the port, the address, encryption when the server offers it. `suffix` ends the address as it stands.
void ftp_prepare(CURL *handle, const FtpEndpoint &endpoint, const std::string &relative, const std::string &suffix);

/// The time-outs of a transfer: a server that sends nothing for half a minute is given up.
void ftp_set_timeouts(CURL *handle);

/// Performs what a handle was set up for, once.
CURLcode ftp_perform_once(CURL *handle);

/// Performs a request, and up to twice more when the server had closed the idle connection (28, its last code 421).
CURLcode ftp_perform(CURL *handle, const std::string &path);

/// Sends one command of the protocol and transfers nothing. `path` is for messages.
CURLcode ftp_command(CURL *handle, const FtpEndpoint &endpoint, const std::string &command, const std::string &path);

/// What a server says of a file; -1 each: unknown.
struct FtpFileStatus {
    std::int64_t mtime = -1; ///< seconds since the epoch
    std::int64_t size = -1;
};
CURLcode _ftp_stat(CURL *handle, const FtpEndpoint &endpoint, const std::string &relative, FtpFileStatus &status);

/// Whether a file that was last written at `source` is the one that was copied at `destination`: their times alone
/// tell, in units of a tenth of a millisecond, and with tolerance for a destination that keeps whole seconds.
bool ftp_is_up_to_date(const timespec &source, const timespec &destination);

} // namespace tsbackup
