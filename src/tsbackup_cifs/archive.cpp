#include "archive_log.h"
#include "remote_path.h"
#include "tsbackup/codes.h"
#include "tsbackup/log.h"
#include "tsbackup/paths.h"
#include "tsbackup_cifs.h"
#include "tsbackup_local.h"
#include "tsbackup_utils.h"

#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <sys/stat.h>

namespace tsbackup {

namespace {

constexpr char kDriver[] = "backup_cifsab_to_local";
constexpr int kNiceness = 10;

/// Who logs in, in the environment, where smbclient looks for it, for as long as the object lives. Gone with it, the
/// bytes included.
class LoginInEnvironment {
  public:
    explicit LoginInEnvironment(const BackupJob &job) {
        // What this process itself was started with is no password of the job's.
        unsetenv(kPassword);
        if (!job.src_login || job.src_login->empty()) return;
        given_ = put(user_, kUser, *job.src_login);
        if (given_ && job.src_password && !job.src_password->empty()) put(password_, kPassword, *job.src_password);
    }
    ~LoginInEnvironment() {
        unsetenv(kUser);
        unsetenv(kPassword);
        explicit_bzero(password_.data(), password_.size());
    }
    LoginInEnvironment(const LoginInEnvironment &) = delete;
    LoginInEnvironment &operator=(const LoginInEnvironment &) = delete;

    /// Whether a user was named.
    bool given() const { return given_; }

  private:
    static constexpr char kUser[] = "USER";
    static constexpr char kPassword[] = "PASSWD";

    static bool put(std::string &entry, const char *name, const std::string &value) {
        std::optional<std::string> text = str_printf("%s=%s", name, value.c_str());
        if (!text) {
            TSBACKUP_LOG(level::error, "%s Failed to call asprintf\n", kDriver);
            return false;
        }
        entry = std::move(*text);
        if (putenv(entry.data()) == 0) return true;
        TSBACKUP_LOG(level::error, "%s Failed to call putenv\n", kDriver);
        return false;
    }

    std::string user_;
    std::string password_;
    bool given_ = false;
};

/// The path below the share as smbclient's argument. One that begins like an option would be taken for one, and there
/// is an option that names commands to run.
std::string folder_argument(const RemotePath &remote) {
    return shell_word(remote.remainder.starts_with('-') ? "/" + remote.remainder : remote.remainder);
}

std::optional<std::string> archive_command(const RemotePath &remote, int depth, const std::string &destination,
                                           const BackupRun &run, bool with_login) {
    return str_printf("{ nice -n %d smbclient %s %s -mSMB3 -E -d0 -Ta%sc - %s | tar -xv --strip-components=%d -C %s; } "
                      "> %s 2>&1",
                      kNiceness, with_login ? "" : "-N", shell_word("//" + remote.host + "/" + remote.share).c_str(),
                      run.full != 0 ? "" : "g", folder_argument(remote).c_str(), depth, shell_word(destination).c_str(),
                      paths::copy_log(run.job_id).c_str());
}

bool is_folder(const std::string &path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

/// Fetches and unpacks the archive; the pipeline's wait status, nothing when there is no command.
std::optional<std::int32_t> fetch(const BackupJob &job, const BackupRun &run, const RemotePath &remote, int depth,
                                  const std::string &destination) {
    const LoginInEnvironment login(job);
    const auto command = archive_command(remote, depth, destination, run, login.given());
    if (!command) {
        TSBACKUP_LOG(level::error, "Failed to call asprintf!\n");
        return std::nullopt;
    }
    // What smbclient reads counts as archived on the server, whether tar can unpack it or not.
    if (!is_folder(destination)) {
        TSBACKUP_LOG(level::error, "%s is no folder\n", destination.c_str());
        return -1;
    }
    return backup_system(command->c_str());
}

} // namespace

void backup_cifsab_to_local(const BackupJob &job, BackupRun &run) {
    int depth = 0;
    const std::optional<RemotePath> remote = remote_path_split(job.src_path, &depth);
    if (!remote) {
        const char *path = text_or_empty(job.src_path);
        error_log_line(run, "Path %s is in a wrong format!\n", path);
        TSBACKUP_ERROR_SET(error_code::source_setup, &run, "Mulformed path=%s\n", path);
        return;
    }
    const auto destination = local_path_resolve(job, run, Side::destination);
    if (!destination) return;
    if (const auto status = fetch(job, run, *remote, depth, *destination)) cifsab_parse_log(run, *status);
    local_endpoint_release(job, run, *destination, Side::destination);
}

} // namespace tsbackup
