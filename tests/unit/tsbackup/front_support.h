// What the tests of the front end share: a job file, the queue pipe's reading end, waits that pass at once.

#pragma once

#include "support.h"
#include "tsbackup/owners.h"

#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace tsbackup::test {

/// Replaces the job file by `<root>` around `jobs`.
void write_job_file(const std::string &jobs);

/// `<job>` around an id and further elements.
std::string job_element(int job_id, const std::string &settings);

/// Folders of the system that the front end writes to.
void make_system_folders();

/// The waits that this process has asked for since the object was made, in seconds. None of them lasts.
class Waits {
  public:
    Waits();
    ~Waits();
    Waits(const Waits &) = delete;
    Waits &operator=(const Waits &) = delete;
    const std::vector<unsigned> &seconds() const;
    /// Called within the next wait, once.
    static void on_next(std::function<void()> action);
};

/// The queue pipe with a reader, as the queue daemon has it open.
class QueuePipe {
  public:
    QueuePipe();
    ~QueuePipe();
    QueuePipe(const QueuePipe &) = delete;
    QueuePipe &operator=(const QueuePipe &) = delete;
    /// Everything that is in the pipe now.
    std::string received() const;
    int descriptor() const { return reader_.get(); }

  private:
    UniqueFd reader_;
};

/// A child process that leads a group of its own and runs `body`, its exit status `body`'s result; killed at the end.
class GroupLeader {
  public:
    explicit GroupLeader(const std::function<int()> &body);
    ~GroupLeader();
    GroupLeader(const GroupLeader &) = delete;
    GroupLeader &operator=(const GroupLeader &) = delete;
    pid_t pid() const { return pid_; }
    /// Its wait status.
    int wait();

  private:
    pid_t pid_ = -1;
};

/// A process id that no process has at this moment.
pid_t dead_process();

/// A mount that lives as long as the object.
class Mount {
  public:
    /// A tmpfs of its own, or with `source` the same tree once more.
    explicit Mount(const std::string &target, const std::string &source = "");
    ~Mount();
    Mount(const Mount &) = delete;
    Mount &operator=(const Mount &) = delete;
    /// Whether this process may mount at all.
    explicit operator bool() const { return mounted_; }

  private:
    std::string target_;
    bool mounted_ = false;
};

} // namespace tsbackup::test
