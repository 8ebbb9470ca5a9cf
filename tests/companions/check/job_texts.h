// Job files with one job, for tables of changes to it.

#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tsbackup::test {

/// Settings to replace or add; without a value: to leave out.
using Changes = std::vector<std::pair<std::string, std::optional<std::string>>>;

/// A job file with a sound job, number 7, changed. Values are escaped.
std::string job_text(const Changes &changes);

/// The same with more XML behind the settings of the job, and behind the job.
std::string job_text(const Changes &changes, const std::string &in_job, const std::string &behind_job = "");

/// Changes that turn an end of the sound job into a remote one.
Changes remote(const std::string &side, const std::string &protocol, const std::string &path, const Changes &more = {});

struct AcceptedCase {
    const char *name;
    Changes changes;
};

/// Jobs without any fault.
extern const std::vector<AcceptedCase> kAcceptedJobs;

} // namespace tsbackup::test
