#include "snapshot.h"
#include "tsbackup/codes.h"
#include "tsbackup/log.h"
#include "tsbackup/owners.h"
#include "tsbackup_do.h"
#include "tsbackup_local.h"
#include "tsbackup_utils.h"

#include <array>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <linux/magic.h>
#include <pwd.h>
#include <string_view>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace tsbackup {

namespace {

constexpr std::string_view kUsbPort = "usb_port_";

using Path = std::optional<std::string>;

/// The local source that this process resolved last: a job with one resolves it ahead of a destination to be emptied.
Path resolved_source;

bool begins_with(const JobText &text, std::string_view start) {
    return text && text->compare(0, start.size(), start) == 0;
}

bool path_exists(const std::string &path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0;
}

/// Names with a "~" and a digit right behind it are short names of other systems, and refused.
bool is_short_name(const JobText &name) {
    const std::size_t tilde = name ? name->find('~') : std::string::npos;
    return tilde != std::string::npos && std::isdigit(static_cast<unsigned char>((*name)[tilde + 1])) != 0;
}

// ---- homes and USB disks: alike on both sides ------------------------------------------------------------------

/// A user's home folder and the path below it, or nothing after the failure was reported.
Path home_path(const JobText &user, const JobText &sub_path, BackupRun &run) {
    const long reported = sysconf(_SC_GETPW_R_SIZE_MAX);
    std::size_t size = reported > 0 ? static_cast<std::size_t>(reported) : 1024;
    passwd entry{};
    passwd *found = nullptr;
    int error = 0;
    UniqueText buffer;
    do {
        buffer.reset(static_cast<char *>(std::malloc(size)));
        if (!buffer) {
            TSBACKUP_ERROR_SET(error_code::invalid_destination, &run, "OOM");
            return std::nullopt;
        }
        error = getpwnam_r(text_or_empty(user), &entry, buffer.get(), size, &found);
        size *= 2;
    } while (error == ERANGE);

    if (found == nullptr) {
        error_log_line(run, "Can't find username %s in password database!\n", text_or_empty(user));
        TSBACKUP_ERROR_SET(error_code::invalid_destination, &run, "error from getpwnam(). errno=%d", error);
        return std::nullopt;
    }
    std::string path = entry.pw_dir;
    if (sub_path && !sub_path->empty()) path += "/" + *sub_path;
    return path;
}

/// The folder of the USB disk at the port that `share` names, or nothing after the failure was reported with `code`.
Path usb_path(const std::string &share, const JobText &sub_path, std::int32_t code, BackupRun &run) {
    Path path = usb_storage_lookup(share.c_str() + kUsbPort.size(), sub_path ? sub_path->c_str() : nullptr);
    if (!path) {
        error_log_line(run, "No USB storage was found at %s!\n", share.c_str());
        TSBACKUP_ERROR_SET(code, &run, "No USB storage device at %s", share.c_str());
    }
    return path;
}

// ---- source ----------------------------------------------------------------------------------------------------

/// A share on a data volume is read from a snapshot taken now, so that the copy is of one instant.
Path source_share_path(const BackupJob &job, BackupRun &run) {
    const char *volume = text_or_empty(job.src_share_vol);
    const char *share = text_or_empty(job.src_share_proto);
    const char *sub_path = text_or_empty(job.src_path);
    if (is_short_name(job.src_share_proto)) return std::nullopt;
    if (job.src_share_vol == "media") return str_printf("/media/%s/%s", share, sub_path);

    Path path = str_printf("/%s/%s/%s", volume, share, sub_path);
    if (!path || !path_exists(*path)) return path;
    snapshot_take(run, volume, share);
    return str_printf("%s/%s", run.snapshot_path->c_str(), sub_path);
}

/// Notes what the source is, or reports that it is not there.
Path checked_source(const Path &path, BackupRun &run) {
    struct stat status {};
    if (!path || stat(path->c_str(), &status) != 0) {
        const char *shown = path ? path->c_str() : "(null)";
        error_log_line(run, "Path %s does not exist!\n", shown);
        TSBACKUP_ERROR_SET(error_code::path_missing, &run, "'%s' not exists", shown);
        // A snapshot without the wanted folder in it would have nobody to delete it.
        if (run.snapshot_path && path_exists(*run.snapshot_path)) snapshot_delete(run);
        return std::nullopt;
    }
    run.src_is_dir = S_ISDIR(status.st_mode) ? 1 : 0;
    struct statfs statistics {};
    if (statfs(path->c_str(), &statistics) == 0) std::memcpy(&run.fsid, &statistics.f_fsid, sizeof run.fsid);
    return path_normalise(path->c_str());
}

Path resolve_source(const BackupJob &job, BackupRun &run) {
    Path path;
    if (job.src_type == "volume") {
        // A volume without a name is no path at all, rather than the whole root.
        if (job.src_share_proto) path = str_printf("/%s", job.src_share_proto->c_str());
    } else if (job.src_type == "home") {
        path =
            begins_with(job.src_share_proto, "*") ? Path("/home") : home_path(job.src_share_proto, job.src_path, run);
        if (!path) return std::nullopt;
    } else if (job.src_type == "timemachine") {
        path = str_printf("/%s/.timemachine", text_or_empty(job.src_share_vol));
    } else if (job.src_type == "usb" && begins_with(job.src_share_proto, kUsbPort)) {
        path = usb_path(*job.src_share_proto, job.src_path, error_code::invalid_source, run);
        if (!path) return std::nullopt;
    } else if (job.src_type == "share") {
        path = source_share_path(job, run);
    }
    return checked_source(path, run);
}

// ---- destination -----------------------------------------------------------------------------------------------

/// Whether the path lies on a mounted data file system: neither in memory nor on the root's. A file system that
/// shares either half of its id with the root's counts as the root's; subvolumes of one btrfs do.
bool is_on_data_file_system(const std::string &path, const BackupRun &run) {
    struct statfs statistics {};
    if (statfs(path.c_str(), &statistics) != 0 || statistics.f_type == TMPFS_MAGIC) return false;
    std::array<std::int32_t, 2> id{};
    static_assert(sizeof id == sizeof statistics.f_fsid);
    std::memcpy(id.data(), &statistics.f_fsid, sizeof id);
    return id[0] != run.root_fsid[0] && id[1] != run.root_fsid[1];
}

/// Whether the path, or the nearest folder above it that exists, lies on a mounted data file system.
bool is_mounted(std::string path, const BackupRun &run) {
    while (!is_on_data_file_system(path, run)) {
        const std::size_t slash = path.rfind('/');
        if (slash == std::string::npos) return false;
        path.erase(slash);
    }
    return true;
}

/// The path of the destination's fields, not yet checked; nothing after the failure was reported, or silently.
Path destination_path(const BackupJob &job, BackupRun &run) {
    if (job.dst_type == "home") return home_path(job.dst_share_proto, job.dst_path, run);
    if (job.dst_type == "usb") {
        if (!begins_with(job.dst_share_proto, kUsbPort)) return std::nullopt;
        return usb_path(*job.dst_share_proto, job.dst_path, error_code::invalid_destination, run);
    }
    if (is_short_name(job.dst_share_proto)) return std::nullopt;
    return str_printf("/%s/%s/%s", text_or_empty(job.dst_share_vol), text_or_empty(job.dst_share_proto),
                      text_or_empty(job.dst_path));
}

/// Whether `folder` is a path or one of the folders above it, under whatever name.
bool holds(const std::string &folder, std::string path) {
    struct stat held {};
    if (stat(folder.c_str(), &held) != 0) return false;
    for (; !path.empty(); path.erase(path.rfind('/'))) {
        struct stat status {};
        if (stat(path.c_str(), &status) == 0 && status.st_dev == held.st_dev && status.st_ino == held.st_ino)
            return true;
    }
    return false;
}

/// Empties the destination for a new full backup. One that holds the very source is left as it is.
void remove_previous_backup(const BackupJob &job, const std::string &path, BackupRun &run) {
    if (job.src_type != "remote" && resolved_source && holds(path, *resolved_source))
        TSBACKUP_LOG(level::error, "%s holds the source and is not emptied.\n", path.c_str());
    else
        do_rmtree_contents(path.c_str(), run);
}

Path resolve_destination(const BackupJob &job, BackupRun &run) {
    const Path path = destination_path(job, run);
    if (!path) return std::nullopt;

    if (!is_mounted(*path, run)) {
        TSBACKUP_ERROR_SET(error_code::not_available, &run, "'%s' is not mounted", path->c_str());
        TSBACKUP_LOG(level::debug, "'%s' is root file system.\n", path->c_str());
        return std::nullopt;
    }
    if (mkdir_p(*path, 0777) != 0 && !path_exists(*path)) {
        error_log_line(run, "Cannot create directory %s!\n", path->c_str());
        TSBACKUP_ERROR_SET(error_code::invalid_destination, &run, "Backup destination [%s] is read only: %s/%s/%s",
                           path->c_str(), text_or_empty(job.dst_type), text_or_empty(job.dst_share_proto),
                           text_or_empty(job.dst_path));
        return std::nullopt;
    }
    if (run.full != 0 && decimal_value(job.opt_remove_previous_backup) != 0) remove_previous_backup(job, *path, run);
    return path_normalise(path->c_str());
}

} // namespace

std::optional<std::string> local_path_resolve(const BackupJob &job, BackupRun &run, Side side) {
    if (side == Side::destination) return resolve_destination(job, run);
    resolved_source = resolve_source(job, run);
    return resolved_source;
}

} // namespace tsbackup
