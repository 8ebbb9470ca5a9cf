// The live view in a terminal.

#pragma once

#include "table.h"

#include <functional>
#include <vector>

namespace tsbackup {

/// Shows what `lines` gives, anew every second and when the terminal changes its size, until the user ends it with "q"
/// or a signal. Uses the terminal's second screen and leaves everything as it was, also while it is stopped. 0, or 1
/// after a failure, which is told.
int screen_watch(const std::function<std::vector<TableLine>()> &lines, bool coloured);

} // namespace tsbackup
