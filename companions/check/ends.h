// The two ends of a job.

#pragma once

#include "checked_job.h"

namespace tsbackup {

/// Reports what is wrong or dangerous about the source, the destination, and the two together.
void check_ends(CheckedJob &job);

} // namespace tsbackup
