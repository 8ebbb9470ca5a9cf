// The status for scripts.

#pragma once

#include "collect.h"

#include <string>

namespace tsbackup {

/// One JSON document with a line end, in plain ASCII. Valid whatever the files held: bytes that are no UTF-8 become
/// U+FFFD.
std::string overview_json(const Overview &overview);
std::string job_json(const JobStatus &job, std::int64_t now);

} // namespace tsbackup
