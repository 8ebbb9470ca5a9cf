// To an FTP server: the local tree is walked, a file is sent when the server's copy has another time.

#include "upload.h"

#include "tsbackup/codes.h"
#include "tsbackup/log.h"
#include "tsbackup/owners.h"
#include "tsbackup_ftp.h"
#include "tsbackup_local.h"
#include "tsbackup_utils.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <vector>

namespace tsbackup {

namespace {

/// What counts as progress; the library tells it as a floating-point number.
constexpr double kSomething = 0.1;

// ---- the probe -------------------------------------------------------------------------------------------------

/// What the server's replies say of the command that was sent last.
struct Replies {
    bool not_implemented = false;
};

/// The replies to the log-in come here, too. The last one is that to the command.
std::size_t on_reply(const char *line, std::size_t size, std::size_t count, void *context) {
    auto &replies = *static_cast<Replies *>(context);
    const std::string_view text(line, size * count);
    TSBACKUP_LOG(level::debug, "%.*s", static_cast<int>(text.size()), text.data());
    const bool has_code = text.find("504") != std::string_view::npos || text.find("502") != std::string_view::npos;
    replies.not_implemented = has_code && text.find("not implemented") != std::string_view::npos;
    return text.size();
}

CURLcode probe(CURL *handle, const FtpEndpoint &endpoint, Replies &replies) {
    ftp_prepare(handle, endpoint, "", "");
    curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, on_reply);
    curl_easy_setopt(handle, CURLOPT_HEADERDATA, &replies);
    curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, "site utime");
    return ftp_perform(handle, ftp_join(endpoint, ""));
}

// ---- one file --------------------------------------------------------------------------------------------------

int on_progress(void *context, curl_off_t download_total, curl_off_t download_now, curl_off_t upload_total,
                curl_off_t upload_now) {
    const auto total = static_cast<double>(upload_total);
    const auto now = static_cast<double>(upload_now);
    TSBACKUP_LOG(level::debug, "_progress dltotal:'%f', dlnow:'%f', ultotal:'%f', ulnow:'%f'\n",
                 static_cast<double>(download_total), static_cast<double>(download_now), total, now);
    ftp_count_progress(*static_cast<Upload *>(context), total, now);
    return 0;
}

CURLcode report_failed_upload(Upload &upload, CURLcode result) {
    TSBACKUP_LOG(level::error, "curl_easy_perform() failed: %d: %s\n", static_cast<int>(result),
                 curl_easy_strerror(result));
    TSBACKUP_ERROR_SET(error_code::copy_failed, &upload.run, "Cannot copy to destination\n");
    return result;
}

CURLcode send_file(Upload &upload, const std::string &relative, std::FILE *file, const struct stat &status) {
    CURL *handle = upload.transfer_handle.get();
    ftp_prepare(handle, upload.endpoint, relative, "");
    ftp_set_timeouts(handle);
    curl_easy_setopt(handle, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(handle, CURLOPT_READDATA, file);
    curl_easy_setopt(handle, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(status.st_size));
    curl_easy_setopt(handle, CURLOPT_XFERINFOFUNCTION, on_progress);
    curl_easy_setopt(handle, CURLOPT_XFERINFODATA, &upload);
    curl_easy_setopt(handle, CURLOPT_NOPROGRESS, 0L);
    return ftp_perform_once(handle);
}

/// Sets the time of a file on the server. Every reply to a SITE command is an error to the library, a success as well.
void _set_utime_to_remote(Upload &upload, const std::string &relative, std::int64_t mtime) {
    const time_t seconds = mtime;
    struct tm utc {};
    if (gmtime_r(&seconds, &utc) == nullptr) return;
    const std::string path = ftp_join(upload.endpoint, relative);
    const std::optional<std::string> command =
        str_printf("site utime %d%02d%02d%02d%02d%02d /%s", utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday,
                   utc.tm_hour, utc.tm_min, utc.tm_sec, path.c_str());
    if (!command) return;

    CURL *handle = upload.command_handle.get();
    ftp_prepare(handle, upload.endpoint, "", "");
    curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, command->c_str());
    const CURLcode result = ftp_perform(handle, path);
    if (result != CURLE_OK && result != CURLE_FTP_COULDNT_RETR_FILE)
        TSBACKUP_LOG(level::error, "curl_easy_perform() failed: %d %s\n", static_cast<int>(result),
                     curl_easy_strerror(result));
}

/// Part of a file must not pass for the whole, should the moment at which it broke off happen to be the source's time.
/// Where the server does not set times, or is gone, nothing can be done.
void mark_partial(Upload &upload, const std::string &relative) {
    const bool anything_went_out = upload.progress.now > 0;
    if (anything_went_out && upload.endpoint.site_utime) _set_utime_to_remote(upload, relative, 0);
}

