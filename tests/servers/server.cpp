#include "server.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <netinet/in.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tsbackup::test {

namespace {

using namespace std::chrono_literals;

constexpr char kFolder[] = "/srv/servers";
constexpr char kHostKey[] = "/srv/servers/host_key";
constexpr int kSocketBuffer = 64 * 1024;

sockaddr_in address_of(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

/// A socket whose buffers are small, so that what was sent is soon what was received.
int small_socket() {
    const int socket_fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    setsockopt(socket_fd, SOL_SOCKET, SO_RCVBUF, &kSocketBuffer, sizeof kSocketBuffer);
    setsockopt(socket_fd, SOL_SOCKET, SO_SNDBUF, &kSocketBuffer, sizeof kSocketBuffer);
    return socket_fd;
}

bool connect_to(int socket_fd, int port) {
    const sockaddr_in address = address_of(port);
    return connect(socket_fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
}

/// Ends a connection so that the other side learns of it whatever it is doing. The descriptor stays.
void abort_connection(int socket_fd) {
    sockaddr none{};
    none.sa_family = AF_UNSPEC;
    static_cast<void>(connect(socket_fd, &none, sizeof none));
}

std::string written(const std::string &name, const std::string &content, mode_t mode = 0644) {
    std::string path = std::string(kFolder) + "/" + name;
    write_file(path, content, mode);
    return path;
}

std::string rsync_configuration(const std::vector<RsyncModule> &modules) {
    // Small buffers here, too: on a slow line the daemon is not far ahead of its client.
    const std::string size = std::to_string(kSocketBuffer);
    std::string text =
        "use chroot = no\nuid = 0\ngid = 0\nsocket options = SO_SNDBUF=" + size + ",SO_RCVBUF=" + size + "\n";
    for (const auto &[name, lines] : modules) {
        text += "[" + name + "]\n";
        for (const std::string &line : lines)
            text += line + "\n";
    }
    return written("rsyncd.conf", text);
}

/// What sshd and its client need of the system and no appliance has: the user of its unprivileged part, its folder,
/// keys. Path of the configuration.
std::string ssh_configuration() {
    const std::string users = read_file("/etc/passwd");
    if (users.find("\nsshd:") == std::string::npos)
        write_file("/etc/passwd", users + "sshd:x:110:65534::/run/sshd:/usr/sbin/nologin\n");
    make_folder("/run/sshd");
    chmod("/run/sshd", 0755);
    make_folder("/root/.ssh");
    chmod("/root/.ssh", 0700);
    if (!file_exists("/root/.ssh/id_ed25519")) shell_output("ssh-keygen -q -t ed25519 -N '' -f /root/.ssh/id_ed25519");
    write_file(SshServer::kAcceptedKeys, read_file("/root/.ssh/id_ed25519.pub"), 0600);
    remove_tree(SshServer::kKnownHosts);
    if (!file_exists(kHostKey)) SshServer::replace_host_key();
    return written("sshd_config", "Port 2222\nListenAddress 127.0.0.1\nHostKey " + std::string(kHostKey) +
                                      "\nPidFile none\nPasswordAuthentication no\nKbdInteractiveAuthentication no\n"
                                      "PermitRootLogin prohibit-password\nUsePAM no\nMaxStartups 100\n");
}

} // namespace

bool port_answers(int port) {
    const int socket_fd = small_socket();
    const bool connected = connect_to(socket_fd, port);
    close(socket_fd);
    return connected;
}

void write_filler(const std::string &path, std::size_t size) {
    std::string content(size, '\0');
    std::uint32_t state = 12345;
    for (char &byte : content) {
        state = state * 1664525 + 1013904223;
        byte = static_cast<char>(state >> 24);
    }
    write_file(path, content);
}

// A process namespace of its own, so that the server's last process goes with its first one.
Server::Server(const std::vector<std::string> &command, int port) : port_(port) {
    if (port_answers(port)) throw std::runtime_error("port " + std::to_string(port) + " is in use");
    std::vector<std::string> words = {"--pid", "--fork", "--kill-child", "--"};
    words.insert(words.end(), command.begin(), command.end());
    ProgramOptions options;
    options.program = "/usr/bin/unshare";
    program_ = std::make_unique<Program>(words, options);
    if (wait_until([this, port] { return port_answers(port) || !program_->running(); }, 10s) && program_->running())
        return;
    program_->signal(SIGKILL);
    const Outcome outcome = program_->wait();
    throw std::runtime_error(command.front() + " does not answer: " + outcome.out + outcome.err);
}

Server::~Server() { stop(); }

void Server::stop() {
    if (!program_) return;
    program_.reset();
    if (!wait_until([this] { return !port_answers(port_); }, 10s)) ADD_FAILURE() << "a server could not be ended";
}

Line::Line(int port, int server_port, std::uint64_t bytes_per_second)
    : listener_(small_socket()), server_port_(server_port), bytes_per_second_(bytes_per_second) {
    const int yes = 1;
    setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    const sockaddr_in address = address_of(port);
    if (bind(listener_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        listen(listener_, 16) != 0)
        throw std::runtime_error("cannot listen on port " + std::to_string(port));
    acceptor_ = std::thread([this] { accept_connections(); });
}

Line::~Line() {
    ended_ = true;
    shutdown(listener_, SHUT_RDWR);
    acceptor_.join();
    for (const int socket_fd : sockets_)
        shutdown(socket_fd, SHUT_RDWR);
    for (std::thread &thread : threads_)
        thread.join();
    for (const int socket_fd : sockets_)
        close(socket_fd);
    close(listener_);
}

void Line::refuse() { shutdown(listener_, SHUT_RDWR); }

void Line::add_socket(int socket) { sockets_.push_back(socket); }

void Line::accept_connections() {
    while (!ended_) {
        const int client = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) return;
        const int server = small_socket();
        const std::lock_guard lock(mutex_);
        add_socket(client);
        add_socket(server);
        if (!connect_to(server, server_port_)) {
            shutdown(client, SHUT_RDWR);
            continue;
        }
        threads_.emplace_back([this, client, server] { relay(client, server); });
        threads_.emplace_back([this, client, server] { relay(server, client); });
    }
}

bool Line::pass_on(int to, const char *data, std::size_t size) {
    while (size > 0) {
        const ssize_t sent = send(to, data, size, MSG_NOSIGNAL);
        if (sent <= 0) return false;
        data += sent;
        size -= static_cast<std::size_t>(sent);
    }
    return true;
}

void Line::relay(int from, int to) {
    const auto start = std::chrono::steady_clock::now();
    std::uint64_t passed = 0;
    std::array<char, std::size_t{16} * 1024> piece{};
    while (passed < break_after_) {
        const ssize_t got = recv(from, piece.data(), piece.size(), 0);
        while (silent_ && !ended_)
            std::this_thread::sleep_for(10ms);
        if (got == 0) {
            // The end of one direction; the other one may still have something to say.
            shutdown(to, SHUT_WR);
            return;
        }
        if (got < 0 || !pass_on(to, piece.data(), static_cast<std::size_t>(got))) break;
        passed += static_cast<std::uint64_t>(got);
        passed_ += static_cast<std::uint64_t>(got);
        if (bytes_per_second_ > 0)
            std::this_thread::sleep_until(start + std::chrono::microseconds(passed * 1000000 / bytes_per_second_));
    }
    abort_connection(from);
    abort_connection(to);
}

RsyncDaemon::RsyncDaemon(const std::vector<RsyncModule> &modules)
    : Server({"rsync", "--daemon", "--no-detach", "--address=127.0.0.1", "--port=" + std::to_string(kPort),
              "--config=" + rsync_configuration(modules), "--log-file=" + std::string(kFolder) + "/rsyncd.log"},
             kPort) {}

SshServer::SshServer() : Server({"/usr/sbin/sshd", "-D", "-e", "-f", ssh_configuration()}, kPort) {}

void SshServer::replace_host_key() {
    make_folder(kFolder);
    remove_tree(kHostKey);
    remove_tree(std::string(kHostKey) + ".pub");
    shell_output("ssh-keygen -q -t ed25519 -N '' -f " + std::string(kHostKey));
}

} // namespace tsbackup::test
