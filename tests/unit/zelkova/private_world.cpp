#include "private_world.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tsbackup::test {

namespace {

constexpr int kFailed = 1;
constexpr int kRefused = 77;

[[noreturn]] void leave(int code) {
    std::fflush(nullptr);
    _exit(code);
}

[[noreturn]] void live_in_private_world(int unshare_flags, const std::function<void()> &check) {
    if (unshare(unshare_flags | CLONE_NEWNS) != 0) refuse(std::string("unshare: ") + strerrordesc_np(errno));
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        refuse(std::string("private mounts: ") + strerrordesc_np(errno));
    try {
        check();
    } catch (const std::exception &problem) {
        std::printf("the check ended early: %s\n", problem.what());
        leave(kFailed);
    }
    leave(testing::Test::HasFailure() ? kFailed : 0);
}

} // namespace

void refuse(const std::string &reason) {
    std::printf("not possible here: %s\n", reason.c_str());
    leave(kRefused);
}

WorldResult in_private_world(int unshare_flags, const std::function<void()> &check) {
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) live_in_private_world(unshare_flags, check);
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status)) return WorldResult::failed;
    if (WEXITSTATUS(status) == kRefused) return WorldResult::refused;
    return WEXITSTATUS(status) == 0 ? WorldResult::passed : WorldResult::failed;
}

} // namespace tsbackup::test
