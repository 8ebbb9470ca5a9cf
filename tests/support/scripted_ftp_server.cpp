#include "scripted_ftp_server.h"

#include "tsbackup/owners.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <chrono>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdexcept>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

namespace tsbackup::test {

namespace {

const std::vector<FtpRule> kFriendlyAnswers = {
    {"", "220 hello"},
    {"AUTH", "500 what?"},
    {"USER", "331 and the password?"},
    {"PASS", "230 in"},
    {"PWD", "257 \"/\""},
    {"EPSV", "229 (|||%|)"}, // the port is filled in
    {"CWD", "250 there"},
    {"MKD", "257 made"},
    {"SIZE", "213 5"},
    {"MDTM", "213 20200101000000"},
    {"REST", "350 from there"},
    {"LIST", "226 done", FtpThen::goes_on, FtpRule::kAlways, ""},
    {"RETR", "226 done", FtpThen::goes_on, FtpRule::kAlways, "12345"},
    {"STOR", "226 done"},
    {"QUIT", "221 bye", FtpThen::hangs_up},
};

/// The transfer library sleeps for a second where a port is told faster than it looks for the answer.
constexpr auto kBeforeAPortIsTold = std::chrono::milliseconds(3);

bool begins_with(const std::string &line, const std::string &start) {
    return strncasecmp(line.c_str(), start.c_str(), start.size()) == 0;
}

bool fits(const FtpRule &rule, const std::string &line) {
    return rule.command.empty() ? line.empty() : begins_with(line, rule.command);
}

void say(int fd, const std::string &text) {
    for (std::size_t sent = 0; sent < text.size();) {
        const ssize_t more = send(fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
        if (more <= 0) return;
        sent += static_cast<std::size_t>(more);
    }
}

/// False when the client is gone.
bool read_line(int fd, std::string &line) {
    line.clear();
    for (char byte = 0; read(fd, &byte, 1) == 1;) {
        if (byte == '\n') return true;
        if (byte != '\r') line += byte;
    }
    return false;
}

std::string read_all(int fd) {
    std::string content;
    std::array<char, 4096> block{};
    for (ssize_t got = 0; (got = read(fd, block.data(), block.size())) > 0;)
        content.append(block.data(), static_cast<std::size_t>(got));
    return content;
}

UniqueFd listen_at(int port) {
    UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int one = 1;
    setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 || listen(fd.get(), 16) != 0)
        throw std::runtime_error("cannot listen on port " + std::to_string(port));
    return fd;
}

int port_of(int fd) {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size);
    return ntohs(address.sin_port);
}

UniqueFd accept_at(const UniqueFd &listener) {
    return UniqueFd(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
}

} // namespace

struct ScriptedFtpServer::Session {
    UniqueFd control;
    UniqueFd data_listener;
    std::string folder = "/";
    std::thread thread;
};

ScriptedFtpServer::ScriptedFtpServer(std::vector<FtpRule> rules, int port) : rules_(std::move(rules)) {
    listener_ = listen_at(port).release();
    port_ = port_of(listener_);
    thread_ = std::thread([this] { serve(); });
}

ScriptedFtpServer::~ScriptedFtpServer() {
    ended_ = true;
    shutdown(listener_, SHUT_RDWR);
    thread_.join();
    // A client may still be connected, or never come for its data.
    {
        const std::lock_guard lock(mutex_);
        for (const auto &session : sessions_) {
            shutdown(session->control.get(), SHUT_RDWR);
            if (session->data_listener) shutdown(session->data_listener.get(), SHUT_RDWR);
        }
    }
    for (const auto &session : sessions_)
        session->thread.join();
    close(listener_);
}

int ScriptedFtpServer::sessions() const {
    const std::lock_guard lock(mutex_);
    return static_cast<int>(sessions_.size());
}

std::vector<std::string> ScriptedFtpServer::commands() const {
    const std::lock_guard lock(mutex_);
    return commands_;
}

std::vector<std::string> ScriptedFtpServer::commands(const std::string &verb) const {
    std::vector<std::string> found;
    for (const std::string &command : commands())
        if (begins_with(command, verb)) found.push_back(command);
    return found;
}

std::vector<FtpStored> ScriptedFtpServer::stored() const {
    const std::lock_guard lock(mutex_);
    return stored_;
}

void ScriptedFtpServer::serve() {
    while (!ended_) {
        const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) return;
        const int one = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        const std::lock_guard lock(mutex_);
        sessions_.push_back(std::make_unique<Session>());
        Session &session = *sessions_.back();
        session.control.reset(fd);
        session.thread = std::thread([this, &session] { talk(session); });
    }
}

FtpRule ScriptedFtpServer::rule_for(const std::string &line) {
    const std::lock_guard lock(mutex_);
    for (FtpRule &rule : rules_) {
        if (rule.uses == 0 || !fits(rule, line)) continue;
        if (rule.uses > 0) --rule.uses;
        return rule;
    }
    for (const FtpRule &rule : kFriendlyAnswers)
        if (fits(rule, line)) return rule;
    return {"", "200 fine"};
}

void ScriptedFtpServer::transfer(Session &session, const std::string &line, const FtpRule &rule) {
    say(session.control.get(), "150 here it comes\r\n");
    const UniqueFd data = accept_at(session.data_listener);
    if (!data) return;
    if (rule.data) {
        say(data.get(), *rule.data);
        return;
    }
    const std::string content = read_all(data.get());
    const std::lock_guard lock(mutex_);
    stored_.push_back({line, session.folder, content});
}

void ScriptedFtpServer::talk(Session &session) {
    const int fd = session.control.get();
    std::string line; // none yet: the greeting
    do {
        const FtpRule rule = rule_for(line);
        std::string reply = rule.reply;
        if (begins_with(line, "EPSV")) {
            if (const std::size_t mark = reply.find('%'); mark != std::string::npos) {
                UniqueFd data_listener = listen_at(0);
                reply.replace(mark, 1, std::to_string(port_of(data_listener.get())));
                const std::lock_guard lock(mutex_);
                session.data_listener = std::move(data_listener);
            }
            std::this_thread::sleep_for(kBeforeAPortIsTold);
        }
        if (begins_with(line, "CWD ") && reply.starts_with("2")) session.folder = line.substr(4);
        if (rule.data || (begins_with(line, "STOR") && reply.starts_with("2"))) transfer(session, line, rule);
        if (!reply.empty()) say(fd, reply + "\r\n");
        if (rule.then == FtpThen::hangs_up) break;
        if (!read_line(fd, line)) break;
        const std::lock_guard lock(mutex_);
        commands_.push_back(line);
    } while (true);
    // The descriptor itself is closed with the server: its number must not be another one's meanwhile.
    shutdown(fd, SHUT_RDWR);
}

int unused_port() { return port_of(listen_at(0).get()); }

std::string ftp_listing_line(char type, const std::string &name, std::size_t size) {
    return std::string(1, type) + "rw-r--r-- 1 owner group " + std::to_string(size) + " Jan 01 2020 " + name + "\r\n";
}

} // namespace tsbackup::test
