#include "tsbackup/log.h"
#include "tsbackup/owners.h"
#include "tsbackup_do.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace tsbackup {

namespace {

/// Folders nested deeper than this are closed on the way down and found again from below, so that no tree uses up
/// the descriptors.
constexpr std::size_t kHeldLevels = 200;

/// A folder on the way down.
struct Level {
    UniqueFd fd; ///< -1: closed on the way down
    struct stat identity {};
    std::vector<std::string> folders; ///< still to be removed, the next one at the end
    std::size_t path_length = 0;
};

mode_t type_of(int folder, const dirent &entry) {
    if (entry.d_type != DT_UNKNOWN) return static_cast<mode_t>(DTTOIF(entry.d_type));
    struct stat status {};
    return fstatat(folder, entry.d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 ? status.st_mode & S_IFMT : 0;
}

/// Removes the files and links of a folder and notes its subfolders. 0 or an errno value.
int empty_of_files(Level &level) {
    UniqueFd own_fd(fcntl(level.fd.get(), F_DUPFD_CLOEXEC, 0));
    const UniqueDir folder(own_fd ? fdopendir(own_fd.get()) : nullptr);
    if (!folder) return errno;
    own_fd.release();
    while (const dirent *entry = readdir(folder.get())) {
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
        const mode_t type = type_of(level.fd.get(), *entry);
        if (S_ISREG(type) || S_ISLNK(type))
            static_cast<void>(unlinkat(level.fd.get(), entry->d_name, 0));
        else if (S_ISDIR(type))
            level.folders.emplace_back(entry->d_name);
    }
    std::reverse(level.folders.begin(), level.folders.end());
    return 0;
}

/// Opens a folder and empties it of its files. 0 or an errno value.
int enter(int parent, const char *name, int follow, const std::string &path, Level &level) {
    TSBACKUP_LOG(level::debug, "do_rmtree(%s)\n", path.c_str());
    level.path_length = path.size();
    level.fd.reset(openat(parent, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | follow));
    const bool opened = level.fd && fstat(level.fd.get(), &level.identity) == 0;
    const int error = opened ? empty_of_files(level) : errno;
    if (error != 0) TSBACKUP_LOG(level::debug, "Cannot opendir(%s)\n", path.c_str());
    return error;
}

/// Opens a folder that was closed on the way down again. False when another one stands above `below` by now.
bool find_again(Level &level, int below) {
    level.fd.reset(openat(below, "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat status {};
    if (level.fd && fstat(level.fd.get(), &status) == 0 && status.st_dev == level.identity.st_dev &&
        status.st_ino == level.identity.st_ino)
        return true;
    level.fd.reset();
    return false;
}

/// Leaves the deepest folder, which is empty but for what has to stay, and removes it from the one above.
void leave(std::vector<Level> &levels, std::string &path) {
    const Level done = std::move(levels.back());
    levels.pop_back();
    if (levels.empty()) return;
    Level &above = levels.back();
    path.resize(above.path_length);
    if (!above.fd && !find_again(above, done.fd.get())) {
        above.folders.clear();
        return;
    }
    static_cast<void>(unlinkat(above.fd.get(), above.folders.back().c_str(), AT_REMOVEDIR));
    above.folders.pop_back();
}

} // namespace

// Only the root may be reached through a symbolic link: whatever takes a folder's place meanwhile leads nowhere else.
int do_rmtree_contents(const char *root, [[maybe_unused]] BackupRun &run) {
    std::string path = root;
    std::vector<Level> levels(1);
    if (const int error = enter(AT_FDCWD, root, 0, path, levels.back())) return error;
    while (!levels.empty()) {
        Level &level = levels.back();
        if (level.folders.empty()) {
            leave(levels, path);
            continue;
        }
        const std::string &name = level.folders.back();
        path += "/" + name;
        Level below;
        if (enter(level.fd.get(), name.c_str(), O_NOFOLLOW, path, below) != 0) {
            path.resize(level.path_length);
            level.folders.pop_back();
            continue;
        }
        if (levels.size() > kHeldLevels) level.fd.reset();
        levels.push_back(std::move(below));
    }
    return 0;
}

int do_rmtree(const char *path, BackupRun &run) {
    if (const int error = do_rmtree_contents(path, run)) return error;
    static_cast<void>(rmdir(path));
    return 0;
}

} // namespace tsbackup
