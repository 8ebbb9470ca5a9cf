#include "mount.h"

#include "tsbackup/codes.h"
#include "tsbackup/log.h"
#include "tsbackup/paths.h"
#include "tsbackup_do.h"
#include "tsbackup_utils.h"

#include <cassert>
#include <cstring>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace tsbackup {

namespace {

/// The longest command. A longer one would have to be cut, and could then name another mount point.
constexpr std::size_t kLongestCommand = 2047;

/// How an export is asked for: the version, and what follows the access.
struct MountForm {
    const char *version;
    const char *transport;
};
constexpr MountForm kMountForms[] = {
    {"3", ",tcp"},
    {"3", ""},
    {"4", ""},
};

/// One end of a job, as it is mounted.
struct RemoteEnd {
    const BackupJob &job;
    BackupRun &run;
    Side side;
    std::string mount_point;

    bool is_source() const { return side == Side::source; }
    const JobText &path() const { return is_source() ? job.src_path : job.dst_path; }
};

void report_invalid_path(const RemoteEnd &end) {
    const char *path = end.path() ? end.path()->c_str() : "(null)";
    error_log_line(end.run, "Invalid nfs path %s!\n", path);
    TSBACKUP_ERROR_SET(end.is_source() ? error_code::invalid_source : error_code::invalid_destination, &end.run,
                       "Error in nfs path '%s'", path);
}

void report_mount_failure(const RemoteEnd &end) {
    const char *path = end.path()->c_str();
    error_log_line(end.run, "Failed to mount nfs path %s!\n", path);
    TSBACKUP_ERROR_SET(end.is_source() ? error_code::source_setup : error_code::not_available, &end.run,
                       "Error mounting %s", path);
}

/// Whether a path has the form "HOST:/PATH".
bool is_export_path(const JobText &path) {
    // A word that begins like an option would be taken for one.
    if (!path || path->compare(0, 1, "-") == 0) return false;
    const std::size_t colon = path->find(':');
    return colon != std::string::npos && path->compare(colon + 1, 1, "/") == 0;
}

/// Tries to mount one location, in three forms; whether it is mounted.
bool _try_mount(const RemoteEnd &end, const std::string &location) {
    const std::string word = shell_word(location);
    assert(!word.empty());
    mount_point_unmount(end.mount_point);
    const char *access = end.is_source() ? "ro" : "rw";
    for (const MountForm &form : kMountForms) {
        const auto command = str_printf("mount -t nfs -o vers=%s,%s,soft,intr%s %s %s", form.version, access,
                                        form.transport, word.c_str(), end.mount_point.c_str());
        if (command && command->size() <= kLongestCommand && backup_system(command->c_str()) == 0) return true;
    }
    return false;
}

/// Mounts the export or the nearest folder above it that can be mounted, down to the bare host. What is left of the
/// path below the mounted folder, or nothing when nothing could be mounted.
std::optional<std::string> mount_nearest(const RemoteEnd &end) {
    const std::string &whole = *end.path();
    const std::size_t colon = whole.find(':');
    std::string location = whole;
    while (!_try_mount(end, location)) {
        const std::size_t cut = location.rfind('/');
        if (cut == std::string::npos || cut < colon) return std::nullopt;
        location.resize(cut);
    }
    return location.size() < whole.size() ? whole.substr(location.size() + 1) : "";
}

/// Notes what the source is. One that is not there counts as a file: the copy finds out and reports it.
void examine_source(const RemoteEnd &end, const std::string &path) {
    struct stat status {};
    end.run.src_is_dir = stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode) ? 1 : 0;
    struct statfs statistics {};
    if (statfs(end.mount_point.c_str(), &statistics) == 0)
        std::memcpy(&end.run.fsid, &statistics.f_fsid, sizeof end.run.fsid);
}

/// Empties the folder for a new full backup. Kept as it is: a source is treated like a destination, and loses nothing
/// because it is mounted read-only. Where that does not hold it is left alone.
void remove_previous_backup(const RemoteEnd &end, const std::string &path) {
    if (end.run.full == 0 || decimal_value(end.job.opt_remove_previous_backup) == 0) return;
    struct statvfs status {};
    const bool read_only = statvfs(path.c_str(), &status) == 0 && (status.f_flag & ST_RDONLY) != 0;
    if (!end.is_source() || read_only) do_rmtree_contents(path.c_str(), end.run);
}

} // namespace

std::optional<std::string> _mount_nfs(const BackupJob &job, BackupRun &run, Side side) {
    const RemoteEnd end{job, run, side, paths::mount_point(job.job_id)};
    if (!is_export_path(end.path())) {
        report_invalid_path(end);
        return std::nullopt;
    }
    // Kept as it is: without a mount point the run ends quietly, having copied nothing.
    if (mount_point_create(end.mount_point) != 0) return std::nullopt;

    const std::optional<std::string> remainder = mount_nearest(end);
    if (!remainder) {
        report_mount_failure(end);
        return std::nullopt;
    }
    if (!mount_point_holds(end.mount_point, *remainder)) {
        report_invalid_path(end);
        nfs_umount(job);
        return std::nullopt;
    }

    const std::string path = end.mount_point + "/" + *remainder;
    if (end.is_source()) examine_source(end, path);
    remove_previous_backup(end, path);
    return path_normalise(path.c_str());
}

void nfs_umount(const BackupJob &job) {
    const std::string mount_point = paths::mount_point(job.job_id);
    sync();
    mount_point_unmount(mount_point);
    rmdir(mount_point.c_str());
}

} // namespace tsbackup
