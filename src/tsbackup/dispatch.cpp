#include "tsbackup.h"
#include "tsbackup/codes.h"
#include "tsbackup/log.h"
#include "tsbackup/paths.h"
#include "tsbackup_cifs.h"
#include "tsbackup_ftp.h"
#include "tsbackup_http.h"
#include "tsbackup_local.h"
#include "tsbackup_nfs.h"
#include "tsbackup_rsync.h"
#include "tsbackup_utils.h"
#include "zelkova.h"

#include <array>
#include <cassert>
#include <cstring>
#include <initializer_list>
#include <sys/stat.h>

namespace tsbackup {

namespace {

using Driver = void (*)(const BackupJob &job, BackupRun &run);

struct ProtocolRow {
    const char *protocol;
    Driver driver;
};

/// Drivers that copy from a remote source, one row a protocol.
constexpr std::initializer_list<ProtocolRow> kRemoteSources = {
    {"cifs", backup_cifs_to_local},       {"cifs-ab", backup_cifsab_to_local}, {"nfs", backup_nfs_to_local},
    {"ftp", backup_ftp_to_local},         {"http", backup_http_to_local},      {"rsync", backup_rsync_to_local},
    {"rsync+ssh", backup_rsync_to_local},
};

/// Drivers that copy to a remote destination, one row a protocol.
constexpr std::initializer_list<ProtocolRow> kRemoteDestinations = {
    {"cifs", backup_local_to_cifs},   {"nfs", backup_local_to_nfs},         {"ftp", backup_local_to_ftp},
    {"rsync", backup_local_to_rsync}, {"rsync+ssh", backup_local_to_rsync},
};

Driver driver_of(const std::initializer_list<ProtocolRow> &rows, const JobText &protocol) {
    for (const ProtocolRow &row : rows)
        if (protocol == row.protocol) return row.driver;
    return nullptr;
}

bool is_remote(const JobText &type) { return type == "remote"; }

bool source_is_usable(const BackupJob &job) {
    return local_endpoint_check(text_or_empty(job.src_type), text_or_empty(job.src_share_proto),
                                text_or_empty(job.src_share_vol)) == 0;
}

bool destination_is_usable(const BackupJob &job) {
    return local_endpoint_check(text_or_empty(job.dst_type), text_or_empty(job.dst_share_proto),
                                text_or_empty(job.dst_share_vol)) == 0;
}

// Where two messages follow one another, the first has no code: the second takes its place unless an earlier error
// already holds the record.

void report_bad_source(BackupRun &run) {
    TSBACKUP_ERROR_SET(0, &run, "Local share not exists");
    TSBACKUP_ERROR_SET(error_code::invalid_source, &run, "Source is not a valid share");
}

void report_bad_destination(BackupRun &run) {
    TSBACKUP_ERROR_SET(0, &run, "Local share not exists");
    TSBACKUP_ERROR_SET(error_code::invalid_destination, &run, "Destination is not a valid share");
}

void local_to_remote(const BackupJob &job, BackupRun &run) {
    // Goes on with a bad source: the driver meets it again and releases what it has set up.
    if (!source_is_usable(job)) report_bad_source(run);

    if (const Driver driver = driver_of(kRemoteDestinations, job.dst_share_proto)) {
        driver(job, run);
        return;
    }
    TSBACKUP_ERROR_SET(0, &run, "Unknown remote destination protocol <%s>", text_or_empty(job.dst_share_proto));
    TSBACKUP_ERROR_SET(error_code::invalid_destination, &run, "Unknown protocol");
}

void local_to_local(const BackupJob &job, BackupRun &run) {
    if (!destination_is_usable(job)) return report_bad_destination(run);
    if (!source_is_usable(job)) return report_bad_source(run);
    backup_local_to_local(job, run);
}

void remote_to_local(const BackupJob &job, BackupRun &run) {
    // A remote destination fails this check, too.
    if (!destination_is_usable(job)) return report_bad_destination(run);

    if (is_remote(job.dst_type)) {
        TSBACKUP_ERROR_SET(0, &run, "Remote to Remote backup is not supported");
        return;
    }
    if (const Driver driver = driver_of(kRemoteSources, job.src_share_proto)) {
        driver(job, run);
        return;
    }
    TSBACKUP_ERROR_SET(0, &run, "Unknown remote source protocol <%s>", text_or_empty(job.src_share_proto));
    TSBACKUP_ERROR_SET(error_code::invalid_source, &run, "Unknown protocol");
}

using PathBuffer = std::array<char, paths::buffer_size>;

int check_home(const char *user) {
    PathBuffer path{};
    str_snprintf(path.data(), path.size(), "/home/%s", user);
    struct stat status {};
    if (user[0] != '*' && stat(path.data(), &status) != 0) {
        TSBACKUP_LOG(level::error, "path = %s does not exist!!!!\n", path.data());
        constexpr char kHelper[] = "/sbin/mkhomedir_helper";
        const char *const arguments[] = {kHelper, user, nullptr};
        exec_cmd(kHelper, arguments);
    }
    return 0;
}

/// A share is a file system or a subvolume of its own: a folder that merely exists on its volume's device, or on the
/// system's, is where a disk ought to be mounted and is not.
int check_share(const char *share, const char *volume) {
    PathBuffer share_path{};
    str_snprintf(share_path.data(), share_path.size(), "/%s/%s", volume, share);
    struct stat share_status {};
    if (stat(share_path.data(), &share_status) != 0 || !S_ISDIR(share_status.st_mode)) {
        TSBACKUP_LOG(level::error, "Path %s not exists or not a directory\n", share_path.data());
        return -1;
    }

    PathBuffer volume_path{};
    str_snprintf(volume_path.data(), volume_path.size(), "/%s", volume);
    struct stat volume_status {};
    if (stat(volume_path.data(), &volume_status) != 0 || volume_status.st_dev == share_status.st_dev) {
        TSBACKUP_LOG(level::error, "Path %s not exists or the same device as /%s/%s\n", volume_path.data(), volume,
                     share);
        return -1;
    }

    if (std::strcmp(volume, "media") == 0) return 0;
    struct stat root_status {};
    if (stat("/", &root_status) != 0 || root_status.st_dev == share_status.st_dev) {
        TSBACKUP_LOG(level::error, "Path /%s/%s is on the same device as root\n", volume, share);
        return -1;
    }
    return 0;
}

} // namespace

int local_endpoint_check(const char *type, const char *share, const char *volume) {
    const auto is_type = [type](const char *name) { return type != nullptr && std::strcmp(type, name) == 0; };
    const char *share_name = share != nullptr ? share : "";
    if (is_type("timemachine") || is_type("usb") || is_type("volume")) return 0;
    if (is_type("home")) return check_home(share_name);
    if (is_type("share")) return check_share(share_name, volume != nullptr ? volume : "");
    return -1;
}

void do_backup(const BackupJob *conf, BackupRun *env) {
    assert(conf);
    assert(env);
    if (is_remote(conf->src_type)) return remote_to_local(*conf, *env);
    if (is_remote(conf->dst_type)) return local_to_remote(*conf, *env);
    local_to_local(*conf, *env);
}

} // namespace tsbackup
