// What the tests of local ends share: an appliance with a user, a USB disk and volumes; runs that keep their logs;
// a stand-in for the snapshot tool.

#pragma once

#include "support.h"
#include "tsbackup/job.h"
#include "tsbackup/run.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace tsbackup {

/// A path or its absence, readable in a failed comparison.
inline void PrintTo(const JobText &text, std::ostream *out) { *out << (text ? '"' + *text + '"' : "nothing"); }

} // namespace tsbackup

namespace tsbackup::test {

/// A run of job 7 whose logs are kept in memory.
struct LoggedRun : BackupRun {
    LoggedRun();
    ~LoggedRun();
    LoggedRun(const LoggedRun &) = delete;
    LoggedRun &operator=(const LoggedRun &) = delete;
    /// What the run has written to its error log.
    std::string errors() const;
    /// Whether exactly this is the run's error record and its error log.
    testing::AssertionResult recorded(int code, const std::string &message, const std::string &error_log_text) const;
    /// Whether nothing at all was reported.
    testing::AssertionResult silent() const;
};

BackupJob job_from(JobText type, JobText name, JobText volume, JobText path);
BackupJob job_to(JobText type, JobText name, JobText volume, JobText path);
/// The source of the first and the destination of the second.
BackupJob job_between(BackupJob from, const BackupJob &to);

/// The number of a file-system id's half, 0 or 1, of the file system that holds the path.
std::int32_t file_system_id_half(const std::string &path, std::size_t half);
/// The whole id as a run notes it.
std::uint64_t file_system_id(const std::string &path);

/// A line of the table of USB storage with these fields and "-" for the others.
std::string storage_line(const std::string &mount_name, const std::string &device, const std::string &port);
void write_storage_table(const std::string &content);

/// Takes the snapshot tool's place for as long as the object lives. It records the words of every call; then it does
/// the work with the real tool, or fails without doing anything.
class SnapshotTool {
  public:
    enum class Behaviour { works, fails };
    explicit SnapshotTool(Behaviour behaviour);
    ~SnapshotTool();
    SnapshotTool(const SnapshotTool &) = delete;
    SnapshotTool &operator=(const SnapshotTool &) = delete;
    /// The words of each call since the last question, without the tool's own name.
    std::vector<std::vector<std::string>> calls();

  private:
    TempFolder folder_;
    std::string real_;
};

/// Inside an appliance's root: the users "alice" and a few odd ones, the USB disk "DISK" at port 1 in the table. Every
/// test starts in an empty folder and must leave it empty: names in a job start nothing.
class LocalEnds : public testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

  private:
    std::optional<TempFolder> work_folder_;
};

/// The same with real file systems: the btrfs volume "/data" for shares, the ext4 disk "/media/USB" at port 2. They are
/// mounted for this process alone and vanish with it.
class LocalEndsOnVolumes : public LocalEnds {
  protected:
    void SetUp() override;
    void TearDown() override;
    /// Makes the share "/data/NAME" as a subvolume, with its folder of settings.
    static void make_share(const std::string &name);
};

/// Mounts the USB disk read-only for as long as the object lives.
class ReadOnlyDisk {
  public:
    ReadOnlyDisk();
    ~ReadOnlyDisk();
    ReadOnlyDisk(const ReadOnlyDisk &) = delete;
    ReadOnlyDisk &operator=(const ReadOnlyDisk &) = delete;
};

/// Sets the process's file-mode mask for as long as the object lives.
class Umask {
  public:
    explicit Umask(mode_t mask);
    ~Umask();
    Umask(const Umask &) = delete;
    Umask &operator=(const Umask &) = delete;

  private:
    mode_t before_;
};

/// Permission bits of a file.
mode_t mode_of(const std::string &path);

} // namespace tsbackup::test
