// From an FTP server: a remote directory at a time, by the library's wildcard transfer.

#include "download.h"

#include "session.h"
#include "tsbackup/codes.h"
#include "tsbackup/log.h"
#include "tsbackup/paths.h"
#include "tsbackup_ftp.h"
#include "tsbackup_local.h"
#include "tsbackup_utils.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <set>
#include <string_view>
#include <sys/stat.h>
#include <vector>

namespace tsbackup {

namespace {

constexpr std::size_t kEntriesOfAHandle = 5'000;

constexpr mode_t kFolderMode = 0777;
constexpr mode_t kFileMode = 0666;

/// A file on its way. Without a stream there is none.
struct LocalFile {
    UniqueFile stream;
    std::string name;
    std::int64_t expected = -1; ///< bytes
    std::int64_t written = 0;
    std::int64_t mtime = -1; ///< the server's; not positive: unknown
};

struct ListedFile {
    std::string name;
    std::int64_t size = -1; ///< -1: the listing does not tell
};

/// One remote directory while it is fetched.
struct Directory {
    Download &download;
    std::string relative; ///< below the base; empty: the base itself
    std::string local;
    std::vector<std::string> folders; ///< to be fetched next, in the listing's order
    std::vector<ListedFile> apart;    ///< files that get a transfer of their own
    std::set<std::string> done;       ///< names that were dealt with, whatever became of them
    LocalFile file;
    int failed = 0;          ///< files of the transfer that is going on
    bool one_by_one = false; ///< no file is left to the wildcard transfer any more

    std::string local_path(const std::string &name) const { return local + "/" + name; }
};

// ---- names -----------------------------------------------------------------------------------------------------

bool is_this_or_parent(std::string_view name) { return name == "." || name == ".."; }

/// A listing names entries of its own directory and no other place.
bool has_place(const Directory &directory, const std::string &name) {
    const bool fits = !name.empty() && name.find('/') == std::string::npos &&
                      ftp_can_name(directory.download.endpoint, ftp_below(directory.relative, name)) &&
                      directory.local_path(name).size() < paths::buffer_size;
    if (!fits) TSBACKUP_LOG(level::error, "Refuse remote name %s\n", name.c_str());
    return fits;
}

/// The wildcard transfer decodes names once too often: such a file would be another one's content.
bool needs_transfer_of_its_own(const std::string &name) { return name.find('%') != std::string::npos; }

// ---- one file --------------------------------------------------------------------------------------------------

void report_failed_file(const Directory &directory, const std::string &name) {
    error_log_line(directory.download.run, "Failed to copy %s\n", ftp_below(directory.relative, name).c_str());
}

bool is_up_to_date(const std::string &path, std::int64_t remote_mtime) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
           ftp_is_up_to_date(timespec{remote_mtime, 0}, status.st_mtim);
}

/// Opens the local file anew. A link in its place is not followed, and nothing is waited for.
UniqueFile open_local(const std::string &path) {
    UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, kFileMode));
    if (!fd) return UniqueFile();
    UniqueFile stream(fdopen(fd.get(), "w"));
    if (stream) fd.release();
    return stream;
}

/// False when the file needs no transfer, or cannot have one; the latter is reported.
bool begin_file(Directory &directory, const std::string &name, std::int64_t listed_size) {
    Download &download = directory.download;
    FtpFileStatus remote;
    _ftp_stat(download.stat_handle.get(), download.endpoint, ftp_below(directory.relative, name), remote);

    const std::string path = directory.local_path(name);
    LocalFile file;
    file.name = name;
    file.expected = remote.size >= 0 ? remote.size : listed_size;
    if (remote.size > 0) {
        file.mtime = remote.mtime;
        if (is_up_to_date(path, remote.mtime)) return false;
    }
    file.stream = open_local(path);
    if (!file.stream) {
        TSBACKUP_LOG(level::error, "Cannot open %s (%s)\n", path.c_str(), error_text(errno).c_str());
        report_failed_file(directory, name);
        return false;
    }
    directory.file = std::move(file);
    return true;
}

void set_time(const Directory &directory, const LocalFile &file) {
    const timespec time{file.mtime, 0};
    const std::array<timespec, 2> times = {time, time};
    if (futimens(fileno(file.stream.get()), times.data()) == 0) return;
    std::array<char, 64> text{};
    ctime_r(&time.tv_sec, text.data());
    TSBACKUP_LOG(level::error, "%s %s UNIX time %ld is: %s (ctime)\n", __func__,
                 directory.local_path(file.name).c_str(), static_cast<long>(time.tv_sec), text.data());
}

/// Part of a file must not pass for the whole, should its time happen to be the server's.
void mark_partial(const LocalFile &file) {
    const std::array<timespec, 2> beginning{};
    futimens(fileno(file.stream.get()), beginning.data());
}

