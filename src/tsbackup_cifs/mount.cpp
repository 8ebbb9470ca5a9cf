#include "mount.h"

#include "remote_path.h"
#include "tsbackup/codes.h"
#include "tsbackup/log.h"
#include "tsbackup/owners.h"
#include "tsbackup/paths.h"
#include "tsbackup_cifs.h"
#include "tsbackup_do.h"
#include "tsbackup_utils.h"
#include "zelkova.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace tsbackup {

namespace {

constexpr char kExtensionsSwitch[] = "/proc/fs/cifs/LinuxExtensionsEnabled";

/// Every option that holds a name is built in a buffer of this size; one that does not fit is left out.
constexpr std::size_t kOptionSize = 64;

constexpr uid_t kProbeOwner = 98;
constexpr gid_t kProbeGroup = 98;

/// A dialect, and what keeps a server that does not answer in it from holding up the others.
struct Dialect {
    const char *version;
    const char *command_prefix;
};
constexpr Dialect kDialects[] = {
    {"3.0", "timeout -k7 5 "},
    {"2.1", "timeout -k7 5 "},
    {"2.0", "timeout -k7 5 "},
    {"1.0", ""},
};

/// One end of a job, as it is mounted.
struct RemoteEnd {
    const BackupJob &job;
    BackupRun &run;
    Side side;
    std::string mount_point;

    bool is_source() const { return side == Side::source; }
    const JobText &path() const { return is_source() ? job.src_path : job.dst_path; }
    const JobText &login() const { return is_source() ? job.src_login : job.dst_login; }
    const JobText &password() const { return is_source() ? job.src_password : job.dst_password; }
};

/// The password in the environment, where the mount command looks for it, for as long as the object lives. The entry
/// is cut to its buffer, and its bytes are gone when it ends.
class PasswordInEnvironment {
  public:
    explicit PasswordInEnvironment(const JobText &password) {
        // What this process itself was started with is no password of the job's.
        unsetenv(kName);
        if (!password || password->empty()) return;
        str_snprintf(entry_.data(), entry_.size(), "%s=%s", kName, password->c_str());
        putenv(entry_.data());
    }
    ~PasswordInEnvironment() {
        unsetenv(kName);
        explicit_bzero(entry_.data(), entry_.size());
    }
    PasswordInEnvironment(const PasswordInEnvironment &) = delete;
    PasswordInEnvironment &operator=(const PasswordInEnvironment &) = delete;

