#include "session.h"

#include "tsbackup/log.h"
#include "tsbackup_do.h"
#include "tsbackup_error.h"

#include <algorithm>
#include <cstdio>
#include <string_view>
#include <sys/stat.h>

namespace tsbackup {

namespace {

constexpr char kAnonymous[] = "anonymous";
constexpr char kAnonymousPassword[] = "tsbackup@localhost";
constexpr long kLowSpeed = 1;         // bytes per second
constexpr long kLowSpeedSeconds = 30; // for so long
constexpr long kResponseSeconds = 30;
constexpr int kTries = 3;
constexpr long kServiceClosing = 421;

constexpr int kLongestPause = 128; // milliseconds

constexpr std::int32_t kTimeResolution = 100'000; // nanoseconds
constexpr std::int32_t kCoarseTimes = 1;

std::size_t discard(const char *, std::size_t size, std::size_t count, void *) { return size * count; }

/// The library's trace without the password: it shows every command as it is sent.
int trace(CURL *, curl_infotype type, char *data, std::size_t size, void *) {
    constexpr std::string_view kPassword = "PASS ";
    const std::string_view text(data, size);
    const char *mark = nullptr;
    if (type == CURLINFO_TEXT) mark = "* ";
    if (type == CURLINFO_HEADER_IN) mark = "< ";
    if (type == CURLINFO_HEADER_OUT) mark = "> ";
    if (mark == nullptr) return 0;
    if (type == CURLINFO_HEADER_OUT && text.starts_with(kPassword))
        std::fprintf(stderr, "%sPASS ...\n", mark);
    else
        std::fprintf(stderr, "%s%.*s", mark, static_cast<int>(size), data);
    return 0;
}

CURLM *loop_of(CURL *handle) {
    char *loop = nullptr;
    curl_easy_getinfo(handle, CURLINFO_PRIVATE, &loop);
    return reinterpret_cast<CURLM *>(loop);
}

/// The result of the only transfer of a loop.
CURLcode result_of(CURLM *loop) {
    int left = 0;
    const CURLMsg *message = curl_multi_info_read(loop, &left);
    return message != nullptr && message->msg == CURLMSG_DONE ? message->data.result : CURLE_FAILED_INIT;
}

} // namespace

void CloseFtp::operator()(CURL *handle) const {
    CURLM *loop = loop_of(handle);
    curl_easy_cleanup(handle);
    curl_multi_cleanup(loop);
}

UniqueCurl ftp_open() {
    CURLM *loop = curl_multi_init();
    CURL *handle = loop != nullptr ? curl_easy_init() : nullptr;
    if (handle == nullptr) {
        curl_multi_cleanup(loop);
        return UniqueCurl();
    }
    curl_easy_setopt(handle, CURLOPT_PRIVATE, loop);
    return UniqueCurl(handle);
}

// The library's own loop sleeps for up to a second at each file while the server has long answered: it watches the data
// connection alone at times, and nothing at others. This one looks again at once, and less often the longer nothing
// comes.
CURLcode ftp_perform_once(CURL *handle) {
    CURLM *loop = loop_of(handle);
    if (curl_multi_add_handle(loop, handle) != CURLM_OK) return CURLE_FAILED_INIT;
    int running = 1;
    int pause = 0;
    while (curl_multi_perform(loop, &running) == CURLM_OK && running != 0) {
        int ready = 0;
        if (curl_multi_poll(loop, nullptr, 0, pause, &ready) != CURLM_OK) break;
        pause = ready != 0 ? 0 : std::clamp(2 * pause, 1, kLongestPause);
    }
    const CURLcode result = result_of(loop);
    curl_multi_remove_handle(loop, handle);
    return result;
}

void ftp_prepare(CURL *handle, const FtpEndpoint &endpoint, const std::string &relative, const std::string &suffix) {
    CURLM *loop = loop_of(handle);
    curl_easy_reset(handle);
    curl_easy_setopt(handle, CURLOPT_PRIVATE, loop);
    curl_easy_setopt(handle, CURLOPT_USERNAME, endpoint.login.empty() ? kAnonymous : endpoint.login.c_str());
    curl_easy_setopt(handle, CURLOPT_PASSWORD,
                     endpoint.password.empty() ? kAnonymousPassword : endpoint.password.c_str());
    if (endpoint.port != 0) curl_easy_setopt(handle, CURLOPT_PORT, static_cast<long>(endpoint.port));
    curl_easy_setopt(handle, CURLOPT_URL, ftp_url(endpoint, relative, suffix).c_str());
    // Encryption is taken when it is offered and proves nothing: servers at home have certificates of their own making.
    curl_easy_setopt(handle, CURLOPT_USE_SSL, static_cast<long>(CURLUSESSL_TRY));
    curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, 0L);
    if (endpoint.old_tls) curl_easy_setopt(handle, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_MAX_TLSv1_2));
    // Signals are the hang-up handler's.
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, FtpEndpoint::scheme);
    curl_easy_setopt(handle, CURLOPT_DEBUGFUNCTION, trace);
    curl_easy_setopt(handle, CURLOPT_VERBOSE, transfer_trace() ? 1L : 0L);
}

