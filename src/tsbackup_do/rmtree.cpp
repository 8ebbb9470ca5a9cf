#include "place.h"
#include "tsbackup/log.h"
#include "tsbackup/owners.h"
#include "tsbackup_do.h"

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace tsbackup {

namespace {

/// Folders nested deeper than this are reached by their whole path, so that no tree uses up the descriptors.
constexpr int kHeldLevels = 400;

mode_t type_of(int folder, const dirent &entry) {
    if (entry.d_type != DT_UNKNOWN) return DTTOIF(entry.d_type);
    struct stat status {};
    return fstatat(folder, entry.d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 ? status.st_mode & S_IFMT : 0;
}

int empty_folder(const Place &place, int depth);

void remove_entry(int folder, const dirent &entry, const Place &parent, int depth) {
    const mode_t type = type_of(folder, entry);
    if (S_ISREG(type) || S_ISLNK(type)) {
        static_cast<void>(unlinkat(folder, entry.d_name, 0));
    } else if (S_ISDIR(type)) {
        const std::string path = std::string(parent.path) + "/" + entry.d_name;
        const bool held = depth < kHeldLevels;
        const Place place = held ? Place{folder, entry.d_name, path.c_str()} : Place::of_path(path.c_str());
        if (empty_folder(place, depth + 1) == 0) static_cast<void>(unlinkat(place.folder, place.name, AT_REMOVEDIR));
    }
}

/// Removes what is inside a folder. 0, or the errno that kept the folder from being opened. Only the root may be
/// reached through a symbolic link: whatever takes a folder's place meanwhile leads nowhere else.
int empty_folder(const Place &place, int depth) {
    TSBACKUP_LOG(level::debug, "do_rmtree(%s)\n", place.path);
    const int follow = depth == 0 ? 0 : O_NOFOLLOW;
    UniqueFd fd(openat(place.folder, place.name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | follow));
    const UniqueDir folder(fd ? fdopendir(fd.get()) : nullptr);
    if (!folder) {
        const int error = errno;
        TSBACKUP_LOG(level::debug, "Cannot opendir(%s)\n", place.path);
        return error;
    }
    fd.release();
    while (const dirent *entry = readdir(folder.get())) {
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
        remove_entry(dirfd(folder.get()), *entry, place, depth);
    }
    return 0;
}

} // namespace

int do_rmtree_contents(const char *path, [[maybe_unused]] BackupRun &run) {
    return empty_folder(Place::of_path(path), 0);
}

int do_rmtree(const char *path, BackupRun &run) {
    if (const int error = do_rmtree_contents(path, run)) return error;
    static_cast<void>(rmdir(path));
    return 0;
}

} // namespace tsbackup