/// Opens a regular file; a link is not followed, and nothing is waited for.
UniqueFile open_regular(const std::string &path, struct stat &status) {
    UniqueFd fd(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!fd || fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode)) return UniqueFile();
    UniqueFile file(fdopen(fd.get(), "rb"));
    if (file) fd.release();
    return file;
}

CURLcode _ftp_put_one(Upload &upload, const std::string &relative, const std::string &path) {
    TSBACKUP_LOG(level::debug, "%s need to copy.\n", path.c_str());
    struct stat status {};
    const UniqueFile file = open_regular(path, status);
    if (!file) return report_failed_upload(upload, CURLE_READ_ERROR);
    TSBACKUP_LOG(level::debug, "_ftp_put_one() %s ==> %s\n", path.c_str(), relative.c_str());
    if (!ftp_can_name(upload.endpoint, relative)) return report_failed_upload(upload, CURLE_URL_MALFORMAT);

    const CURLcode result = send_file(upload, relative, file.get(), status);
    if (result != CURLE_OK) {
        report_failed_upload(upload, result);
        mark_partial(upload, relative);
        // Some servers answer out of step after a failure.
        upload.transfer_handle = ftp_open();
        return upload.transfer_handle ? result : CURLE_OUT_OF_MEMORY;
    }
    if (upload.endpoint.site_utime) _set_utime_to_remote(upload, relative, status.st_mtim.tv_sec);
    copy_log_line(upload.run, "Copy (F) %s\n", relative.c_str());
    return CURLE_OK;
}

CURLcode put_if_newer(Upload &upload, const std::string &relative, const std::string &path, const struct stat &status) {
    FtpFileStatus remote;
    if (ftp_can_name(upload.endpoint, relative))
        _ftp_stat(upload.transfer_handle.get(), upload.endpoint, relative, remote);
    if (remote.mtime >= 0 && ftp_is_up_to_date(status.st_mtim, timespec{remote.mtime, 0})) return CURLE_OK;
    return _ftp_put_one(upload, relative, path);
}

// ---- one directory ---------------------------------------------------------------------------------------------

/// Makes sure that the remote directory exists.
CURLcode provide_directory(Upload &upload, const std::string &relative) {
    const std::string path = ftp_join(upload.endpoint, relative);
    const CURLcode found = _ftp_isdir(upload, relative);
    if (found == CURLE_OK) {
        TSBACKUP_LOG(level::debug, "%s already exists\n", path.c_str());
        return CURLE_OK;
    }
    if (found == CURLE_QUOTE_ERROR) return _ftp_mkdir(upload, relative);
    TSBACKUP_LOG(level::debug, "_isdir(%s) returns error rc=%d\n", path.c_str(), static_cast<int>(found));
    return found;
}

/// Entries that are no part of a backup.
bool is_left_out(const char *name) {
    return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0 || std::strcmp(name, "snapshot") == 0;
}

bool is_over(const Upload &upload, CURLcode result) { return result == CURLE_LOGIN_DENIED || !upload.transfer_handle; }

/// Sends the files of a directory and notes its folders, which come after it: no listing stays open meanwhile.
CURLcode put_files(Upload &upload, const std::string &relative, const std::string &local_dir,
                   std::vector<std::string> &folders) {
    const UniqueDir listing(opendir(local_dir.c_str()));
    if (!listing) {
        TSBACKUP_LOG(level::error, "Cannot open %s (%s)\n", local_dir.c_str(), error_text(errno).c_str());
        return report_failed_upload(upload, CURLE_READ_ERROR);
    }
    CURLcode result = CURLE_OK;
    while (const dirent *entry = readdir(listing.get())) {
        struct stat status {};
        if (is_left_out(entry->d_name) ||
            fstatat(dirfd(listing.get()), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0)
            continue;
        if (S_ISDIR(status.st_mode)) folders.emplace_back(entry->d_name);
        if (!S_ISREG(status.st_mode)) continue;
        result = put_if_newer(upload, ftp_below(relative, entry->d_name), local_dir + "/" + entry->d_name, status);
        if (is_over(upload, result)) break;
    }
    return result;
}

} // namespace

void ftp_count_progress(Upload &upload, double total, double now) {
    UploadProgress &last = upload.progress;
    double gone_out = 0;
    if (now > last.now + kSomething)
        gone_out = now - last.now;
    else if (now < last.now - kSomething)
        gone_out = last.total - last.now + now;
    if (gone_out > 0) {
        upload.run.bytes += static_cast<std::int64_t>(gone_out);
        backup_progress_record(&upload.run, 1);
    }
    last = {total, now};
}

