#include "staging.h"

#include "tsbackup/log.h"
#include "tsbackup_utils.h"

#include <array>
#include <cerrno>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace tsbackup {

namespace {

constexpr std::size_t kPathSize = 64;

std::string staging_path(const std::string &parent, const std::string &name) {
    std::array<char, kPathSize> path{};
    return str_snprintf(path.data(), path.size(), "%s/%s", parent.c_str(), name.c_str());
}

/// The last component, or nothing where it would lead out of the staging folder.
std::string last_component(std::string path) {
    while (!path.empty() && path.back() == '/')
        path.pop_back();
    path.erase(0, path.rfind('/') + 1);
    if (path == "." || path == "..") path.clear();
    return path;
}

/// Makes a folder that is closed to all others. What already stands there, left by an earlier process with the same
/// number, will do when it is such a folder: "/tmp" is everybody's, and a mount must not go where somebody else says.
bool make_private_folder(const std::string &path) {
    if (mkdir(path.c_str(), S_IRWXU) == 0) return true;
    struct stat status {};
    if (errno != EEXIST || lstat(path.c_str(), &status) != 0) return false;
    return S_ISDIR(status.st_mode) && status.st_uid == geteuid() && (status.st_mode & (S_IRWXG | S_IRWXO)) == 0;
}

/// The kernel makes a new bind mount writable whatever it is asked for. The restrictions of the mounted file system
/// stay as they are.
void make_read_only(const std::string &path) {
    struct statvfs status {};
    const unsigned long restrictions =
        statvfs(path.c_str(), &status) == 0 ? status.f_flag & (ST_NOSUID | ST_NODEV | ST_NOEXEC) : 0;
    if (mount(nullptr, path.c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY | restrictions, nullptr) != 0)
        TSBACKUP_LOG(level::warning, "Cannot make %s read-only. errno=%d\n", path.c_str(), errno);
}

} // namespace

std::string staging_name(const BackupJob &job) {
    std::string name = last_component(text_or_empty(job.src_path));
    if (!name.empty()) return name;
    const std::string share = text_or_empty(job.src_share_proto);
    if (job.src_type == "home" && !share.empty() && share.front() == '*') return *job.src_type;
    return last_component(share);
}

StagingMount::StagingMount(const std::string &source, const std::string &name)
    : parent_("/tmp/" + std::to_string(getpid())), path_(staging_path(parent_, name)) {
    parent_is_private_ = make_private_folder(parent_);
    if (!parent_is_private_) {
        TSBACKUP_LOG(level::error, "Cannot create folder %s\n", parent_.c_str());
        return;
    }
    mkdir(path_.c_str(), S_IRWXU);
    umount2(path_.c_str(), UMOUNT_NOFOLLOW);
    made_ = mount(source.c_str(), path_.c_str(), nullptr, MS_BIND | MS_RDONLY, nullptr) == 0;
    if (made_)
        make_read_only(path_);
    else
        TSBACKUP_LOG(level::error, "Cannot mount %s on %s. errno=%d\n", source.c_str(), path_.c_str(), errno);
}

// The folders are removed only when they are empty: should the source still be mounted, it is not touched.
StagingMount::~StagingMount() {
    if (!parent_is_private_) return;
    if (made_ && umount2(path_.c_str(), UMOUNT_NOFOLLOW) != 0) umount2(path_.c_str(), MNT_DETACH | UMOUNT_NOFOLLOW);
    rmdir(path_.c_str());
    rmdir(parent_.c_str());
}

} // namespace tsbackup
