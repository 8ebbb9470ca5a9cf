// What the black-box tests share: bringing the appliance into a known state, running the installed program, watching
// what it leaves behind. Everything here works on the appliance's own absolute paths and must run inside one.

#pragma once

#include "support.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace tsbackup::test {

// --- The system (system.cpp) ---

/// Whether the appliance has its btrfs volumes and ext4 disks (kind=full). Without them /data, its shares and the
/// others are separate file systems all the same, but there are no snapshots, and only one user is known.
bool volumes();

/// Skips the test, with its reason, in an appliance without btrfs volumes.
#define REQUIRE_VOLUMES()                                                                                              \
    do {                                                                                                               \
        if (!::tsbackup::test::volumes()) GTEST_SKIP() << "needs btrfs volumes (root and loop devices)";               \
    } while (false)

/// Brings the appliance back to what it was at its start: shares, disks and homes empty, no snapshots, no logs, no job
/// file, the storage table and the services file as they were, the two queue pipes present. Programs of the test must
/// have ended. Throws when something cannot be removed.
void reset_appliance();

/// Makes a share (a btrfs subvolume where there are volumes), owned by 98:98, mode 0777; "/VOLUME/NAME".
void make_share(const std::string &volume, const std::string &name);

/// Replaces /etc/default/services by one line.
void set_service(const std::string &name, const std::string &value);

// --- The job file (files.cpp) ---

/// Settings of one job, in the order in which they are written. A setting that is not named is absent from the file.
using Settings = std::vector<std::pair<std::string, std::string>>;

/// Builds /etc/tessera/backup_jobs.conf.
class JobFile {
  public:
    /// Adds a job; values are escaped for XML.
    JobFile &job(int id, const Settings &settings);
    /// Adds the list of button jobs.
    JobFile &button_jobs(const std::vector<int> &ids);
    /// Adds text as it is, in place of a job.
    JobFile &raw(const std::string &xml);
    std::string xml() const;
    void write() const;

  private:
    std::string body_;
};

/// A share as the source or the destination of a job, to be joined with operator+ to more settings.
Settings source_share(const std::string &volume, const std::string &share, const std::string &path = "");
Settings destination_share(const std::string &volume, const std::string &share, const std::string &path = "");
Settings source_usb(const std::string &port, const std::string &path = "");
Settings destination_usb(const std::string &port, const std::string &path = "");
Settings operator+(Settings left, const Settings &right);

/// A line of the table of USB storage: the mount name below /media, the kernel's device name, the port.
std::string storage_line(const std::string &mount_name, const std::string &device, const std::string &port);

// --- The program (program.cpp) ---

/// Path of the library that shortens the program's long waits.
inline constexpr const char *kShortWaits = SHORT_WAITS;

struct ProgramOptions {
    std::vector<std::pair<std::string, std::string>> environment; ///< added to the test's own, or replacing it
    std::vector<std::string> preload;                             ///< libraries preloaded into the program
    std::string program = "/opt/tsbackup/sbin/tsbackup";
};

struct Outcome {
    int status = -1; ///< exit status; 128 + N when ended by signal N
    std::string out; ///< standard output
    std::string err; ///< standard error
};

/// A program of the test, in the background. Killed, with its process group, at the end of the object's life.
class Program {
  public:
    explicit Program(const std::vector<std::string> &arguments, const ProgramOptions &options = {});
    ~Program();
    Program(const Program &) = delete;
    Program &operator=(const Program &) = delete;
    pid_t pid() const { return pid_; }
    bool running();
    void signal(int number) const;
    /// Waits until the program has ended, at most so long; then it is killed and the test has failed.
    Outcome wait(std::chrono::seconds limit = std::chrono::seconds(120));

  private:
    pid_t pid_ = -1;
    int status_ = -1;
    bool ended_ = false;
    std::FILE *out_ = nullptr;
    std::FILE *err_ = nullptr;
};

/// Runs the installed program and waits for it.
Outcome run_program(const std::vector<std::string> &arguments, const ProgramOptions &options = {});

/// Waits until the condition holds, looking every few milliseconds; whether it did within the time.
bool wait_until(const std::function<bool()> &condition, std::chrono::milliseconds limit = std::chrono::seconds(30));

// --- What a job leaves behind (files.cpp, status_watcher.cpp, golden.cpp) ---

std::string status_path(int job_id);
std::string history_path(int job_id);
std::string error_log_path(int job_id);
std::string pid_path(int job_id);
/// The only kept copy log of a job; an empty text when there is none or more than one.
std::string kept_copy_log_path(int job_id);

/// Records every content that a status file has had while the object lives. In a full appliance each opening of the
/// file by the program waits until its content before has been recorded, so that none is missed; elsewhere a content
/// that is replaced within a moment can be.
class StatusWatcher {
  public:
    explicit StatusWatcher(int job_id);
    explicit StatusWatcher(const std::string &path);
    ~StatusWatcher();
    StatusWatcher(const StatusWatcher &) = delete;
    StatusWatcher &operator=(const StatusWatcher &) = delete;
    /// The distinct contents in their order, the present one last. An empty or missing file does not count.
    std::vector<std::string> seen();

  private:
    struct Watch;
    std::unique_ptr<Watch> watch_;
};

/// The text with what changes from run to run replaced: "TIME" for seconds since the epoch (ten digits), and each
/// further pair's first text by its second.
std::string with_placeholders(std::string text, const std::vector<std::pair<std::string, std::string>> &more = {});

/// Compares a text with the file tests/fixtures/NAME; the failure message shows the lines that differ.
testing::AssertionResult matches_golden(const std::string &name, const std::string &text);
/// The same with the expected text given.
testing::AssertionResult same_text(const std::string &expected, const std::string &actual);

// --- Trees (trees.cpp) ---

struct TreeOptions {
    std::uint64_t seed = 1;
    int folders = 12;                  ///< spread over at most four levels
    int files = 80;                    ///< spread over the folders
    std::size_t largest_file = 200000; ///< most are far smaller; some are empty
    bool owners = true;                ///< several owners, where several users are mapped
    bool access_lists = true;          ///< access lists on some files and folders, default ones on some folders
    bool awkward_names = true;         ///< blanks, quotes, a leading dash, letters beyond ASCII
};

/// Fills a folder with a tree that depends on the options alone: contents, modes, owners, lists, times to the
/// nanosecond.
void make_tree(const std::string &folder, const TreeOptions &options = {});

/// Changes some files of such a tree, adds some and removes none.
void change_tree(const std::string &folder, std::uint64_t seed);

struct CompareOptions {
    bool owners = true;
    bool modes = true;
    bool access_lists = true;
    bool file_times = true; ///< modification times of files, to the nanosecond
};

/// What differs between two trees, one readable line each; nothing when they are equal. The two folders themselves are
/// not compared, only what they hold.
std::vector<std::string> tree_differences(const std::string &expected, const std::string &actual,
                                          const CompareOptions &options = {});
testing::AssertionResult same_trees(const std::string &expected, const std::string &actual,
                                    const CompareOptions &options = {});

} // namespace tsbackup::test
