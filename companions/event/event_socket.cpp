#include "event_socket.h"

#include "tell.h"
#include "tsbackup/log.h"
#include "tsbackup_utils.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <systemd/sd-daemon.h>

namespace tsbackup {

namespace {

constexpr std::size_t kLongestEvent = std::size_t{256} * 1024;

UniqueFd datagram_socket() { return UniqueFd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)); }

/// Whether some process listens at the address. A socket that was left behind refuses.
bool is_served(const sockaddr_un &address) {
    const UniqueFd probe = datagram_socket();
    return connect(probe.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
}

bool bind_to(int socket, const sockaddr_un &address) {
    // No moment in which anybody else could send.
    const mode_t old_mask = umask(0177);
    const bool bound = bind(socket, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
    umask(old_mask);
    return bound;
}

} // namespace

UniqueFd event_socket_bind(const std::string &path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        tell(LOG_ERR, "%s is too long for a socket", path.c_str());
        return UniqueFd();
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);

    struct stat status {};
    if (lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode)) {
        if (is_served(address)) {
            tell(LOG_ERR, "another program listens at %s", path.c_str());
            return UniqueFd();
        }
        unlink(path.c_str());
    }
    mkdir_p(path.substr(0, path.rfind('/')), 0755);
    UniqueFd socket = datagram_socket();
    if (!socket || !bind_to(socket.get(), address)) {
        tell(LOG_ERR, "cannot bind %s: %s", path.c_str(), error_text(errno).c_str());
        socket.reset();
    }
    return socket;
}

UniqueFd event_socket_inherit(UniqueFd descriptor) {
    if (sd_is_socket(descriptor.get(), AF_UNIX, SOCK_DGRAM, -1) <= 0) {
        tell(LOG_ERR, "the descriptor from the service manager is no datagram socket");
        return UniqueFd();
    }
    fcntl(descriptor.get(), F_SETFL, O_NONBLOCK);
    return descriptor;
}

std::optional<std::string> event_socket_receive(int socket) {
    std::string datagram(kLongestEvent, '\0');
    ssize_t size = 0;
    do
        size = recv(socket, datagram.data(), datagram.size(), MSG_TRUNC);
    while (size < 0 && errno == EINTR);
    if (size < 0) return std::nullopt;
    if (static_cast<std::size_t>(size) > datagram.size())
        tell(LOG_WARNING, "cut an event of %zd bytes at %zu", size, datagram.size());
    else
        datagram.resize(static_cast<std::size_t>(size));
    return datagram;
}

} // namespace tsbackup
