#include "appliance_support.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tsbackup::test {

namespace fs = std::filesystem;

namespace {

constexpr uid_t kShareOwner = 98;

struct Share {
    const char *volume;
    const char *name;
};
constexpr Share kShares[] = {
    {"data", "Documents"}, {"data", "Music"}, {"data", "Pictures"}, {"vault", "Archive"}, {"vault", "Backup"},
};

/// Whether something is mounted on a path or below it: a folder of the machine, which is never ours to empty.
bool holds_mount(const std::string &path) {
    std::istringstream mounts(read_file("/proc/self/mounts"));
    std::string line;
    while (std::getline(mounts, line)) {
        std::istringstream words(line);
        std::string device;
        std::string at;
        words >> device >> at;
        // The table writes a blank in a path as "\\040".
        for (std::size_t blank = 0; (blank = at.find("\\040")) != std::string::npos;)
            at.replace(blank, 4, " ");
        if (at == path || at.starts_with(path + "/")) return true;
    }
    return false;
}

/// Removes a file, a folder or a subvolume, read-only or not, unless something is mounted there.
void remove_entry(const std::string &path) {
    if (holds_mount(path)) return;
    std::error_code error;
    fs::remove_all(path, error);
    if (!file_exists(path)) return;
    std::string quoted = path;
    for (std::size_t at = 0; (at = quoted.find('\'', at)) != std::string::npos; at += 4)
        quoted.replace(at, 1, "'\\''");
    quoted = "'" + quoted + "'";
    shell_output("chattr -R -i -a " + quoted + "; btrfs property set -f " + quoted +
                 " ro false; btrfs subvolume delete " + quoted + "; rm -rf --one-file-system " + quoted);
    if (file_exists(path)) throw std::runtime_error("cannot remove " + path);
}

std::vector<std::string> entries_of(const std::string &folder) {
    std::vector<std::string> paths;
    for (const auto &entry : fs::directory_iterator(folder))
        paths.push_back(entry.path());
    return paths;
}

void empty_folder(const std::string &folder) {
    if (!fs::is_directory(fs::symlink_status(folder))) return;
    for (const std::string &path : entries_of(folder))
        remove_entry(path);
}

/// Deletes the snapshots of every share of a volume, and then everything on it that no appliance starts with.
void reset_volume(const std::string &volume) {
    const std::string folder = "/" + volume;
    if (volumes()) {
        shell_output("for s in " + folder +
                     "/._share/*/.snapshot/*; do [ -d \"$s\" ] && btrfs subvolume delete \"$s\"; done");
    }
    empty_folder(folder + "/._share");
    for (const std::string &path : entries_of(folder)) {
        const std::string name = fs::path(path).filename();
        if (name == "._share") continue;
        const bool known = std::any_of(std::begin(kShares), std::end(kShares), [&](const Share &share) {
            return volume == share.volume && name == share.name;
        });
        empty_folder(path);
        if (!known && name != ".timemachine") remove_entry(path);
    }
}

void make_pipe(const std::string &path) {
    struct stat status {};
    if (lstat(path.c_str(), &status) == 0 && S_ISFIFO(status.st_mode)) return;
    unlink(path.c_str());
    if (mkfifo(path.c_str(), 0600) != 0) throw std::runtime_error("cannot make the pipe " + path);
}

} // namespace

bool volumes() {
    static const bool full = read_file("/.appliance").find("kind=full") != std::string::npos;
    return full;
}

void make_share(const std::string &volume, const std::string &name) {
    const std::string path = "/" + volume + "/" + name;
    if (!file_exists(path)) {
        if (volumes())
            shell_output("btrfs subvolume create '" + path + "'");
        else
            make_folder(path);
    }
    if (chmod(path.c_str(), 0777) != 0) throw std::runtime_error("cannot make the share " + path);
    if (is_real_root() && chown(path.c_str(), kShareOwner, kShareOwner) != 0)
        throw std::runtime_error("cannot give away the share " + path);
}

void set_service(const std::string &name, const std::string &value) {
    write_file("/etc/default/services", name + "=" + value + "\n");
}

void reset_appliance() {
    if (!in_appliance()) throw std::runtime_error("not in an appliance");
    for (const char *folder :
         {"/var/log/tessera/backup", "/home/alice", "/home/bob", "/media/USB", "/media/STICK", "/tmp"})
        empty_folder(folder);
    remove_tree("/apps/.backup");
    for (const std::string &name : list_folder("/media"))
        if (name != "USB" && name != "STICK") remove_entry("/media/" + name);

    if (file_exists("/data")) {
        reset_volume("data");
        reset_volume("vault");
        for (const Share &share : kShares) {
            const std::string path = std::string("/") + share.volume + "/" + share.name;
            shell_output("setfacl -bk '" + path + "'");
            make_share(share.volume, share.name);
        }
    }

    for (const std::string &name : list_folder("/var/run/zelkovad"))
        if (name != "tsbackup-q" && name != "mtpbackup-q" && name != "event") remove_tree("/var/run/zelkovad/" + name);
    make_pipe("/var/run/zelkovad/tsbackup-q");
    make_pipe("/var/run/zelkovad/mtpbackup-q");

    remove_tree("/etc/tessera/backup_jobs.conf");
    remove_tree("/etc/minidlna.conf");
    write_file("/etc/tessera/usb/storage.conf", storage_line("USB", "sdq1", "1") + storage_line("STICK", "sdr1", "2"));
    write_file("/etc/tessera/sysinfo", "HARDWARE_TYPE=1\n");
    set_service("ANTIVIRUS", "0");
}

} // namespace tsbackup::test
