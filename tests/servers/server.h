// Real servers for tests of jobs with a remote end: started and answering when the object exists, gone with every
// process they started when it does not. All of them listen on 127.0.0.1 of the appliance.

#pragma once

#include "appliance_support.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace tsbackup::test {

/// A server that is no daemon: its command runs in the foreground until it is ended. A server of another kind derives
/// from this or holds one; it only has to write its configuration first.
class Server {
  public:
    /// Returns when the port accepts connections; throws, with what the server said, when it does not within seconds.
    Server(const std::vector<std::string> &command, int port);
    ~Server();
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    /// Ends it and every process that it has started, at once, as when its machine loses its power. Returns when the
    /// port refuses connections.
    void stop();
    int port() const { return port_; }

  private:
    int port_;
    std::unique_ptr<Program> program_;
};

/// Whether something accepts connections at a port.
bool port_answers(int port);

/// Writes a file of so many bytes that cannot be compressed, always the same ones.
void write_filler(const std::string &path, std::size_t size);

/// A line to a server: what arrives at its own port is passed on to the server's, and back. It can be slow, fall silent
/// and break.
class Line {
  public:
    /// Passes on at most so many bytes a second in each direction of each connection; 0: without a limit.
    Line(int port, int server_port, std::uint64_t bytes_per_second = 0);
    ~Line();
    Line(const Line &) = delete;
    Line &operator=(const Line &) = delete;

    /// Breaks every connection, present and future, that has passed so many bytes on in one direction.
    void break_after(std::uint64_t bytes) { break_after_ = bytes; }
    /// Refuses connections from now on; those that exist go on.
    void refuse();
    /// Passes on nothing any more; connections stay.
    void fall_silent() { silent_ = true; }
    /// What has been passed on so far, both directions together.
    std::uint64_t passed() const { return passed_; }

  private:
    void accept_connections();
    void relay(int from, int to);
    void add_socket(int socket);
    bool pass_on(int to, const char *data, std::size_t size);

    int listener_ = -1;
    int server_port_;
    std::uint64_t bytes_per_second_;
    std::atomic<std::uint64_t> break_after_ = UINT64_MAX;
    std::atomic<std::uint64_t> passed_ = 0;
    std::atomic<bool> silent_ = false;
    std::atomic<bool> ended_ = false;
    std::mutex mutex_;
    std::vector<int> sockets_;         ///< guarded by mutex_
    std::vector<std::thread> threads_; ///< guarded by mutex_
    std::thread acceptor_;
};

/// One module of an rsync daemon: its name and the lines of its section.
using RsyncModule = std::pair<std::string, std::vector<std::string>>;

/// An rsync daemon that serves files as root.
class RsyncDaemon : public Server {
  public:
    static constexpr int kPort = 8730;
    explicit RsyncDaemon(const std::vector<RsyncModule> &modules);
};

/// An sshd that lets root in with root's own key, and with nothing else. Making the first one of a test program gives
/// root that key; it is taken out of the list of known hosts.
class SshServer : public Server {
  public:
    static constexpr int kPort = 2222;
    SshServer();
    /// Gives the server another host key: the machine was set up anew, or is another one.
    static void replace_host_key();
    static constexpr const char *kKnownHosts = "/root/.ssh/known_hosts";
    static constexpr const char *kAcceptedKeys = "/root/.ssh/authorized_keys";
};

} // namespace tsbackup::test