bool _check_site_command(CURL *handle, FtpEndpoint &endpoint) {
    Replies replies;
    endpoint.old_tls = true;
    CURLcode result = probe(handle, endpoint, replies);
    if (result == CURLE_SSL_CONNECT_ERROR) {
        endpoint.old_tls = false;
        result = probe(handle, endpoint, replies);
    }
    if (result == CURLE_OK || result == CURLE_FTP_COULDNT_RETR_FILE) return !replies.not_implemented;
    TSBACKUP_LOG(level::error, "%s curl_easy_perform failed: %d %s\n", __func__, static_cast<int>(result),
                 curl_easy_strerror(result));
    return false;
}

CURLcode _ftp_isdir(Upload &upload, const std::string &relative) {
    const std::string path = ftp_join(upload.endpoint, relative);
    const CURLcode result = ftp_can_name(upload.endpoint, relative)
                                ? ftp_command(upload.command_handle.get(), upload.endpoint, "CWD /" + path, path)
                                : CURLE_URL_MALFORMAT;
    if (result == CURLE_OK || result == CURLE_QUOTE_ERROR) return result;

    const char *text = curl_easy_strerror(result);
    TSBACKUP_LOG(level::error, "curl_easy_perform('CWD %s') failed: %d %s\n", path.c_str(), static_cast<int>(result),
                 text);
    if (result == CURLE_LOGIN_DENIED) {
        error_log_line(upload.run, "Failed to login the remote server! %s\n", text);
        TSBACKUP_ERROR_SET(error_code::login_refused, &upload.run, "Login failed to destination\n");
    } else {
        error_log_line(upload.run, "Failed to run CWD command! %s\n", text);
        TSBACKUP_ERROR_SET(error_code::copy_failed, &upload.run, "Error from curl %s\n", text);
    }
    return result;
}

CURLcode _ftp_mkdir(Upload &upload, const std::string &relative) {
    const std::string path = ftp_join(upload.endpoint, relative);
    TSBACKUP_LOG(level::debug, "_ftp_mkdir() no dir exist, create %s\n", path.c_str());
    const CURLcode result = ftp_command(upload.command_handle.get(), upload.endpoint, "MKD /" + path, path);
    if (result != CURLE_OK) {
        error_log_line(upload.run, "Failed to create remote directory %s! %s\n", path.c_str(),
                       curl_easy_strerror(result));
        TSBACKUP_ERROR_SET(error_code::copy_failed, &upload.run, "Cannot create remote directory '%s'\n", path.c_str());
        return result;
    }
    copy_log_line(upload.run, "Copy (D) %s\n", relative.c_str());
    return CURLE_OK;
}

CURLcode _ftp_mput_recurse(Upload &upload, const std::string &relative, const std::string &local_dir) {
    TSBACKUP_LOG(level::debug, "_ftp_mput_recurse(%s,%s)\n", relative.c_str(), local_dir.c_str());
    CURLcode result = provide_directory(upload, relative);
    if (result != CURLE_OK) return result;

    std::vector<std::string> folders;
    result = put_files(upload, relative, local_dir, folders);
    for (const std::string &name : folders) {
        if (is_over(upload, result)) break;
        result = _ftp_mput_recurse(upload, ftp_below(relative, name), ftp_below(local_dir, name));
    }
    return result;
}

void backup_local_to_ftp(const BackupJob &job, BackupRun &run) {
    const auto source = local_path_resolve(job, run, Side::source);
    if (!source) {
        const char *share = text_or_empty(job.src_share_proto);
        const char *path = text_or_empty(job.src_path);
        error_log_line(run, "/%s/%s does not exist!\n", share, path);
        TSBACKUP_ERROR_SET(error_code::path_missing, &run, "/%s/%s not exists", share, path);
        return;
    }

    run.src_root_len = static_cast<std::int32_t>(source->size());
    Upload upload{
        ftp_endpoint(job.dst_path, job.dst_login, job.dst_password, job.dst_port), run, ftp_open(), ftp_open(), {}};
    if (upload.command_handle && upload.transfer_handle) {
        upload.endpoint.site_utime = _check_site_command(upload.command_handle.get(), upload.endpoint);
        // Kept as it is: nothing is ever deleted on the server, whatever the job asks for.
        if (run.full != 0 && decimal_value(job.opt_remove_previous_backup) != 0)
            TSBACKUP_LOG(level::debug, "_ftp_rmtree(%s)\n", ftp_join(upload.endpoint, "").c_str());
        _ftp_mput_recurse(upload, "", *source);
        backup_progress_record(&run, 0);
    } else {
        TSBACKUP_ERROR_SET(error_code::tool_failed, &run, "curl_easy_init() failed");
    }
    local_source_check(*source, run);
    local_endpoint_release(job, run, *source, Side::source);
}

} // namespace tsbackup
