// What is wrong with a job file, or dangerous.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tsbackup {

struct Finding {
    long line = 0;       ///< 0: the file as a whole
    bool of_job = false; ///< false: of no single job
    std::optional<std::int32_t> job_id;
    std::string job_name;
    std::string text; ///< a sentence without its full stop
};

using Findings = std::vector<Finding>;

} // namespace tsbackup
