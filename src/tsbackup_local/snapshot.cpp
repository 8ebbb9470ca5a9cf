#include "snapshot.h"

#include "tsbackup/paths.h"
#include "tsbackup_utils.h"

#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace tsbackup {

namespace {

constexpr std::size_t kLongestCommand = 2047;

/// Runs a command on snapshots. One that would have to be cut is not run: its last word would be another path.
void run_whole(const std::string &command) {
    if (command.size() <= kLongestCommand) backup_system(command.c_str());
}

} // namespace

void snapshot_take(BackupRun &run, const char *volume, const char *share) {
    const std::string share_root = std::string("/") + volume + "/" + share;
    const std::string settings = std::string("/") + volume + "/._share/" + share;
    const std::string folder = settings + "/.snapshot";
    mkdir(settings.c_str(), 0755);
    mkdir(folder.c_str(), 0755);

    run.snapshot_path = folder + "/b_" + std::to_string(run.job_id) + "_" + std::to_string(getpid());
    run_whole("/sbin/btrfs subvolume snapshot -r " + shell_word(share_root) + " " + shell_word(*run.snapshot_path));

    const auto own_snapshots = read_first_line((settings + "/snapdir.conf").c_str(), paths::buffer_size);
    const std::size_t slash = own_snapshots ? own_snapshots->rfind('/') : std::string::npos;
    if (slash != std::string::npos)
        run.snapshot_skip_path = *run.snapshot_path + "/" + own_snapshots->substr(slash + 1);
}

void snapshot_delete(BackupRun &run) {
    if (run.snapshot_path) run_whole("/sbin/btrfs subvolume delete " + shell_word(*run.snapshot_path));
    run.snapshot_path.reset();
    run.snapshot_skip_path.reset();
}

} // namespace tsbackup
