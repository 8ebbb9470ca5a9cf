#include "log_parser.h"
#include "tsbackup/codes.h"
#include "tsbackup/log.h"
#include "tsbackup/owners.h"
#include "tsbackup/paths.h"
#include "tsbackup_error.h"
#include "tsbackup_http.h"
#include "tsbackup_local.h"
#include "tsbackup_utils.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <optional>
#include <string>
#include <string_view>
#include <unistd.h>

namespace tsbackup {

namespace {

constexpr int kNiceness = 10;
constexpr std::size_t kLongestHost = 63;

/// A web address without its scheme, as the command names it.
struct WebAddress {
    std::string host;                ///< with its port, if any
    std::optional<std::string> path; ///< behind the slash that ends the host, without slashes at its end
};

WebAddress web_address(const BackupJob &job) {
    constexpr std::string_view kScheme = "http://";
    std::string_view url = text_or_empty(job.src_path);
    if (url.starts_with(kScheme)) url.remove_prefix(kScheme.size());

    WebAddress address;
    address.host = url.substr(0, std::min(url.find('/'), kLongestHost));
    // Kept as it is: one character ends the host, also when the host was cut and it is none of the separators.
    url.remove_prefix(std::min(address.host.size() + 1, url.size()));
    const std::size_t end = url.find_last_not_of('/');
    address.path = std::string(url.substr(0, end == std::string_view::npos ? 0 : end + 1));

    const std::int32_t port = decimal_value(job.src_port);
    if (address.host.find(':') == std::string::npos && port > 0) {
        address.host += ":" + std::to_string(port);
        address.host.resize(std::min(address.host.size(), kLongestHost));
    }
    return address;
}

/// Puts hang-ups off while the object lives.
class HangUpsPutOff {
  public:
    HangUpsPutOff() {
        sigset_t hang_up;
        sigemptyset(&hang_up);
        sigaddset(&hang_up, SIGHUP);
        pthread_sigmask(SIG_BLOCK, &hang_up, &before_);
    }
    ~HangUpsPutOff() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    HangUpsPutOff(const HangUpsPutOff &) = delete;
    HangUpsPutOff &operator=(const HangUpsPutOff &) = delete;

  private:
    sigset_t before_{};
};

/// A setting's value as a line of the configuration file. A line end in it would begin another setting, and there are
/// some that run programs.
std::string one_line(const JobText &text) {
    std::string value = text_or_empty(text);
    return value.substr(0, value.find_first_of("\r\n"));
}

/// The configuration file that tells wget who logs in, for as long as the object lives; gone with it, and on a cancel.
class Credentials {
  public:
    explicit Credentials(const BackupJob &job) {
        if (!job.src_login || job.src_login->empty() || !make_file()) return;
        std::string settings = "http_user=" + one_line(job.src_login) + "\n";
        if (job.src_password && !job.src_password->empty())
            settings += "http_password=" + one_line(job.src_password) + "\n";
        UniqueFile file(fdopen(file_.get(), "w"));
        if (file) file_.release();
        if (!file || std::fputs(settings.c_str(), file.get()) < 0 || std::fclose(file.release()) != 0) {
            TSBACKUP_LOG(level::error, "Cannot write %s [%s]\n", path_.data(), error_text(errno).c_str());
            remove_file();
        }
    }
    ~Credentials() { remove_file(); }
    Credentials(const Credentials &) = delete;
    Credentials &operator=(const Credentials &) = delete;

    /// The option that names the file; empty without one.
    std::string option() const {
        std::array<char, 48> option{};
        if (made_) str_snprintf(option.data(), option.size(), "--config=%s", path_.data());
        return option.data();
    }

