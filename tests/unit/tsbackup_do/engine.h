// Volumes, run records and a fixture for the tests of the copy engine.

#pragma once

#include "kernel.h"
#include "support.h"
#include "tsbackup/codes.h"
#include "tsbackup/job.h"
#include "tsbackup/run.h"
#include "tsbackup_do.h"

#include <cstdint>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace tsbackup::test {

/// A file system of the tests' own, mounted in a mount namespace of the test process when it is first asked for; all
/// of it is gone when the process ends, however it ends.
enum class Volume { tmpfs, ext4, btrfs, small_ext4, small_tmpfs };

/// Where the volume is mounted; empty when it cannot be made here.
std::string volume(Volume kind);
/// Why volumes cannot be made here; empty when they can.
std::string volumes_missing_because();

/// Skips the test with its reason where a volume cannot be made.
#define REQUIRE_VOLUME(kind)                                                                                           \
    do {                                                                                                               \
        if (::tsbackup::test::volume(kind).empty())                                                                    \
            GTEST_SKIP() << "needs a volume of its own: " << ::tsbackup::test::volumes_missing_because();              \
    } while (false)

/// Mounts a tmpfs on a folder for as long as the object lives. Needs volumes.
class TmpfsMount {
  public:
    explicit TmpfsMount(const std::string &path);
    ~TmpfsMount();
    TmpfsMount(const TmpfsMount &) = delete;
    TmpfsMount &operator=(const TmpfsMount &) = delete;

  private:
    std::string path_;
};

/// Turns a volume read-only for as long as the object lives.
class ReadOnly {
  public:
    explicit ReadOnly(const std::string &volume_path);
    ~ReadOnly();
    ReadOnly(const ReadOnly &) = delete;
    ReadOnly &operator=(const ReadOnly &) = delete;

  private:
    std::string path_;
};

/// Acts as an ordinary user for as long as the object lives.
class AsUser {
  public:
    AsUser();
    ~AsUser();
    AsUser(const AsUser &) = delete;
    AsUser &operator=(const AsUser &) = delete;
};

/// Leaves at most `bytes` free on a volume for as long as the object lives.
class Ballast {
  public:
    Ballast(const std::string &volume_path, std::uint64_t bytes);
    ~Ballast();
    Ballast(const Ballast &) = delete;
    Ballast &operator=(const Ballast &) = delete;

  private:
    std::string path_;
};

/// A zeroed run record with logs in memory; it writes no progress unless `clock_failed` is cleared.
struct TestRun : BackupRun {
    TestRun();
    ~TestRun();
    TestRun(const TestRun &) = delete;
    TestRun &operator=(const TestRun &) = delete;
    std::string copied() const;   ///< the copy log
    std::string failures() const; ///< the error log
    std::string message() const { return error_message.value_or("(none)"); }
};

struct stat status_of(const std::string &path);
/// The modification time in nanoseconds since the epoch.
std::int64_t mtime_of(const std::string &path);
/// Sets the modification time, and the access time one day earlier.
void set_mtime(const std::string &path, std::int64_t seconds, long nanoseconds = 0);
mode_t mode_of(const std::string &path);
/// Content that differs in every block.
std::string pattern(std::size_t size);
/// Every path below a folder, sorted, folders with a "/" at the end.
std::vector<std::string> tree(const std::string &path);
/// The access (or default) list in short text form; empty when there is none beyond the mode.
std::string access_list(const std::string &path);
std::string default_list(const std::string &path);
void set_access_list(const std::string &path, const std::string &text);
void set_default_list(const std::string &path, const std::string &text);
std::string with_replaced(std::string text, const std::string &from, const std::string &to);

/// A test of the engine: starts from the state of a fresh process and ends with the descriptors that it began with.
class EngineTest : public testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    /// A new empty folder, removed after the test: on a volume, or wherever temporary files are.
    std::string scratch(Volume kind);
    std::string scratch();

    /// Copies the tree `src` to `dst` as a job does.
    static void copy_tree(TestRun &run, const std::string &src, const std::string &dst);

  private:
    std::vector<std::string> folders_;
    std::size_t descriptors_ = 0;
};

} // namespace tsbackup::test