void ftp_set_timeouts(CURL *handle) {
    curl_easy_setopt(handle, CURLOPT_LOW_SPEED_LIMIT, kLowSpeed);
    curl_easy_setopt(handle, CURLOPT_LOW_SPEED_TIME, kLowSpeedSeconds);
    curl_easy_setopt(handle, CURLOPT_FTP_RESPONSE_TIMEOUT, kResponseSeconds);
}

CURLcode ftp_perform(CURL *handle, const std::string &path) {
    CURLcode result = ftp_perform_once(handle);
    for (int retry = 1; retry < kTries && result == CURLE_OPERATION_TIMEDOUT; ++retry) {
        long response = 0;
        curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &response);
        if (response != kServiceClosing) break;
        TSBACKUP_LOG(level::info,
                     "%s:%d FTP server timeout reached. Try curl_easy_perform again. rpath = %s, retry = %d\n",
                     __func__, __LINE__, path.c_str(), retry);
        result = ftp_perform_once(handle);
    }
    return result;
}

CURLcode ftp_command(CURL *handle, const FtpEndpoint &endpoint, const std::string &command, const std::string &path) {
    // A line end would begin another command.
    if (command.find_first_of("\r\n") != std::string::npos) return CURLE_URL_MALFORMAT;
    ftp_prepare(handle, endpoint, "", "");
    const UniqueCurlList commands(curl_slist_append(nullptr, command.c_str()));
    if (!commands) return CURLE_OUT_OF_MEMORY;
    curl_easy_setopt(handle, CURLOPT_QUOTE, commands.get());
    curl_easy_setopt(handle, CURLOPT_NOBODY, 1L);
    curl_easy_setopt(handle, CURLOPT_HEADER, 1L);
    curl_easy_setopt(handle, CURLOPT_FTP_FILEMETHOD, static_cast<long>(CURLFTPMETHOD_NOCWD));
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, discard);
    curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, discard);
    const CURLcode result = ftp_perform(handle, path);
    curl_easy_setopt(handle, CURLOPT_QUOTE, nullptr);
    return result;
}

CURLcode _ftp_stat(CURL *handle, const FtpEndpoint &endpoint, const std::string &relative, FtpFileStatus &status) {
    status = FtpFileStatus{};
    ftp_prepare(handle, endpoint, relative, "");
    curl_easy_setopt(handle, CURLOPT_NOBODY, 1L);
    curl_easy_setopt(handle, CURLOPT_FILETIME, 1L);
    curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, discard);
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, discard);
    const CURLcode result = ftp_perform(handle, ftp_join(endpoint, relative));
    if (result != CURLE_OK) return result;
    curl_off_t value = -1;
    if (curl_easy_getinfo(handle, CURLINFO_FILETIME_T, &value) == CURLE_OK) status.mtime = value;
    value = -1;
    if (curl_easy_getinfo(handle, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &value) == CURLE_OK) status.size = value;
    return result;
}

bool ftp_is_up_to_date(const timespec &source, const timespec &destination) {
    struct stat src {};
    struct stat dst {};
    src.st_mtim = source;
    dst.st_mtim = destination;
    return mtime_compare(src, dst, kTimeResolution, kCoarseTimes) == 0;
}

} // namespace tsbackup