  private:
    static constexpr char kName[] = "PASSWD";
    std::array<char, 256> entry_{};
};

// ---- mounting --------------------------------------------------------------------------------------------------

/// Runs the mount command in one dialect; whether it succeeded.
bool run_mount(const RemoteEnd &end, const RemotePath &remote, const std::string &options, const Dialect &dialect) {
    // One word, in which a name is as the shell-escaping leaves it unless it holds what a shell acts on.
    const std::string share = shell_word("//" + remote.host + "/" + remote.share);
    return backup_systemf("%smount.cifs %s %s -o %s,vers=%s", dialect.command_prefix, share.c_str(),
                          end.mount_point.c_str(), options.c_str(), dialect.version) == 0;
}

/// Kept as it is: between its two tries a dialect is said to run without the kernel's extensions, but the switch is
/// never written, and the second try repeats the first. Administrators read these lines to learn the dialect.
bool mount_in_dialect(const RemoteEnd &end, const RemotePath &remote, const std::string &options,
                      const Dialect &dialect) {
    TSBACKUP_LOG(level::info, "mount.cifs is trying version %s\n", dialect.version);
    if (run_mount(end, remote, options, dialect)) {
        TSBACKUP_LOG(level::info,
                     "mount.cifs mount successfully without setting cifs linux extention, mount_cifs_version = %s\n",
                     dialect.version);
        return true;
    }

    end.run.cifs_ext_saved = cifs_set_linux_extensions(0);
    end.run.cifs_ext_changed = 1;
    if (run_mount(end, remote, options, dialect)) {
        TSBACKUP_LOG(level::info,
                     "mount.cifs mount successfully with setting cifs linux extention to 0, mount_cifs_version = %s\n",
                     dialect.version);
        return true;
    }
    end.run.cifs_ext_saved = cifs_set_linux_extensions(end.run.cifs_ext_saved);
    end.run.cifs_ext_changed = 0;
    return false;
}

bool mount_in_any_dialect(const RemoteEnd &end, const RemotePath &remote, const std::string &options) {
    const PasswordInEnvironment password(end.password());
    for (const Dialect &dialect : kDialects)
        if (mount_in_dialect(end, remote, options, dialect)) return true;
    return false;
}

void report_malformed(const RemoteEnd &end) {
    const char *path = text_or_empty(end.path());
    error_log_line(end.run, "Path %s is in a wrong format!\n", path);
    TSBACKUP_ERROR_SET(error_code::source_setup, &end.run, "Malformed path=%s\n", path);
}

/// Mounts the share. What the remote path names, or nothing after the failure was reported; no mount point is left
/// then.
std::optional<RemotePath> mount_share(const RemoteEnd &end) {
    if (mount_point_create(end.mount_point) != 0) {
        error_log_line(end.run, "Failed to make mount directory %s!\n", end.mount_point.c_str());
        TSBACKUP_ERROR_SET(error_code::source_setup, &end.run, "Failed to call mkdir %s!\n", end.mount_point.c_str());
        return std::nullopt;
    }

    const std::string options = cifs_mount_options(end.login());
    std::optional<RemotePath> remote = remote_path_split(end.path(), nullptr);
    if (!remote) {
        report_malformed(end);
        rmdir(end.mount_point.c_str());
        return std::nullopt;
    }

    mount_point_unmount(end.mount_point);
    if (mount_in_any_dialect(end, *remote, options)) return remote;
    error_log_line(end.run, "Failed to mount remote path %s!\n", text_or_empty(end.path()));
    TSBACKUP_ERROR_SET(end.is_source() ? error_code::source_setup : error_code::not_available, &end.run,
                       "Error mount //%s/%s", remote->host.c_str(), remote->share.c_str());
    rmdir(end.mount_point.c_str());
    return std::nullopt;
}

// ---- the folder on the share -----------------------------------------------------------------------------------

/// Notes what the source is. False when it is not there; the share is unmounted then.
bool examine_source(const RemoteEnd &end, const std::string &path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        cifs_umount(end.job);
        return false;
    }
    end.run.src_is_dir = S_ISDIR(status.st_mode) ? 1 : 0;
    struct statfs statistics {};
    if (statfs(end.mount_point.c_str(), &statistics) == 0)
        std::memcpy(&end.run.fsid, &statistics.f_fsid, sizeof end.run.fsid);
    return true;
}

/// Creates the destination. False after the failure was reported.
///
/// Kept as it is: the share stays mounted then, until the job's next run takes it down.
bool make_destination(const RemoteEnd &end, const std::string &remainder, const std::string &path) {
    const char *type = text_or_empty(end.job.dst_type);
    const char *protocol = text_or_empty(end.job.dst_share_proto);
    const char *remote_path = text_or_empty(end.job.dst_path);
    const bool made = mkdir_p(path, 0777) == 0;
    struct stat status {};
    const bool exists = stat(path.c_str(), &status) == 0;
    if (exists && !S_ISDIR(status.st_mode)) {
        error_log_line(end.run, "Destination %s/%s is a file. Cannot backup to a file!\n", protocol, remote_path);
        TSBACKUP_ERROR_SET(error_code::invalid_destination, &end.run, "Backup destination [%s] is a file: %s/%s/%s",
                           remainder.c_str(), type, protocol, remote_path);
        return false;
    }
    if (!made) {
        error_log_line(end.run, "Failed to create destination directory %s!\n", path.c_str());
        TSBACKUP_ERROR_SET(error_code::invalid_destination, &end.run, "Backup destination [%s] is read only: %s/%s/%s",
                           remainder.c_str(), type, protocol, remote_path);
        return false;
    }
    return true;
}

void restore_linux_extensions(const BackupRun &run) {
    if (run.cifs_ext_changed != 0) cifs_set_linux_extensions(run.cifs_ext_saved);
}

} // namespace

std::string cifs_mount_options(const JobText &login) {
    std::string options;
    if (!login || login->empty()) {
        options = "guest";
    } else {
        const CifsLogin parts = cifs_login_split(*login);
        // What counts is the length of the escaped user and of the domain as it stands.
        if (("username=" + *shell_escape(parts.user.c_str())).size() < kOptionSize)
            options += shell_word("username=" + parts.user);
        if (!parts.domain.empty() && (",domain=" + parts.domain).size() < kOptionSize)
            options += shell_word(",domain=" + parts.domain);
    }
    return options + ",iocharset=utf8";
}

