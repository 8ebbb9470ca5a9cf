#include "tree.h"

#include "tsbackup/owners.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <vector>

namespace tsbackup::bench {

namespace {

constexpr std::size_t kBlock = std::size_t{128} * 1024;

struct Entry {
    std::string name;
    struct stat status;
};

std::vector<Entry> list(const std::string &folder) {
    std::vector<Entry> entries;
    const UniqueDir dir(opendir(folder.c_str()));
    if (!dir) return entries;
    while (const dirent *found = readdir(dir.get())) {
        if (std::strcmp(found->d_name, ".") == 0 || std::strcmp(found->d_name, "..") == 0) continue;
        Entry entry{found->d_name, {}};
        if (fstatat(dirfd(dir.get()), found->d_name, &entry.status, AT_SYMLINK_NOFOLLOW) == 0)
            entries.push_back(std::move(entry));
    }
    std::sort(entries.begin(), entries.end(), [](const Entry &a, const Entry &b) { return a.name < b.name; });
    return entries;
}

UniqueFd open_to_read(const std::string &path) { return UniqueFd(open(path.c_str(), O_RDONLY | O_CLOEXEC)); }

void read_file(const std::string &path) {
    static char block[kBlock];
    const UniqueFd fd = open_to_read(path);
    while (read(fd.get(), block, sizeof block) > 0) {
    }
}

bool same_content(const std::string &original, const std::string &copy) {
    static char original_block[kBlock];
    static char copy_block[kBlock];
    const UniqueFd original_fd = open_to_read(original);
    const UniqueFd copy_fd = open_to_read(copy);
    for (;;) {
        const ssize_t original_length = read(original_fd.get(), original_block, kBlock);
        const ssize_t copy_length = read(copy_fd.get(), copy_block, kBlock);
        if (original_length < 0 || original_length != copy_length) return false;
        if (original_length == 0) return true;
        if (std::memcmp(original_block, copy_block, static_cast<std::size_t>(original_length)) != 0) return false;
    }
}

/// Empty when the file has none.
std::string access_list(const std::string &path) {
    char value[1024];
    const ssize_t length = lgetxattr(path.c_str(), "system.posix_acl_access", value, sizeof value);
    return length < 0 ? std::string() : std::string(value, static_cast<std::size_t>(length));
}

/// What two entries differ in, null: in nothing.
const char *difference(const Entry &original, const std::string &original_path, const Entry &copy,
                       const std::string &copy_path) {
    const struct stat &a = original.status;
    const struct stat &b = copy.status;
    if (a.st_mode != b.st_mode) return "type or mode";
    if (a.st_uid != b.st_uid || a.st_gid != b.st_gid) return "owner";
    if (access_list(original_path) != access_list(copy_path)) return "access list";
    if (!S_ISREG(a.st_mode)) return nullptr;
    if (a.st_mtim.tv_sec != b.st_mtim.tv_sec || a.st_mtim.tv_nsec != b.st_mtim.tv_nsec) return "modification time";
    if (a.st_size != b.st_size) return "size";
    return same_content(original_path, copy_path) ? nullptr : "content";
}

bool report(const std::string &path, const char *what) {
    std::fprintf(stderr, "bench: the copy differs: %s: %s\n", path.c_str(), what);
    return false;
}

} // namespace

TreeTotals read_tree(const std::string &root, Reading reading) {
    TreeTotals totals;
    for (const Entry &entry : list(root)) {
        const std::string path = root + "/" + entry.name;
        if (S_ISDIR(entry.status.st_mode)) {
            const TreeTotals below = read_tree(path, reading);
            totals.files += below.files;
            totals.folders += below.folders + 1;
            totals.bytes += below.bytes;
        } else if (S_ISREG(entry.status.st_mode)) {
            if (reading == Reading::contents) read_file(path);
            ++totals.files;
            totals.bytes += entry.status.st_size;
        }
    }
    return totals;
}

bool same_trees(const std::string &original, const std::string &copy) {
    const std::vector<Entry> originals = list(original);
    const std::vector<Entry> copies = list(copy);
    for (std::size_t index = 0; index < std::max(originals.size(), copies.size()); ++index) {
        if (index >= originals.size()) return report(copy + "/" + copies[index].name, "surplus");
        const std::string original_path = original + "/" + originals[index].name;
        if (index >= copies.size() || originals[index].name != copies[index].name)
            return report(original_path, "not at the same place in the copy");
        const std::string copy_path = copy + "/" + copies[index].name;
        const char *const what = difference(originals[index], original_path, copies[index], copy_path);
        if (what != nullptr) return report(copy_path, what);
        if (S_ISDIR(originals[index].status.st_mode) && !same_trees(original_path, copy_path)) return false;
    }
    return true;
}

bool change_last_file(const std::string &root) {
    const std::vector<Entry> entries = list(root);
    for (auto entry = entries.rbegin(); entry != entries.rend(); ++entry) {
        const std::string path = root + "/" + entry->name;
        if (S_ISDIR(entry->status.st_mode)) {
            if (change_last_file(path)) return true;
            continue;
        }
        const UniqueFd fd(open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
        if (fd && write(fd.get(), "+", 1) == 1) return true;
    }
    return false;
}

} // namespace tsbackup::bench
