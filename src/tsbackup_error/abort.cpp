#include "tsbackup_error.h"

#include <atomic>
#include <csignal>
#include <unistd.h>

namespace tsbackup {

namespace {

volatile std::sig_atomic_t aborted = 0;
volatile std::sig_atomic_t ends_group = 0;
std::atomic<const char *> removed_file = nullptr;
static_assert(std::atomic<const char *>::is_always_lock_free, "a signal handler reads it");

} // namespace

void backup_abort_request() {
    aborted = 1;
    if (ends_group != 0 && getpgrp() == getpid()) {
        std::signal(SIGTERM, SIG_IGN);
        kill(0, SIGTERM);
    }
    if (const char *path = removed_file) unlink(path);
}

bool backup_aborted() { return aborted != 0; }

void backup_abort_removes(const char *path) { removed_file = path; }

void backup_abort_ends_group(bool wanted) { ends_group = wanted ? 1 : 0; }

} // namespace tsbackup
