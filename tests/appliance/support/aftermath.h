// What hard cases leave behind: processes, mounts, snapshots and temporary files, a job's outcome, its error lines.

#pragma once

#include <gtest/gtest.h>
#include <set>
#include <string>
#include <sys/types.h>
#include <vector>

namespace tsbackup::test {

/// Runs a program of the machine with an argument vector, its output discarded; the exit status, 128 + N after signal
/// N.
int run_command(const std::vector<std::string> &words);

/// The state in a job's status file without its prefix ("COMPLETED", "IN_PROGRESS"); empty when there is none.
std::string state_of(int job_id);

/// The lines of a job's error log that have none of the forms which copying between local folders has. A name with a
/// line end in it makes such lines.
std::vector<std::string> malformed_error_lines(int job_id);

/// How often a text occurs in another.
std::size_t count_of(const std::string &text, const std::string &searched);

/// Diagnostics without the "UNIT:LINE " in front of each line; the snapshot of a run of the share is "SNAPSHOT".
std::string plain_diagnostics(const std::string &text, const std::string &volume = "data",
                              const std::string &share = "Pictures");

/// Remembers which processes, mounts and temporary files there are.
class Baseline {
  public:
    Baseline();
    /// Whether the processes and mounts are again what they were, and no further job snapshot, job folder or temporary
    /// file is left. Waits a while for processes that are about to end.
    testing::AssertionResult restored() const;

  private:
    std::set<pid_t> processes_;
    std::string mounts_;
    std::set<std::string> files_;
};

} // namespace tsbackup::test
