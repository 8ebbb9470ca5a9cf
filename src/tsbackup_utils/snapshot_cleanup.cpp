// Left-over job snapshots: /VOLUME/._share/SHARE/.snapshot/b_JOB_PROCESS.

#include "tsbackup_utils.h"

#include "tsbackup/log.h"
#include "tsbackup/owners.h"

#include <sys/stat.h>

namespace tsbackup {

namespace {

/// The names in a folder that do not begin with a dot; none when it cannot be opened.
std::vector<std::string> visible_names(const std::string &path) {
    std::vector<std::string> names;
    const UniqueDir folder(opendir(path.c_str()));
    if (!folder) return names;
    while (const dirent *entry = readdir(folder.get())) {
        if (entry->d_name[0] != '.') names.emplace_back(entry->d_name);
    }
    return names;
}

/// A link is not a folder of its own here: whoever may write to a share must not be able to point the clean-up at
/// somebody else's subvolume.
bool is_own_folder(const std::string &path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

bool is_left_over(const std::string &name, std::uint32_t pid) {
    if (!name.starts_with("b_")) return false;
    if (pid == 0) return true;
    const std::size_t owner = name.rfind('_') + 1;
    return static_cast<std::uint32_t>(decimal_value(name.c_str() + owner)) == pid;
}

void delete_snapshot(const std::string &path) {
    TSBACKUP_LOG(level::notice, "Clean up old snapshot %s\n", path.c_str());
    // The whole command: one that were cut could name another subvolume.
    const std::string command = "/sbin/btrfs subvolume delete " + shell_word(path);
    if (backup_system(command.c_str()) != 0)
        TSBACKUP_LOG(level::error, "Cannot delete snapshot at this time. %s\n", path.c_str());
}

} // namespace

void backup_snapshot_cleanup(std::uint32_t pid) {
    for (const std::string &volume : visible_names("/")) {
        const std::string shares = "/" + volume + "/._share";
        for (const std::string &share : visible_names(shares)) {
            const std::string snapshots = str_concat(shares, {"/", share, "/.snapshot"});
            for (const std::string &name : visible_names(snapshots)) {
                const std::string path = str_concat(snapshots, {"/", name});
                if (is_left_over(name, pid) && is_own_folder(path)) delete_snapshot(path);
            }
        }
    }
}

} // namespace tsbackup
