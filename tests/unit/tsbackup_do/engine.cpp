#include "engine.h"

#include "tsbackup/owners.h"
#include "walk.h"

#include <acl/libacl.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <linux/loop.h>
#include <map>
#include <memory>
#include <sched.h>
#include <stdexcept>
#include <sys/acl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace tsbackup::test {

namespace fs = std::filesystem;

namespace {

constexpr uid_t kUser = 65534;

/// The private mount namespace and what is mounted in it.
class Volumes {
  public:
    Volumes() {
        if (!is_real_root()) {
            reason_ = "not root on the machine";
            return;
        }
        std::string name = (fs::temp_directory_path() / "tsbackup-volumes-XXXXXX").string();
        if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mkdtemp(name.data()) == nullptr) {
            reason_ = std::string("no mount namespace: ") + std::strerror(errno);
            return;
        }
        base_ = name;
        if (mount("tmpfs", base_.c_str(), "tmpfs", 0, "size=2g,mode=755") != 0)
            reason_ = std::string("no tmpfs: ") + std::strerror(errno);
    }
    ~Volumes() {
        for (const auto &[kind, path] : mounted_)
            umount2(path.c_str(), MNT_DETACH);
        if (base_.empty()) return;
        umount2(base_.c_str(), MNT_DETACH);
        rmdir(base_.c_str());
    }
    Volumes(const Volumes &) = delete;
    Volumes &operator=(const Volumes &) = delete;

    std::string path(Volume kind) {
        if (!reason_.empty()) return "";
        const auto known = mounted_.find(kind);
        if (known != mounted_.end()) return known->second;
        return mounted_[kind] = make(kind);
    }
    const std::string &reason() const { return reason_; }

  private:
    std::string make(Volume kind) {
        switch (kind) {
        case Volume::tmpfs:
            return with_command("tmpfs", "mount -t tmpfs -o mode=755 tmpfs");
        case Volume::small_tmpfs:
            return with_command("small_tmpfs", "mount -t tmpfs -o mode=755,size=1m tmpfs");
        case Volume::ext4:
            return with_image("ext4", "256M", "ext4", "mkfs.ext4 -q -F -m 0");
        case Volume::small_ext4:
            return with_image("small_ext4", "8M", "ext4", "mkfs.ext4 -q -F -m 0 -O ^has_journal");
        case Volume::btrfs:
            return with_image("btrfs", "256M", "btrfs", "mkfs.btrfs -q -f");
        }
        return "";
    }
    std::string with_image(const std::string &name, const std::string &size, const char *type,
                           const std::string &mkfs) {
        const std::string image = base_ + "/" + name + ".img";
        const std::string output = shell_output("truncate -s " + size + " " + image + " && " + mkfs + " " + image +
                                                " >/dev/null && echo done");
        if (output != "done\n") return missing(name, output);
        std::string path = base_ + "/" + name;
        std::string device;
        const UniqueFd held = attach(image, device); // once it is mounted, the device lives as long as the mount
        if (!held || mkdir(path.c_str(), 0755) != 0 || mount(device.c_str(), path.c_str(), type, 0, nullptr) != 0)
            return missing(name, std::strerror(errno));
        return path;
    }
    /// Attaches an image to a free loop device. The nodes are made here: an appliance shows none of the machine's.
    UniqueFd attach(const std::string &image, std::string &device) const {
        const std::string control_path = base_ + "/loop-control";
        mknod(control_path.c_str(), S_IFCHR | 0600, makedev(10, 237));
        const UniqueFd control(open(control_path.c_str(), O_RDWR | O_CLOEXEC));
        const UniqueFd file(open(image.c_str(), O_RDWR | O_CLOEXEC));
        if (!control || !file) return UniqueFd();
        for (int attempt = 0; attempt < 20; ++attempt) {
            const int number = ioctl(control.get(), LOOP_CTL_GET_FREE);
            if (number < 0) break;
            device = base_ + "/loop" + std::to_string(number);
            mknod(device.c_str(), S_IFBLK | 0600, makedev(7, static_cast<unsigned>(number)));
            UniqueFd loop(open(device.c_str(), O_RDWR | O_CLOEXEC));
            loop_config config{};
            config.fd = static_cast<std::uint32_t>(file.get());
            config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
            if (loop && ioctl(loop.get(), LOOP_CONFIGURE, &config) == 0) return loop;
            if (errno != EBUSY) break; // busy: another process was faster
        }
        return UniqueFd();
    }
    std::string with_command(const std::string &name, const std::string &command) {
        std::string path = base_ + "/" + name;
        if (mkdir(path.c_str(), 0755) != 0) return missing(name, std::strerror(errno));
        const std::string output = shell_output(command + " " + path + " && echo done");
        return output == "done\n" ? path : missing(name, output);
    }
    std::string missing(const std::string &name, const std::string &why) {
        reason_ = name + ": " + why;
        return "";
    }

