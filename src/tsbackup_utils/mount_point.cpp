#include "tsbackup_utils.h"

#include "tsbackup/owners.h"

#include <cerrno>
#include <cstdlib>
#include <string_view>
#include <sys/mount.h>
#include <sys/stat.h>

namespace tsbackup {

namespace {

/// Whether a relative path climbs above where it starts, by its components alone.
bool climbs_out(std::string_view path) {
    int depth = 0;
    while (!path.empty()) {
        const std::size_t end = path.find('/');
        const std::string_view component = path.substr(0, end);
        if (component == "..")
            --depth;
        else if (!component.empty() && component != ".")
            ++depth;
        if (depth < 0) return true;
        path = end == std::string_view::npos ? std::string_view() : path.substr(end + 1);
    }
    return false;
}

bool is_link(const std::string &path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

} // namespace

int mount_point_create(const std::string &mount_point) {
    return mkdir(mount_point.c_str(), S_IRWXU) == 0 || errno == EEXIST ? 0 : -1;
}

void mount_point_unmount(const std::string &mount_point) {
    // Kept as it is: force is used after a success alone. A busy mount stays, and the next run of its job finds it.
    if (umount(mount_point.c_str()) == 0) umount2(mount_point.c_str(), MNT_FORCE);
}

bool mount_point_holds(const std::string &mount_point, const std::string &path) {
    if (climbs_out(path)) return false;
    std::string whole = mount_point + "/" + path;
    while (whole.size() > mount_point.size()) {
        if (const UniqueText real(realpath(whole.c_str(), nullptr)); real) {
            const std::string_view found = real.get();
            return found == mount_point || found.substr(0, mount_point.size() + 1) == mount_point + "/";
        }
        // A link to something that is not there yet would be followed as soon as it is.
        if (is_link(whole)) return false;
        whole.erase(whole.rfind('/'));
    }
    return true;
}

} // namespace tsbackup
