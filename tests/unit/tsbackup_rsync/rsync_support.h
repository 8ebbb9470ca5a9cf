// What the tests of the rsync backends share: jobs, runs that keep their logs, a recording stand-in for the program
// that starts rsync.

#pragma once

#include "support.h"
#include "tsbackup/job.h"
#include "tsbackup/run.h"

#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace tsbackup::test {

/// A run of job 7, ten seconds old, whose error log is kept in memory.
struct LoggedRun : BackupRun {
    LoggedRun();
    ~LoggedRun();
    LoggedRun(const LoggedRun &) = delete;
    LoggedRun &operator=(const LoggedRun &) = delete;
    /// What the run has written to its error log.
    std::string errors() const;
};

/// A start of rsync: the words after "nice" and the environment.
struct Call {
    std::vector<std::string> arguments;
    std::vector<std::string> environment;
};

/// Is first on the search path for as long as it lives, in place of the program that starts rsync.
class StandIn {
  public:
    StandIn();
    ~StandIn();
    StandIn(const StandIn &) = delete;
    StandIn &operator=(const StandIn &) = delete;

    /// The shell script that its call number `call` (the first is 1) runs, with the words after "nice" as its
    /// arguments. Without a script a call prints nothing and succeeds.
    StandIn &plays(int call, const std::string &script);
    std::vector<Call> calls() const;
    /// A file in its folder, for its scripts to write to.
    std::string file(const std::string &name) const { return folder_ / name; }

  private:
    TempFolder folder_;
    std::string path_before_;
};

/// Runs `body` in a process of its own in which the job was aborted; its failures fail the test.
void when_aborted(const std::function<void()> &body);

} // namespace tsbackup::test
