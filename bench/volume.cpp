#include "volume.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <linux/fs.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace tsbackup::bench {

namespace {

bool fail(const std::string &what) {
    std::fprintf(stderr, "bench: %s: %s\n", what.c_str(), std::strerror(errno));
    return false;
}

/// Blocks that the volume touches for the first time must not cost more than others.
bool write_whole_image(int fd, std::int64_t size) {
    const std::vector<char> zeros(std::size_t{4} << 20);
    for (std::int64_t written = 0; written < size;) {
        const ssize_t put = write(fd, zeros.data(), zeros.size());
        if (put <= 0) return false;
        written += put;
    }
    if (fsync(fd) != 0) return false;
    posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
    return true;
}

} // namespace

bool Volume::create(const std::string &folder, std::int64_t size, const std::string &mount_point) {
    mount_point_ = mount_point;
    if (mkdir(mount_point.c_str(), 0755) != 0) return fail(mount_point);
    image_.reset(open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
    if (!image_ || !write_whole_image(image_.get(), size)) return fail("image in " + folder);
    return attach_loop_device();
}

bool Volume::attach_loop_device() {
    const UniqueFd control(open("/dev/loop-control", O_RDWR | O_CLOEXEC));
    if (!control) return fail("/dev/loop-control");
    for (;;) {
        const int number = ioctl(control.get(), LOOP_CTL_GET_FREE);
        if (number < 0) return fail("no free loop device");
        device_path_ = "/dev/loop" + std::to_string(number);
        device_.reset(open(device_path_.c_str(), O_RDWR | O_CLOEXEC));
        if (!device_) return fail(device_path_);

        loop_config config{};
        config.fd = static_cast<__u32>(image_.get());
        config.block_size = 4096;
        config.info.lo_flags = LO_FLAGS_AUTOCLEAR | LO_FLAGS_DIRECT_IO;
        if (ioctl(device_.get(), LOOP_CONFIGURE, &config) == 0) break;
        // Somebody else was faster.
        if (errno != EBUSY) return fail(device_path_);
    }
    loop_info64 info{};
    if (ioctl(device_.get(), LOOP_GET_STATUS64, &info) != 0) return fail(device_path_);
    if ((info.lo_flags & LO_FLAGS_DIRECT_IO) == 0)
        std::fprintf(stderr, "bench: no direct I/O on %s: the image's cache blurs the figures\n", device_path_.c_str());
    return true;
}

bool Volume::format_and_mount(FileSystem file_system) {
    if (!unmount()) return false;
    file_system_ = file_system;
    const char *const ext4[] = {
        "mkfs.ext4",          "-q",   "-F", "-E", "nodiscard,lazy_itable_init=1,lazy_journal_init=1",
        device_path_.c_str(), nullptr};
    const char *const btrfs[] = {"mkfs.btrfs", "-q", "-f", "-K", device_path_.c_str(), nullptr};
    return run_tool(file_system == FileSystem::ext4 ? ext4 : btrfs) && mount(false);
}

bool Volume::mount(bool read_only) {
    const bool ext4 = file_system_ == FileSystem::ext4;
    // The background initialisation of a new ext4 would run into somebody's measured time.
    const char *const options = ext4 ? "noinit_itable" : "";
    if (::mount(device_path_.c_str(), mount_point_.c_str(), ext4 ? "ext4" : "btrfs", read_only ? MS_RDONLY : 0,
                options) != 0)
        return fail("mount " + mount_point_);
    mounted_ = true;
    return true;
}

bool Volume::unmount() {
    if (mounted_ && umount(mount_point_.c_str()) != 0) return fail("umount " + mount_point_);
    mounted_ = false;
    return true;
}

bool Volume::make_cold(bool read_only) {
    if (!unmount()) return false;
    if (ioctl(device_.get(), BLKFLSBUF) != 0) return fail("flush of " + device_path_);
    if (fdatasync(image_.get()) != 0) return fail("image");
    posix_fadvise(image_.get(), 0, 0, POSIX_FADV_DONTNEED);
    return mount(read_only);
}

bool run_tool(const char *const argv[]) {
    const pid_t child = fork();
    if (child < 0) return fail(argv[0]);
    if (child == 0) {
        const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(nowhere, STDOUT_FILENO);
        execvp(argv[0], const_cast<char *const *>(argv));
        _exit(127);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) return fail(argv[0]);
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return true;
    std::fprintf(stderr, "bench: %s failed (wait status %d)\n", argv[0], status);
    return false;
}

} // namespace tsbackup::bench
