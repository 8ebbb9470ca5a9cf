#include "support.h"
#include "zelkova.h"

#include "tsbackup/owners.h"

#include <csignal>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace tsbackup::test {
namespace {

TEST(SafeOpen, ClosesOnExecWhateverTheFlags) {
    const TempFolder folder;
    const UniqueFd fd(safe_open((folder / "file").c_str(), O_WRONLY | O_CREAT, 0640));
    ASSERT_TRUE(fd);
    EXPECT_EQ(fcntl(fd.get(), F_GETFD), FD_CLOEXEC);
    struct stat status {};
    ASSERT_EQ(fstat(fd.get(), &status), 0);
    EXPECT_EQ(
        status.st_mode & 0777, 0640 & ~[] {
            const mode_t mask = umask(0);
            umask(mask);
            return mask;
        }());
}

TEST(SafeOpen, KeepsTheContentUnlessAskedToCutIt) {
    const TempFolder folder;
    write_file(folder / "file", "0123456789");
    {
        const UniqueFd fd(safe_open((folder / "file").c_str(), O_WRONLY | O_CREAT, 0644));
        ASSERT_EQ(write(fd.get(), "ab", 2), 2);
    }
    EXPECT_EQ(read_file(folder / "file"), "ab23456789");
}

TEST(SafeOpen, TellsWhyItFailed) {
    errno = 0;
    EXPECT_EQ(safe_open("/no/such/file", O_RDONLY, 0), -1);
    EXPECT_EQ(errno, ENOENT);
}

volatile std::sig_atomic_t interruptions = 0;

TEST(SafeOpen, GoesOnWhenASignalInterruptsIt) {
    const TempFolder folder;
    const std::string pipe = folder / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);

    // Opening a pipe waits for its other end, and the signals that come meanwhile are not of the restarting kind.
    struct sigaction action {};
    struct sigaction before {};
    action.sa_handler = [](int) { interruptions = interruptions + 1; };
    interruptions = 0;
    sigaction(SIGUSR1, &action, &before);
    const pthread_t opener = pthread_self();
    std::thread other_end([&] {
        for (int round = 0; round < 5; ++round) {
            std::this_thread::sleep_for(std::chrono::milliseconds(40));
            pthread_kill(opener, SIGUSR1);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(40));
        const UniqueFd writer(open(pipe.c_str(), O_RDWR | O_CLOEXEC));
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    });
    const UniqueFd reader(safe_open(pipe.c_str(), O_RDONLY, 0));
    other_end.join();
    sigaction(SIGUSR1, &before, nullptr);
    EXPECT_TRUE(reader);
    EXPECT_GE(interruptions, 1);
}

TEST(Exists, ComparesTheTypeBehindAnyLink) {
    const TempFolder folder;
    write_file(folder / "file", "");
    make_folder(folder / "folder");
    ASSERT_EQ(mkfifo((folder / "pipe").c_str(), 0600), 0);
    ASSERT_EQ(symlink("file", (folder / "to-file").c_str()), 0);
    ASSERT_EQ(symlink("folder", (folder / "to-folder").c_str()), 0);
    ASSERT_EQ(symlink("nothing", (folder / "dangling").c_str()), 0);
    const UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpyt(address.sun_path, (folder / "socket").c_str(), sizeof address.sun_path);
    ASSERT_EQ(bind(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);

    constexpr int kNone = 0;
    const struct {
        const char *path;
        int type;
    } cases[] = {
        {"file", S_IFREG},     {"folder", S_IFDIR},    {"pipe", S_IFIFO},       {"socket", S_IFSOCK},
        {"to-file", S_IFREG},  {"to-folder", S_IFDIR}, {"dangling", kNone},     {"missing", kNone},
        {"file/below", kNone}, {"folder/", S_IFDIR},   {"to-folder/", S_IFDIR},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.path);
        const std::string path = folder / test.path;
        EXPECT_EQ(exists(path.c_str(), 100), test.type == kNone ? 0 : 1);
        for (const int type : {S_IFREG, S_IFDIR, S_IFIFO, S_IFSOCK, S_IFLNK, S_IFCHR, S_IFBLK})
            EXPECT_EQ(exists(path.c_str(), type), type == test.type ? 1 : 0) << std::oct << type;
    }
    EXPECT_EQ(exists("/dev/null", S_IFCHR), 1);
    EXPECT_EQ(exists("", 100), 0);
    EXPECT_EQ(exists(nullptr, 100), 0);
}

TEST(SyncFs, WritesTheFileSystemOfAnyPath) {
    const TempFolder folder;
    write_file(folder / "file", "content");
    EXPECT_EQ(sync_fs(folder.path().c_str()), 0);
    EXPECT_EQ(sync_fs((folder / "file").c_str()), 0);
}

TEST(SyncFs, DoesNotWaitForAPipe) {
    const TempFolder folder;
    ASSERT_EQ(mkfifo((folder / "pipe").c_str(), 0600), 0);
    EXPECT_EQ(sync_fs((folder / "pipe").c_str()), 0);
}

TEST(SyncFs, TellsWhyItFailed) {
    errno = 0;
    EXPECT_EQ(sync_fs("/no/such/file"), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(SyncFs, LeavesNoDescriptorOpen) {
    const auto before = list_folder("/proc/self/fd").size();
    sync_fs("/");
    sync_fs("/no/such/file");
    EXPECT_EQ(list_folder("/proc/self/fd").size(), before);
}

} // namespace
} // namespace tsbackup::test
