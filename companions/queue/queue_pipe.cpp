#include "queue_pipe.h"

#include "tell.h"
#include "tsbackup/log.h"
#include "tsbackup_utils.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <systemd/sd-daemon.h>

namespace tsbackup {

namespace {

constexpr std::size_t kBlock = 65536;

} // namespace

QueuePipe::QueuePipe(UniqueFd pipe, UniqueFd copy_out, UniqueFd copy_in)
    : pipe_(std::move(pipe)), copy_out_(std::move(copy_out)), copy_in_(std::move(copy_in)) {}

std::optional<QueuePipe> QueuePipe::use(const std::string &path) {
    // Open for writing too: a pipe that its last writer leaves would report its end without a pause.
    UniqueFd pipe(::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    std::array<int, 2> copy{};
    struct stat status {};
    if (!pipe || fstat(pipe.get(), &status) != 0) {
        tell(LOG_ERR, "cannot open %s: %s", path.c_str(), error_text(errno).c_str());
    } else if (!S_ISFIFO(status.st_mode)) {
        tell(LOG_ERR, "%s is no named pipe", path.c_str());
    } else if (pipe2(copy.data(), O_CLOEXEC | O_NONBLOCK) != 0) {
        tell(LOG_ERR, "cannot make a pipe: %s", error_text(errno).c_str());
    } else {
        return QueuePipe(std::move(pipe), UniqueFd(copy[0]), UniqueFd(copy[1]));
    }
    return std::nullopt;
}

std::optional<QueuePipe> QueuePipe::open(const std::string &path) {
    if (mkfifo(path.c_str(), 0600) != 0 && errno == ENOENT) {
        mkdir_p(path.substr(0, path.rfind('/')), 0755);
        mkfifo(path.c_str(), 0600);
    }
    return use(path);
}

std::optional<QueuePipe> QueuePipe::inherit(UniqueFd descriptor) {
    if (sd_is_fifo(descriptor.get(), nullptr) <= 0) {
        tell(LOG_ERR, "the descriptor from the service manager is no named pipe");
        return std::nullopt;
    }
    return use("/proc/self/fd/" + std::to_string(descriptor.get()));
}

std::string QueuePipe::peek() {
    const ssize_t size = tee(pipe_.get(), copy_in_.get(), kBlock, SPLICE_F_NONBLOCK);
    std::string content(size > 0 ? static_cast<std::size_t>(size) : 0, '\0');
    std::size_t done = 0;
    while (done < content.size()) {
        const ssize_t got = read(copy_out_.get(), content.data() + done, content.size() - done);
        if (got <= 0) break;
        done += static_cast<std::size_t>(got);
    }
    content.resize(done);
    return content;
}

void QueuePipe::consume(std::size_t size) {
    std::array<char, 4096> block;
    while (size > 0) {
        const ssize_t got = read(pipe_.get(), block.data(), std::min(size, block.size()));
        if (got <= 0) return;
        size -= static_cast<std::size_t>(got);
    }
}

} // namespace tsbackup
