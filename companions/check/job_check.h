#pragma once

#include "findings.h"

#include <cstddef>
#include <string_view>

namespace tsbackup {

struct CheckResult {
    Findings findings; ///< in the order of their lines
    std::size_t jobs = 0;
    bool holds_passwords = false;
};

/// Checks the text of a job file. Looks at nothing else: whether shares, users and servers exist is not asked.
CheckResult job_text_check(std::string_view content);

} // namespace tsbackup