    std::string base_;
    std::string reason_;
    std::map<Volume, std::string> mounted_;
};

std::unique_ptr<Volumes> volumes;

class VolumesEnvironment : public testing::Environment {
  public:
    void SetUp() override { volumes = std::make_unique<Volumes>(); }
    void TearDown() override { volumes.reset(); }
};

[[maybe_unused]] testing::Environment *const registered = testing::AddGlobalTestEnvironment(new VolumesEnvironment);

std::size_t open_descriptors() {
    std::size_t count = 0;
    for (const auto &entry : fs::directory_iterator("/proc/self/fd")) {
        static_cast<void>(entry);
        ++count;
    }
    return count;
}

std::string content_of(int fd) {
    std::string text(static_cast<std::size_t>(lseek(fd, 0, SEEK_END)), '\0');
    // Past the hooks, which are meant for the engine's own reading.
    const long got = syscall(SYS_pread64, fd, text.data(), text.size(), 0);
    text.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
    return text;
}

std::string list_text(const std::string &path, acl_type_t type, const char *attribute) {
    if (getxattr(path.c_str(), attribute, nullptr, 0) <= 0) return "";
    acl_t list = acl_get_file(path.c_str(), type);
    char *text = acl_to_any_text(list, nullptr, ',', TEXT_ABBREVIATE | TEXT_NUMERIC_IDS);
    std::string result = text != nullptr ? text : "";
    acl_free(text);
    acl_free(list);
    return result;
}

void set_list(const std::string &path, const std::string &text, acl_type_t type) {
    acl_t list = acl_from_text(text.c_str());
    const int result = list == nullptr ? -1 : acl_set_file(path.c_str(), type, list);
    acl_free(list);
    if (result != 0) throw std::runtime_error("cannot set the list of " + path);
}

} // namespace

std::string volume(Volume kind) { return volumes->path(kind); }

std::string volumes_missing_because() { return volumes->reason(); }

TmpfsMount::TmpfsMount(const std::string &path) : path_(path) {
    if (mount("tmpfs", path_.c_str(), "tmpfs", 0, "size=1m,mode=755") != 0)
        throw std::runtime_error("cannot mount on " + path_);
}

TmpfsMount::~TmpfsMount() { umount2(path_.c_str(), MNT_DETACH); }

ReadOnly::ReadOnly(const std::string &volume_path) : path_(volume_path) {
    if (mount(nullptr, path_.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr) != 0)
        throw std::runtime_error("cannot turn read-only: " + path_);
}

ReadOnly::~ReadOnly() { mount(nullptr, path_.c_str(), nullptr, MS_REMOUNT, nullptr); }

AsUser::AsUser() {
    if (seteuid(kUser) != 0) throw std::runtime_error("cannot become an ordinary user");
}

AsUser::~AsUser() {
    if (seteuid(0) != 0) std::abort();
}

