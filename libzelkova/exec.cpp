// Programs run to their end.

#include "zelkova.h"

#include <cerrno>
#include <csignal>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

/// What a program finds at its start, whatever the caller blocks or ignores: no signal blocked, each at its default.
class CleanSignals {
  public:
    CleanSignals() : usable_(posix_spawnattr_init(&attributes_) == 0) {
        if (!usable_) return;
        sigset_t none;
        sigset_t all;
        sigemptyset(&none);
        sigfillset(&all);
        posix_spawnattr_setsigmask(&attributes_, &none);
        posix_spawnattr_setsigdefault(&attributes_, &all);
        posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }
    ~CleanSignals() {
        if (usable_) posix_spawnattr_destroy(&attributes_);
    }
    CleanSignals(const CleanSignals &) = delete;
    CleanSignals &operator=(const CleanSignals &) = delete;

    explicit operator bool() const { return usable_; }
    const posix_spawnattr_t *get() const { return &attributes_; }

  private:
    posix_spawnattr_t attributes_{};
    bool usable_;
};

int wait_for_exit(pid_t child) {
    int status = 0;
    pid_t ended = -1;
    do {
        ended = waitpid(child, &status, 0);
    } while (ended < 0 && errno == EINTR);
    return ended == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace

int exec_cmd(const char *path, const char *const argv[]) {
    if (path == nullptr || argv == nullptr || argv[0] == nullptr) return -1;
    const CleanSignals signals;
    if (!signals) return -1;

    // A program that cannot be executed is reported here, so that no exit status of a program is taken for it.
    pid_t child = -1;
    if (posix_spawnp(&child, path, nullptr, signals.get(), const_cast<char *const *>(argv), environ) != 0) return -1;
    return wait_for_exit(child);
}