/// Closes the file that is open, if any. `failed`: its transfer ended before the server had said so.
void end_file(Directory &directory, bool failed) {
    LocalFile file = std::move(directory.file);
    directory.file = LocalFile{};
    if (!file.stream) return;

    const bool flushed = std::fflush(file.stream.get()) == 0;
    if (!failed && flushed && file.written == file.expected) {
        copy_log_line(directory.download.run, "Copy (F) %s\n", ftp_below(directory.relative, file.name).c_str());
        if (file.mtime > 0) set_time(directory, file);
        return;
    }
    mark_partial(file);
    ++directory.failed;
    report_failed_file(directory, file.name);
}

// ---- folders ---------------------------------------------------------------------------------------------------

/// Creates the local folder. A link in its place would lead elsewhere and is left alone.
bool make_folder(const Directory &directory, const std::string &name) {
    const std::string path = directory.local_path(name);
    if (mkdir(path.c_str(), kFolderMode) == 0) {
        copy_log_line(directory.download.run, "Copy (D) %s\n", ftp_below(directory.relative, name).c_str());
        return true;
    }
    struct stat status {};
    const int error = errno;
    if (error == EEXIST && lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) return true;
    TSBACKUP_LOG(level::error, "Cannot create folder %s (%s)\n", path.c_str(), error_text(error).c_str());
    report_failed_file(directory, name);
    return false;
}

// ---- what the library calls ------------------------------------------------------------------------------------

long begin_entry(const curl_fileinfo &entry, Directory &directory) {
    const std::string name = entry.filename != nullptr ? entry.filename : "";
    if (is_this_or_parent(name)) return CURL_CHUNK_BGN_FUNC_SKIP;
    if (directory.done.contains(name)) return CURL_CHUNK_BGN_FUNC_SKIP;
    directory.done.insert(name);
    ++directory.download.listed;

    switch (entry.filetype) {
    case CURLFILETYPE_FILE:
        if (!has_place(directory, name)) return CURL_CHUNK_BGN_FUNC_SKIP;
        if (directory.one_by_one || needs_transfer_of_its_own(name)) {
            directory.apart.push_back({name, entry.size});
            return CURL_CHUNK_BGN_FUNC_SKIP;
        }
        return begin_file(directory, name, entry.size) ? CURL_CHUNK_BGN_FUNC_OK : CURL_CHUNK_BGN_FUNC_SKIP;
    case CURLFILETYPE_DIRECTORY:
        if (has_place(directory, name) && make_folder(directory, name)) directory.folders.push_back(name);
        return CURL_CHUNK_BGN_FUNC_SKIP;
    default:
        TSBACKUP_LOG(level::error, "Unknown or un supported filetype %d for %s\n", static_cast<int>(entry.filetype),
                     name.c_str());
        return CURL_CHUNK_BGN_FUNC_SKIP;
    }
}

long on_chunk_begin(const void *entry, void *directory, int) {
    return begin_entry(*static_cast<const curl_fileinfo *>(entry), *static_cast<Directory *>(directory));
}

/// Called for entries without a transfer, too.
long on_chunk_end(void *directory) {
    end_file(*static_cast<Directory *>(directory), false);
    return CURL_CHUNK_END_FUNC_OK;
}

std::size_t on_data(const char *data, std::size_t size, std::size_t count, void *context) {
    auto &directory = *static_cast<Directory *>(context);
    LocalFile &file = directory.file;
    if (!file.stream) return size * count;
    const std::size_t put = std::fwrite(data, 1, size * count, file.stream.get());
    file.written += static_cast<std::int64_t>(put);
    directory.download.run.bytes += static_cast<std::int64_t>(put);
    backup_progress_record(&directory.download.run, 1);
    return put;
}

// ---- one directory ---------------------------------------------------------------------------------------------

/// A handle that has failed is given up with its connection: some servers answer out of step from then on.
bool renew(Download &download) {
    download.handle = ftp_open();
    download.listed = 0;
    return download.handle != nullptr;
}

/// The library remembers something of every entry of a listing for as long as its handle lives.
bool renew_in_time(Download &download) { return download.listed < kEntriesOfAHandle || renew(download); }

void set_up_transfer(Directory &directory, const std::string &relative, const std::string &suffix) {
    CURL *handle = directory.download.handle.get();
    ftp_prepare(handle, directory.download.endpoint, relative, suffix);
    ftp_set_timeouts(handle);
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, on_data);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &directory);
}

CURLcode perform(Directory &directory) {
    directory.failed = 0;
    const CURLcode result = ftp_perform_once(directory.download.handle.get());
    end_file(directory, result != CURLE_OK);
    if (result != CURLE_OK)
        TSBACKUP_LOG(level::error, "CURL failed. %d :%s\n", static_cast<int>(result), curl_easy_strerror(result));
    return result;
}