Ballast::Ballast(const std::string &volume_path, std::uint64_t bytes) : path_(volume_path + "/ballast") {
    const int fd = open(path_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    off_t size = 0;
    for (off_t step = off_t{1} << 30; step >= 1024; step /= 2) {
        struct statvfs space {};
        if (fstatvfs(fd, &space) != 0) break;
        const std::uint64_t free = std::uint64_t{space.f_bavail} * space.f_frsize;
        if (free < bytes + static_cast<std::uint64_t>(step)) continue;
        if (posix_fallocate(fd, size, step) == 0) size += step;
        step *= 2;
    }
    close(fd);
}

Ballast::~Ballast() { unlink(path_.c_str()); }

TestRun::TestRun() {
    clock_failed = 1;
    src_is_dir = 1;
    copy_log = memfd_create("copy log", MFD_CLOEXEC);
    error_log = memfd_create("error log", MFD_CLOEXEC);
}

TestRun::~TestRun() {
    close(copy_log);
    close(error_log);
}

std::string TestRun::copied() const { return content_of(copy_log); }

std::string TestRun::failures() const { return content_of(error_log); }

struct stat status_of(const std::string &path) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) throw std::runtime_error("cannot examine " + path);
    return status;
}

std::int64_t mtime_of(const std::string &path) {
    const struct stat status = status_of(path);
    return std::int64_t{status.st_mtim.tv_sec} * 1'000'000'000 + status.st_mtim.tv_nsec;
}

void set_mtime(const std::string &path, std::int64_t seconds, long nanoseconds) {
    const std::array<timespec, 2> times = {timespec{seconds - 86400, nanoseconds}, timespec{seconds, nanoseconds}};
    if (utimensat(AT_FDCWD, path.c_str(), times.data(), AT_SYMLINK_NOFOLLOW) != 0)
        throw std::runtime_error("cannot set the time of " + path);
}

mode_t mode_of(const std::string &path) { return status_of(path).st_mode & 07777; }

std::string pattern(std::size_t size) {
    std::string text(size, '\0');
    std::uint32_t value = 12345;
    for (std::size_t index = 0; index < size; ++index) {
        if (index % 512 == 0) value = value * 1664525 + 1013904223;
        text[index] = static_cast<char>((value >> 24) + index % 251);
    }
    return text;
}

std::vector<std::string> tree(const std::string &path) {
    std::vector<std::string> paths;
    for (const auto &entry : fs::recursive_directory_iterator(path)) {
        const bool is_folder = entry.is_directory() && !entry.is_symlink();
        paths.push_back(entry.path().string().substr(path.size() + 1) + (is_folder ? "/" : ""));
    }
    std::sort(paths.begin(), paths.end());
    return paths;
}

std::string access_list(const std::string &path) { return list_text(path, ACL_TYPE_ACCESS, "system.posix_acl_access"); }

std::string default_list(const std::string &path) {
    return list_text(path, ACL_TYPE_DEFAULT, "system.posix_acl_default");
}

void set_access_list(const std::string &path, const std::string &text) { set_list(path, text, ACL_TYPE_ACCESS); }

void set_default_list(const std::string &path, const std::string &text) { set_list(path, text, ACL_TYPE_DEFAULT); }

std::string with_replaced(std::string text, const std::string &from, const std::string &to) {
    for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
    return text;
}

void EngineTest::SetUp() {
    kernel() = Kernel{};
    timestamp_resolution_ns = 100'000;
    coarse_dst_times = 0;
    umask(022);
    descriptors_ = open_descriptors();
}

void EngineTest::TearDown() {
    kernel() = Kernel{};
    EXPECT_EQ(open_descriptors(), descriptors_) << "descriptors leaked";
    for (const std::string &folder : folders_)
        shell_output("rm -rf -- '" + folder + "'");
}

std::string EngineTest::scratch(Volume kind) {
    std::string path = volume(kind) + "/test-XXXXXX";
    if (mkdtemp(path.data()) == nullptr) throw std::runtime_error("cannot make " + path);
    chmod(path.c_str(), 0755);
    folders_.push_back(path);
    return path;
}

std::string EngineTest::scratch() {
    if (!volume(Volume::tmpfs).empty()) return scratch(Volume::tmpfs);
    std::string path = (fs::temp_directory_path() / "tsbackup-test-XXXXXX").string();
    if (mkdtemp(path.data()) == nullptr) throw std::runtime_error("cannot make " + path);
    folders_.push_back(path);
    return path;
}

void EngineTest::copy_tree(TestRun &run, const std::string &src, const std::string &dst) {
    backup_do_cp(BackupJob{}, run, src.c_str(), dst.c_str());
}

} // namespace tsbackup::test
