#pragma once

#include "session.h"
#include "tsbackup/run.h"

#include <string>

namespace tsbackup {

/// How far the file on its way is, as the library last said.
struct UploadProgress {
    double total = 0;
    double now = 0;
};

/// An upload as a whole. Commands have a connection of their own: they change the directory in which a server looks for
/// what an address names.
struct Upload {
    FtpEndpoint endpoint;
    BackupRun &run;
    UniqueCurl command_handle;
    UniqueCurl transfer_handle;
    UploadProgress progress;
};

/// Whether a remote directory exists, and creating one. 0, or the library's result; a failure is reported, except that
/// a missing directory is CURLE_QUOTE_ERROR without a report.
CURLcode _ftp_isdir(Upload &upload, const std::string &relative);
CURLcode _ftp_mkdir(Upload &upload, const std::string &relative);

/// Whether the server takes the command that sets a file's time. Being the first to talk to the server, it also finds
/// out whether the upload can keep to `old_tls`: with TLS 1.3 a server sends tickets whenever it gets to it, and the
/// library closes the connection of a file without having read them, upon which the end of the file is lost on its way.
bool _check_site_command(CURL *handle, FtpEndpoint &endpoint);

/// Adds to the run's bytes what has gone out since the last call. `now` and `total` are of the file on its way; a `now`
/// that fell means that another file began.
void ftp_count_progress(Upload &upload, double total, double now);

/// Copies a local directory into a remote one, which is created when it is missing, and what lies below. Returns the
/// last result of the library; a denied log-in ends the whole upload.
CURLcode _ftp_mput_recurse(Upload &upload, const std::string &relative, const std::string &local_dir);

} // namespace tsbackup