std::optional<std::string> cifs_mount(const BackupJob &job, BackupRun &run, Side side) {
    const RemoteEnd end{job, run, side, paths::mount_point(job.job_id)};
    const std::optional<RemotePath> remote = mount_share(end);
    if (!remote) return std::nullopt;

    const std::string folder = remote->folder();
    if (!mount_point_holds(end.mount_point, folder)) {
        report_malformed(end);
        cifs_umount(job);
        return std::nullopt;
    }

    const std::string path = end.mount_point + "/" + folder;
    if (side == Side::source) {
        if (!examine_source(end, path)) return std::nullopt;
    } else {
        if (!make_destination(end, remote->remainder, path)) return std::nullopt;
        if (run.full != 0 && decimal_value(job.opt_remove_previous_backup) != 0) do_rmtree_contents(path.c_str(), run);
    }
    return path_normalise(path.c_str());
}

void cifs_umount(const BackupJob &job) {
    const std::string mount_point = paths::mount_point(job.job_id);
    sync_fs(mount_point.c_str());
    mount_point_unmount(mount_point);
    rmdir(mount_point.c_str());
}

int cifs_set_linux_extensions(int value) {
    // Two characters are enough for a switch.
    std::string text = read_first_line(kExtensionsSwitch, 64).value_or("");
    const std::int32_t previous = decimal_value(trim_space(text).substr(0, 2).c_str());
    // Kept as it is: there is no such mode, so that the kernel's switch, which all mounts of the machine share, is
    // never written. Restoring it relies on that.
    if (const UniqueFile file(std::fopen(kExtensionsSwitch, "s")); file)
        static_cast<void>(std::fprintf(file.get(), "%d", value != 0 ? 1 : 0));
    return previous;
}

int cifs_probe_chown(const std::string &dir, BackupRun &run) {
    const std::string name = "__foo__." + std::to_string(getpid());
    const std::string local = "/tmp/" + name;
    const std::string remote = dir + "/" + name;
    // "/tmp" is everybody's: only a file that did not exist before is used.
    unlink(local.c_str());
    if (!UniqueFd(open(local.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666))) return -1;

    int result = do_copy_file(local.c_str(), remote.c_str(), run);
    if (result == 0) {
        // A link in the file's place would lead to a file of this machine.
        if (lchown(remote.c_str(), kProbeOwner, kProbeGroup) != 0) {
            TSBACKUP_LOG(level::debug, "Cannot chown() on CIFS volume.\n");
            result = -1;
        }
        unlink(local.c_str());
        unlink(remote.c_str());
    }
    sync();
    return result;
}

// ---- drivers ---------------------------------------------------------------------------------------------------

void backup_cifs_to_local(const BackupJob &job, BackupRun &run) {
    const auto source = cifs_mount(job, run, Side::source);
    if (!source) return;
    const auto destination = local_path_resolve(job, run, Side::destination);
    if (!destination) {
        cifs_umount(job);
        return;
    }
    backup_do_cp(job, run, source->c_str(), destination->c_str());
    cifs_umount(job);
    local_endpoint_release(job, run, *destination, Side::destination);
    restore_linux_extensions(run);
}

void backup_local_to_cifs(const BackupJob &job, BackupRun &run) {
    const auto source = local_path_resolve(job, run, Side::source);
    if (!source) {
        TSBACKUP_ERROR_SET(error_code::path_missing, &run, "/%s/%s not exists", text_or_empty(job.src_share_proto),
                           text_or_empty(job.src_path));
        return;
    }
    const auto destination = cifs_mount(job, run, Side::destination);
    if (!destination) {
        local_endpoint_release(job, run, *source, Side::source);
        return;
    }
    if (cifs_probe_chown(*destination, run) != 0) run.no_chown = 1;
    backup_do_cp(job, run, source->c_str(), destination->c_str());
    local_source_check(*source, run);
    local_endpoint_release(job, run, *source, Side::source);
    cifs_umount(job);
    restore_linux_extensions(run);
}

} // namespace tsbackup
