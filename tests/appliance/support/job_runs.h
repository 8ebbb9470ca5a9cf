// What the tests of whole jobs share: the queue daemon's end of the pipe, what a run tells about itself, a network on
// which a wake-up packet can be received.

#pragma once

#include "appliance_support.h"

#include <string>
#include <utility>
#include <vector>

namespace tsbackup::test {

/// Path of the library that notes the order in which the program tells others about a job (order_log.cpp).
inline constexpr const char *kOrderLog = ORDER_LOG;

inline constexpr char kWorkFolder[] = "/apps/.backup";
inline constexpr char kLogFolder[] = "/var/log/tessera/backup";

/// Holds the reading end of a queue's pipe, as its daemon does.
class RequestQueue {
  public:
    explicit RequestQueue(const std::string &pipe = "/var/run/zelkovad/tsbackup-q");
    ~RequestQueue();
    RequestQueue(const RequestQueue &) = delete;
    RequestQueue &operator=(const RequestQueue &) = delete;
    /// The bytes that have arrived since the last call.
    std::string received();

  private:
    int pipe_ = -1;
};

/// A request as it stands in the pipe: 128 bytes, zero behind the text.
std::string request_record(const std::string &text);

/// The datagram of a job's result.
std::string result_event(int job_id, const std::string &escaped_name, int status, int email = 0, int by_button = 0);

/// The status that the newest entry of a job's history tells; -1 without an entry.
int last_result(int job_id);
/// How many entries a job's history has.
int history_entries(int job_id);

/// Paths of everything in the snapshot folders of all shares, sorted.
std::vector<std::string> snapshots();

/// Status file contents without their time stamps and line ends: "BACKUP_STATUS__COMPLETED!!TIME!!OK". Progress lines
/// are left out, and with them what differs from the content before by nothing else.
std::vector<std::string> states(StatusWatcher &watcher);

/// Diagnostics without line numbers: "tsbackup_do (debug) ..."; the process id `pid` is replaced by "PID", times by
/// "TIME".
std::string settled_diagnostics(const std::string &text, pid_t pid);

/// The ids of living processes, zombies apart, in a process group.
std::vector<pid_t> group_members(pid_t group);

/// Moves a folder out of the way while the object lives.
class Missing {
  public:
    explicit Missing(const std::string &path);
    ~Missing();
    Missing(const Missing &) = delete;
    Missing &operator=(const Missing &) = delete;

  private:
    std::string path_;
};

/// A mount that lives as long as the object; `arguments` as for mount(8).
class MountedFor {
  public:
    MountedFor(const std::string &arguments, const std::string &at);
    ~MountedFor();
    MountedFor(const MountedFor &) = delete;
    MountedFor &operator=(const MountedFor &) = delete;

  private:
    std::string at_;
};

/// A stand-in for a program while the object lives: each of its starts adds a line with its arguments to `calls()`.
class StandIn {
  public:
    /// `script`: what it does then, in the shell's language. What `path` was before comes back at the end.
    StandIn(const std::string &path, const std::string &script);
    ~StandIn();
    StandIn(const StandIn &) = delete;
    StandIn &operator=(const StandIn &) = delete;
    std::string calls() const;

  private:
    std::string path_;
    std::string record_;
    bool replaced_ = false;
};

/// Gives the appliance an interface that can broadcast; whether that was possible. It stays for the whole program.
bool broadcast_network();
#define REQUIRE_BROADCAST_NETWORK()                                                                                    \
    do {                                                                                                               \
        if (!::tsbackup::test::broadcast_network()) GTEST_SKIP() << "needs a network interface that can broadcast";    \
    } while (false)

/// Receives wake-up packets on the appliance's network.
class WakeReceiver {
  public:
    WakeReceiver();
    ~WakeReceiver();
    WakeReceiver(const WakeReceiver &) = delete;
    WakeReceiver &operator=(const WakeReceiver &) = delete;
    /// The datagrams that have arrived since the last call.
    std::vector<std::string> received();

  private:
    int socket_ = -1;
};

/// The magic packet for a hardware address of six bytes.
std::string magic_packet(const std::string &address);

} // namespace tsbackup::test
