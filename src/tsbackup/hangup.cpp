#include "tsbackup.h"
#include "tsbackup_error.h"

#include <csignal>
#include <unistd.h>

namespace tsbackup {

namespace {

volatile std::sig_atomic_t open_copy_log = -1;
volatile std::sig_atomic_t open_error_log = -1;

constexpr char kAborting[] = "Aborting Backup Job:\n";

// The signal may interrupt any instruction, an allocation or a stream's write included: nothing but
// async-signal-safe calls. The logs hold no unwritten bytes, since each of their lines is one write.
extern "C" void hang_up(int) {
    static_cast<void>(!write(STDERR_FILENO, kAborting, sizeof kAborting - 1));
    backup_abort_request();
    if (open_copy_log >= 0) close(open_copy_log);
    if (open_error_log >= 0) close(open_error_log);
    sync();
    _exit(0);
}

} // namespace

void hangup_handler_install() {
    struct sigaction action {};
    action.sa_handler = hang_up;
    sigemptyset(&action.sa_mask);
    sigaction(SIGHUP, &action, nullptr);

    // A worker whose starter had the signal blocked could never be cancelled.
    sigset_t hang_up_only;
    sigemptyset(&hang_up_only);
    sigaddset(&hang_up_only, SIGHUP);
    pthread_sigmask(SIG_UNBLOCK, &hang_up_only, nullptr);
}

void hangup_logs_set(int copy_log, int error_log) {
    open_copy_log = copy_log;
    open_error_log = error_log;
}

} // namespace tsbackup
