#include "command.h"

#include "tsbackup/log.h"
#include "tsbackup/owners.h"
#include "tsbackup/paths.h"
#include "tsbackup_do.h"
#include "tsbackup_local.h"
#include "tsbackup_utils.h"
#include "zelkova.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <linux/magic.h>
#include <optional>
#include <string_view>
#include <sys/vfs.h>

namespace tsbackup {

namespace {

/// Bits of the job's option mask.
enum OptionBit : std::int32_t { kDelete = 1, kCompress = 2, kNoOwnership = 4, kHardLinks = 8 };

constexpr std::string_view kUsbPort = "usb_port_";
constexpr std::size_t kLongestExcludeList = 1023;
constexpr int kMostExcludes = 1024;
constexpr std::int32_t kSshPort = 22;
constexpr int kAnyType = 100;

bool begins_with(const JobText &text, std::string_view start) {
    return text && text->compare(0, start.size(), start) == 0;
}

/// Takes the ownership out of the mask when the local destination could not keep it. 0, or -1 when the destination's
/// disk is not there.
int consider_destination(const BackupJob &job, std::int32_t &mask) {
    std::optional<std::string> path;
    if (job.dst_type == "usb" && begins_with(job.dst_share_proto, kUsbPort)) {
        path = usb_storage_lookup(job.dst_share_proto->c_str() + kUsbPort.size(), nullptr);
        if (!path) return -1;
    } else if (job.dst_share_vol == "media") {
        path = str_printf("/media/%s", text_or_empty(job.dst_share_proto));
        if (!path) return -1;
    }
    if (path && fs_keeps_ownership(path->c_str()) == 0) mask |= kNoOwnership;
    return 0;
}

/// Sources that hold further file systems of the appliance: rsync has to cross into them.
bool spans_file_systems(const BackupJob &job) {
    return job.src_type == "volume" || (job.src_type == "home" && begins_with(job.src_share_proto, "*")) ||
           job.src_type == "timemachine";
}

void add_ownership(std::int32_t mask, int attempt, std::vector<std::string> &arguments) {
    if ((mask & kNoOwnership) != 0)
        arguments.insert(arguments.end(), {"--no-owner", "--no-group", "--no-acls", "--no-perms"});
    else if (attempt == 0)
        arguments.insert(arguments.end(), {"--owner", "--group", "--acls"});
    else
        arguments.insert(arguments.end(), {"--owner", "--group", "--no-acls", "--no-perms"});
}

void add_exclude(std::string_view pattern, std::vector<std::string> &arguments) {
    arguments.push_back("--exclude=" + std::string(pattern));
}

void add_job_excludes(const BackupJob &job, std::vector<std::string> &arguments) {
    if (!job.opt_rsync_exclude) return;
    std::string list = job.opt_rsync_exclude->substr(0, kLongestExcludeList);
    int added = 0;
    char *rest = nullptr;
    for (const char *piece = strtok_r(list.data(), ",", &rest); piece != nullptr && added < kMostExcludes;
         piece = strtok_r(nullptr, ",", &rest), ++added)
        add_exclude(piece, arguments);
}

/// Leaves out the folders in which the shares of a volume keep their own snapshots.
void add_share_snapshot_excludes(const char *volume, std::vector<std::string> &arguments) {
    dirent **entries = nullptr;
    const int count = scandir(volume, &entries, visible_subdir_filter, alphasort);
    for (int i = 0; i < count; ++i) {
        const UniqueMalloc<dirent> entry(entries[i]);
        std::array<char, paths::buffer_size> path{};
        str_snprintf(path.data(), path.size(), "/%s/%s/snapshot", volume, entry->d_name);
        if (exists(path.data(), kAnyType) != 1 || !is_share_snapshot_dir(path.data())) continue;
        add_exclude(std::string(entry->d_name) + "/snapshot", arguments);
        TSBACKUP_LOG(level::debug, "add exclude path  %s\n", entry->d_name);
    }
    const UniqueMalloc<dirent *> list(entries);
}

void add_snapshot_excludes(const BackupJob &job, const BackupRun &run, std::vector<std::string> &arguments) {
    if (*text_or_empty(job.src_path) == '\0' && run.snapshot_path) add_exclude("snapshot", arguments);
    const bool volume = job.src_type == "volume";
    if (begins_with(job.src_share_proto, "rsync") || volume) add_exclude(".snapshot", arguments);
    if (volume && job.src_share_proto) add_share_snapshot_excludes(job.src_share_proto->c_str(), arguments);
}

void add_transport(std::int32_t port, int remote_shell, std::vector<std::string> &arguments) {
    if (remote_shell != 0)
        arguments.push_back("--rsh=ssh -oStrictHostKeyChecking=no -oPasswordAuthentication=no -p" +
                            std::to_string(port == 0 ? kSshPort : port));
    else if (port != 0)
        arguments.push_back("--port=" + std::to_string(port));
}

} // namespace

RsyncEndpoint rsync_endpoint(const BackupJob &job, int as_source) {
    if (as_source != 0) return {job.src_path, job.src_login, job.src_password, job.src_port};
    return {job.dst_path, job.dst_login, job.dst_password, job.dst_port};
}

int rsync_build_options(const BackupJob &job, const BackupRun &run, int as_source, int remote_shell, int attempt,
                        std::vector<std::string> &arguments) {
    std::int32_t mask = decimal_value(job.opt_rsync_options);
    if (as_source != 0 && consider_destination(job, mask) != 0) return -1;
    const std::int32_t port = decimal_value(rsync_endpoint(job, as_source).port);

    arguments.insert(arguments.end(), {"-vP", "-8", "--timeout=1800", "--recursive", "--links", "--times",
                                       "--omit-dir-times", "--devices", "--specials"});
    TSBACKUP_LOG(level::debug, "as_src=%d src.type=%s src.share_proto=%s\n", as_source, text_or_empty(job.src_type),
                 text_or_empty(job.src_share_proto));
    if (as_source != 0 || !spans_file_systems(job)) arguments.emplace_back("--one-file-system");
    arguments.emplace_back(run.full != 0 ? "--ignore-times" : "--modify-window=1");
    if ((mask & kDelete) != 0) arguments.emplace_back("--delete");
    if ((mask & kCompress) != 0) arguments.emplace_back("--compress");
    add_ownership(mask, attempt, arguments);
    if ((mask & kHardLinks) != 0) arguments.emplace_back("--hard-links");
    add_job_excludes(job, arguments);
    add_snapshot_excludes(job, run, arguments);
    add_transport(port, remote_shell, arguments);
    return 0;
}

const char *rsync_split_remote_path(const char *path, char *host, std::size_t host_size, int *remote_shell) {
    const char *colon = std::strchr(path, ':');
    if (colon == nullptr || host_size == 0) return nullptr;
    const std::size_t length = std::min(static_cast<std::size_t>(colon - path), host_size - 1);
    std::memcpy(host, path, length);
    host[length] = '\0';
    const std::size_t colons = std::strspn(colon, ":");
    *remote_shell = colons == 1 ? 1 : 0;
    return colon + colons;
}

void rsync_login_and_password(const RsyncEndpoint &endpoint, int remote_shell, std::string &login_prefix,
                              std::string &environment_entry) {
    login_prefix.clear();
    environment_entry.clear();
    const std::string login = text_or_empty(endpoint.login);
    if (login.empty()) return;
    login_prefix = login + "@";
    const std::string password = text_or_empty(endpoint.password);
    if (remote_shell == 0 && !password.empty()) environment_entry = "RSYNC_PASSWORD=" + password;
}

int fs_keeps_ownership(const char *path) {
    struct statfs statistics {};
    if (statfs(path, &statistics) != 0) return 0;
    return statistics.f_type == BTRFS_SUPER_MAGIC || statistics.f_type == EXT4_SUPER_MAGIC ? 1 : 0;
}

int visible_subdir_filter(const dirent *entry) {
    return entry->d_name[0] != '.' && entry->d_name[0] != '\0' && entry->d_type == DT_DIR ? 1 : 0;
}

} // namespace tsbackup
