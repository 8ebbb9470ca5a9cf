#pragma once

#include <unistd.h>

namespace tsbackup {

/// Waits for so many seconds; returns how many were left when a signal handler ran.
inline unsigned wait_seconds(unsigned seconds) { return sleep(seconds); }

} // namespace tsbackup
