// What the tests of mounted remote ends share: runs that keep their logs, and the calls that take a mount down.

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

/// A run of job 7 whose logs are kept in memory.
struct LoggedRun : BackupRun {
    LoggedRun();
    ~LoggedRun();
    LoggedRun(const LoggedRun &) = delete;
    LoggedRun &operator=(const LoggedRun &) = delete;
    std::string errors() const;
    std::string copies() const;
    /// Whether exactly this is the run's error record and its error log.
    testing::AssertionResult recorded(int code, const std::string &message, const std::string &error_log_text) const;
    /// Whether nothing at all was reported.
    testing::AssertionResult silent() const;
};

/// Notes the calls of this process that take mounts down, set them up and give files away, in their order, while the
/// object lives; one at a time. They all take place unless a hook says otherwise.
class SystemCalls {
  public:
    SystemCalls();
    ~SystemCalls();
    SystemCalls(const SystemCalls &) = delete;
    SystemCalls &operator=(const SystemCalls &) = delete;

    /// "umount /job_007", "umount2 /job_007 1", "rmdir /job_007", "mkdir /job_007 700", "sync", "sync_fs /job_007",
    /// "shell COMMAND", "chown PATH 98 98". What concerns no folder "/job_..." is left out, except "sync" and "shell".
    std::vector<std::string> made;
    /// 0: the call passes as if it had succeeded; an errno value: it fails so; nothing: it takes place.
    std::function<std::optional<int>(const std::string &call)> answer;
};

/// A user whose home folder has a relative path, while the object lives: resolving it as a source fails without a
/// report of its own. The working folder is "/" meanwhile.
class SilentSource {
  public:
    SilentSource();
    ~SilentSource();
    SilentSource(const SilentSource &) = delete;
    SilentSource &operator=(const SilentSource &) = delete;
    static constexpr char user[] = "relative";

  private:
    std::string users_before_;
    std::string folder_before_;
};

} // namespace tsbackup::test