CURLcode list_and_fetch(Directory &directory) {
    CURL *handle = directory.download.handle.get();
    set_up_transfer(directory, directory.relative, "/*");
    curl_easy_setopt(handle, CURLOPT_WILDCARDMATCH, 1L);
    curl_easy_setopt(handle, CURLOPT_CHUNK_BGN_FUNCTION, on_chunk_begin);
    curl_easy_setopt(handle, CURLOPT_CHUNK_END_FUNCTION, on_chunk_end);
    curl_easy_setopt(handle, CURLOPT_CHUNK_DATA, &directory);
    return perform(directory);
}

bool is_without_server(CURLcode result) {
    return result == CURLE_OPERATION_TIMEDOUT || result == CURLE_COULDNT_CONNECT;
}

/// Puts a failure into the error log and the record. False when the run is over.
bool report_failure(Download &download, CURLcode result) {
    const char *text = curl_easy_strerror(result);
    if (is_without_server(result)) {
        error_log_line(download.run, "Cannot connect to server or connection timeout! %s\n", text);
        TSBACKUP_ERROR_SET(error_code::tool_failed, &download.run, "curl_easy_perform() return %d",
                           static_cast<int>(result));
    } else if (result == CURLE_LOGIN_DENIED) {
        error_log_line(download.run, "%s!\n", text);
        TSBACKUP_ERROR_SET(error_code::login_refused, &download.run, "curl_easy_perform() return %d",
                           static_cast<int>(result));
        return false;
    } else if (result != CURLE_OK) {
        TSBACKUP_LOG(level::error, "Ignore the CURL failure. %d :%s!\n", static_cast<int>(result), text);
    }
    return true;
}

/// Fetches the files of one directory. One that fails ends the library's transfer of all: the rest is listed again
/// then, on a new connection, to be fetched one by one.
CURLcode fetch_listed(Directory &directory) {
    Download &download = directory.download;
    CURLcode result = list_and_fetch(directory);
    if (!report_failure(download, result) || result == CURLE_OK) return result;
    if (!renew(download)) return CURLE_OUT_OF_MEMORY;
    if (directory.failed == 0 || result == CURLE_COULDNT_CONNECT) return result;

    directory.one_by_one = true;
    result = list_and_fetch(directory);
    if (report_failure(download, result) && result != CURLE_OK && !renew(download)) return CURLE_OUT_OF_MEMORY;
    return result;
}

/// Fetches what the wildcard transfer has left out. A file that fails is told, and the next one gets a new connection.
CURLcode fetch_apart(Directory &directory) {
    CURLcode result = CURLE_OK;
    for (const ListedFile &listed : directory.apart) {
        if (!begin_file(directory, listed.name, listed.size)) continue;
        set_up_transfer(directory, ftp_below(directory.relative, listed.name), "");
        result = perform(directory);
        if (!report_failure(directory.download, result)) return result;
        if (result == CURLE_OK) continue;
        if (!renew(directory.download)) return CURLE_OUT_OF_MEMORY;
        if (is_without_server(result)) return result;
    }
    return result;
}

} // namespace

CURLcode _ftp_mget_recurse(Download &download, const std::string &relative, const std::string &local_dir) {
    TSBACKUP_LOG(level::debug, "_ftp_mget_recurse(%s,%s)\n", relative.c_str(), local_dir.c_str());
    std::vector<std::string> folders;
    CURLcode result = CURLE_OK;
    {
        // Only the names of its folders outlive the directory: what is remembered does not grow with the depth.
        Directory directory{download, relative, local_dir, {}, {}, {}, {}, 0, false};
        result = fetch_listed(directory);
        if (result == CURLE_LOGIN_DENIED || !download.handle) return result;
        if (!directory.apart.empty()) result = fetch_apart(directory);
        if (result == CURLE_LOGIN_DENIED || !download.handle) return result;
        folders = std::move(directory.folders);
    }
    backup_progress_record(&download.run, 0);

    for (const std::string &name : folders) {
        if (!renew_in_time(download)) return CURLE_OUT_OF_MEMORY;
        result = _ftp_mget_recurse(download, ftp_below(relative, name), ftp_below(local_dir, name));
        if (!download.handle) return result;
        if (result == CURLE_LOGIN_DENIED) {
            report_failure(download, result);
            return result;
        }
    }
    return result;
}

void backup_ftp_to_local(const BackupJob &job, BackupRun &run) {
    const auto destination = local_path_resolve(job, run, Side::destination);
    if (!destination) return;

    run.dst_root_len = static_cast<std::int32_t>(destination->size());
    Download download{ftp_endpoint(job.src_path, job.src_login, job.src_password, job.src_port), run, ftp_open(),
                      ftp_open()};
    if (download.handle && download.stat_handle)
        _ftp_mget_recurse(download, "", *destination);
    else
        TSBACKUP_ERROR_SET(error_code::tool_failed, &run, "curl_easy_init() failed");
    local_endpoint_release(job, run, *destination, Side::destination);
}

} // namespace tsbackup
