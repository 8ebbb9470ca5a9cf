#include "metadata.h"

#include "tsbackup/log.h"
#include "tsbackup_do.h"

#include <array>
#include <cerrno>
#include <memory>
#include <string>
#include <sys/acl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace tsbackup {

namespace {

constexpr char kAccessList[] = "system.posix_acl_access";
constexpr mode_t kPermissionBits = 07777;
constexpr mode_t kWriteBits = S_IWUSR | S_IWGRP | S_IWOTH;

struct AclRelease {
    void operator()(void *list) const { acl_free(list); }
};
using UniqueAcl = std::unique_ptr<std::remove_pointer_t<acl_t>, AclRelease>;

void copy_times(const struct stat &source, const MetaTarget &target) {
    const std::array<timespec, 2> times = {source.st_atim, source.st_mtim};
    if (target.fd >= 0)
        static_cast<void>(futimens(target.fd, times.data()));
    else
        static_cast<void>(utimensat(target.place.folder, target.place.name, times.data(), 0));
}

bool is_permission_failure(int error) { return error == EPERM || error == EACCES; }

void copy_owner(const struct stat &source, const MetaTarget &target) {
    const int result = target.fd >= 0
                           ? fchown(target.fd, source.st_uid, source.st_gid)
                           : fchownat(target.place.folder, target.place.name, source.st_uid, source.st_gid, 0);
    if (result != 0 && !is_permission_failure(errno))
        TSBACKUP_LOG(level::info, "Cannot chown(%s). errno=%d\n", target.place.path, errno);
}

void copy_mode(const struct stat &source, const MetaTarget &target) {
    const mode_t mode = source.st_mode & kPermissionBits;
    const int result =
        target.fd >= 0 ? fchmod(target.fd, mode) : fchmodat(target.place.folder, target.place.name, mode, 0);
    if (result != 0 && !is_permission_failure(errno))
        TSBACKUP_LOG(level::info, "Cannot chmod(%s). errno=%d\n", target.place.path, errno);
}

bool has_access_list(int fd, const char *path) {
    const ssize_t size = fd >= 0 ? fgetxattr(fd, kAccessList, nullptr, 0) : getxattr(path, kAccessList, nullptr, 0);
    return size > 0;
}

// A source without a list of its own still has the three entries of its mode; setting those takes away a list that
// the copy inherited from its folder or has from an earlier run.
void copy_access_list(const char *source_path, int source_fd, const MetaTarget &target) {
    if (!has_access_list(source_fd, source_path) &&
        (!target.may_have_access_list || !has_access_list(target.fd, target.place.path)))
        return;
    const UniqueAcl list(source_fd >= 0 ? acl_get_fd(source_fd) : acl_get_file(source_path, ACL_TYPE_ACCESS));
    if (!list) return;
    if (target.fd >= 0)
        acl_set_fd(target.fd, list.get());
    else
        acl_set_file(target.place.path, ACL_TYPE_ACCESS, list.get());
}

// The library reads a default list by path alone; the descriptor's own path stays good when the folder's name is gone.
void copy_default_list(const char *source_path, int source_fd, const MetaTarget &target) {
    const std::string held_path = "/proc/self/fd/" + std::to_string(source_fd);
    UniqueAcl list(source_fd >= 0 ? acl_get_file(held_path.c_str(), ACL_TYPE_DEFAULT) : nullptr);
    if (!list) list.reset(acl_get_file(source_path, ACL_TYPE_DEFAULT));
    if (list) acl_set_file(target.place.path, ACL_TYPE_DEFAULT, list.get());
}

} // namespace

void apply_metadata(const struct stat &source, const char *source_path, int source_fd, const MetaTarget &target,
                    const BackupRun &run) {
    copy_times(source, target);
    if (run.no_chown != 0) return;

    const struct stat *known = target.status;
    const bool same_owner = known != nullptr && known->st_uid == source.st_uid && known->st_gid == source.st_gid;
    if (!same_owner) copy_owner(source, target);
    // A change of the owner and, on some servers, the writing itself take the set-id bits away: only an unchanged
    // owner and a mode without these bits spare this call.
    const bool same_mode = same_owner && (source.st_mode & (S_ISUID | S_ISGID)) == 0 &&
                           ((known->st_mode ^ source.st_mode) & kPermissionBits) == 0;
    if (!same_mode) {
        copy_mode(source, target);
        // To an SMB server a file that nobody may write turns read-only, and can get back the time of its writing.
        if (target.fd < 0 && (source.st_mode & kWriteBits) == 0) copy_times(source, target);
    }
    copy_access_list(source_path, source_fd, target);
    if (S_ISDIR(source.st_mode)) copy_default_list(source_path, source_fd, target);
}

int do_copy_meta(const char *src, const char *dst, const BackupRun &run) {
    struct stat source {};
    if (stat(src, &source) != 0) return errno;
    MetaTarget target;
    target.place = Place::of_path(dst);
    apply_metadata(source, src, -1, target, run);
    return 0;
}

} // namespace tsbackup
