#include "tsbackup_error.h"

#include <csignal>

namespace tsbackup {

namespace {
volatile std::sig_atomic_t aborted = 0;
}

void backup_abort_request() { aborted = 1; }

bool backup_aborted() { return aborted != 0; }

} // namespace tsbackup