  private:
    bool make_file() {
        // From its first moment on the file is known to whoever ends this process.
        const HangUpsPutOff put_off;
        file_.reset(mkostemp(path_.data(), O_CLOEXEC));
        made_ = static_cast<bool>(file_);
        if (made_) backup_abort_removes(path_.data());
        if (!made_) TSBACKUP_LOG(level::error, "Cannot create %s [%s]\n", path_.data(), error_text(errno).c_str());
        return made_;
    }
    void remove_file() {
        if (!made_) return;
        unlink(path_.data());
        backup_abort_removes(nullptr);
        made_ = false;
    }

    std::array<char, 32> path_{"/tmp/.http_passwdXXXXXX"};
    bool made_ = false;
    UniqueFd file_;
};

/// Makes a folder the working folder while the object lives. The shell would go on after a "cd" that fails, and wget
/// would fill the folder in which this process happens to stand.
class WorkingFolder {
  public:
    explicit WorkingFolder(const std::string &folder)
        : before_(open(".", O_PATH | O_DIRECTORY | O_CLOEXEC)), entered_(chdir(folder.c_str()) == 0) {
        if (!entered_) TSBACKUP_LOG(level::error, "Cannot enter %s [%s]\n", folder.c_str(), error_text(errno).c_str());
    }
    ~WorkingFolder() {
        // Out of it in any case: the disk may have to be ejected.
        if (entered_ && (!before_ || fchdir(before_.get()) != 0)) static_cast<void>(!chdir("/"));
    }
    WorkingFolder(const WorkingFolder &) = delete;
    WorkingFolder &operator=(const WorkingFolder &) = delete;
    bool entered() const { return entered_; }

  private:
    UniqueFd before_;
    bool entered_;
};

/// Has a cancel end wget while the object lives.
class EndedByAbort {
  public:
    EndedByAbort() { backup_abort_ends_group(true); }
    ~EndedByAbort() { backup_abort_ends_group(false); }
    EndedByAbort(const EndedByAbort &) = delete;
    EndedByAbort &operator=(const EndedByAbort &) = delete;
};

std::optional<std::string> wget_command(const WebAddress &address, const std::string &destination,
                                        const Credentials &credentials, const BackupRun &run) {
    const auto path = url_escape(address.path->c_str());
    const std::string url = shell_word("http://" + address.host + "/" + path.value_or(""));
    return str_printf("cd %s; nice -n %d wget --no-verbose --tries=3 --timestamping --recursive --level=3 "
                      "--no-host-directories --no-parent %s %s >%s 2>&1",
                      shell_word(destination).c_str(), kNiceness, credentials.option().c_str(), url.c_str(),
                      paths::copy_log(run.job_id).c_str());
}

/// Runs wget in the destination; its wait status, -1 when it could not be started.
std::int32_t mirror(const BackupJob &job, const BackupRun &run, const WebAddress &address,
                    const std::string &destination) {
    const Credentials credentials(job);
    const WorkingFolder folder(destination);
    const auto command = wget_command(address, destination, credentials, run);
    if (!folder.entered() || !command) return -1;
    // A hang-up makes wget open a log of its own in the destination and go on.
    const EndedByAbort ended;
    return backup_system_past_hang_up(command->c_str());
}

} // namespace

void backup_http_to_local(const BackupJob &job, BackupRun &run) {
    const WebAddress address = web_address(job);
    // Kept, though no URL lacks a path as long as an empty one counts.
    if (!address.path) {
        TSBACKUP_ERROR_SET(error_code::source_setup, &run, "Mulformed http path=%s\n", text_or_empty(job.src_path));
        return;
    }
    const auto destination = local_path_resolve(job, run, Side::destination);
    if (!destination) return;
    const std::int32_t status = mirror(job, run, address, *destination);
    if (status != 0)
        TSBACKUP_ERROR_SET(error_code::copy_failed, &run, "wget returns %d (%x)", status,
                           static_cast<unsigned>(status));
    http_parse_log(run, status, 0);
    local_endpoint_release(job, run, *destination, Side::destination);
}

} // namespace tsbackup
