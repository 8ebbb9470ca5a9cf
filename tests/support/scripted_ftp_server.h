// An FTP server whose answers are a table: for what no real server does when it is asked to.

#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace tsbackup::test {

/// What the server does behind an answer.
enum class FtpThen : std::uint8_t { goes_on, hangs_up };

/// One row of the table. The first one that fits a command is taken; where none does, the server answers like a
/// friendly one without encryption, for which every file has five bytes and dates from the start of 2020.
struct FtpRule {
    static constexpr int kAlways = -1;

    std::string command; ///< how the command begins, in letters of either case; empty: the greeting
    std::string reply;   ///< without a line end; empty: silence
    FtpThen then = FtpThen::goes_on;
    int uses = kAlways;                             ///< so often, and then never again
    std::optional<std::string> data = std::nullopt; ///< sent over the data connection before the reply
};

/// A file that a client has sent.
struct FtpStored {
    std::string command; ///< as it came
    std::string folder;  ///< where the last CWD of the session had led
    std::string content;
};

/// Listens on a loopback port for as long as it lives, and serves any number of connections at a time.
class ScriptedFtpServer {
  public:
    /// `port` 0: a free one.
    explicit ScriptedFtpServer(std::vector<FtpRule> rules = {}, int port = 0);
    ~ScriptedFtpServer();
    ScriptedFtpServer(const ScriptedFtpServer &) = delete;
    ScriptedFtpServer &operator=(const ScriptedFtpServer &) = delete;

    int port() const { return port_; }
    /// Connections so far.
    int sessions() const;
    /// What has been sent to the server, in the order of its arrival, of all connections.
    std::vector<std::string> commands() const;
    /// The same, those alone that begin with `verb`.
    std::vector<std::string> commands(const std::string &verb) const;
    std::vector<FtpStored> stored() const;

  private:
    struct Session;

    void serve();
    void talk(Session &session);
    void transfer(Session &session, const std::string &line, const FtpRule &rule);
    FtpRule rule_for(const std::string &line);

    std::vector<FtpRule> rules_; ///< the rows that are left
    int listener_ = -1;
    int port_ = 0;
    std::atomic<bool> ended_ = false;
    mutable std::mutex mutex_; ///< of all that the sessions share
    std::vector<std::unique_ptr<Session>> sessions_;
    std::vector<std::string> commands_;
    std::vector<FtpStored> stored_;
    std::thread thread_;
};

/// A loopback port on which nobody listens at the moment.
int unused_port();

/// A line of a listing as servers of old write it. `type`: "-" a file, "d" a directory, "l" a link.
std::string ftp_listing_line(char type, const std::string &name, std::size_t size = 5);

} // namespace tsbackup::test
