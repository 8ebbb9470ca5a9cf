#include "appliance_support.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <mutex>
#include <poll.h>
#include <stdexcept>
#include <sys/eventfd.h>
#include <sys/fanotify.h>
#include <sys/inotify.h>
#include <thread>
#include <unistd.h>

namespace tsbackup::test {

namespace fs = std::filesystem;

struct StatusWatcher::Watch {
    std::string path;
    int events = -1;         ///< fanotify or inotify descriptor on the file's folder
    bool permission = false; ///< fanotify: each opening waits for an answer
    int stop = -1;
    std::thread thread;
    std::mutex guard; ///< of `contents`
    std::vector<std::string> contents;

    void note(const std::string &content) {
        const std::lock_guard lock(guard);
        if (content.empty() || (!contents.empty() && contents.back() == content)) return;
        contents.push_back(content);
    }

    /// The file's content through a descriptor that the kernel handed over; opening it anew would wait for ourselves.
    void note_descriptor(int descriptor) {
        const fs::path target = fs::read_symlink("/proc/self/fd/" + std::to_string(descriptor));
        if (target.filename() != fs::path(path).filename()) return;
        std::string content;
        std::array<char, 4096> block{};
        ssize_t got = 0;
        while ((got = pread(descriptor, block.data(), block.size(), static_cast<off_t>(content.size()))) > 0)
            content.append(block.data(), static_cast<std::size_t>(got));
        note(content);
    }

    void answer_openings() {
        alignas(fanotify_event_metadata) std::array<char, 8192> buffer{};
        const ssize_t got = read(events, buffer.data(), buffer.size());
        auto *event = reinterpret_cast<fanotify_event_metadata *>(buffer.data());
        for (ssize_t left = got; FAN_EVENT_OK(event, left); event = FAN_EVENT_NEXT(event, left)) {
            if (event->fd < 0) continue;
            note_descriptor(event->fd);
            const fanotify_response answer{event->fd, FAN_ALLOW};
            if (write(events, &answer, sizeof answer) < 0) return;
            close(event->fd);
        }
    }

    void note_change() {
        alignas(inotify_event) std::array<char, 8192> buffer{};
        if (read(events, buffer.data(), buffer.size()) > 0) note(read_file(path));
    }

    void run() {
        std::array<pollfd, 2> waits{{{events, POLLIN, 0}, {stop, POLLIN, 0}}};
        while (true) {
            if (poll(waits.data(), waits.size(), -1) < 0 && errno != EINTR) return;
            if ((waits[0].revents & POLLIN) != 0) {
                if (permission)
                    answer_openings();
                else
                    note_change();
            } else if ((waits[1].revents & POLLIN) != 0) {
                return;
            }
        }
    }
};

StatusWatcher::StatusWatcher(int job_id) : StatusWatcher(status_path(job_id)) {}

StatusWatcher::StatusWatcher(const std::string &path) : watch_(std::make_unique<Watch>()) {
    const std::string folder = fs::path(path).parent_path();
    watch_->path = path;
    make_folder(folder);
    watch_->note(read_file(path));
    watch_->events = fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC | FAN_NONBLOCK, O_RDONLY | O_CLOEXEC);
    watch_->permission =
        watch_->events >= 0 &&
        fanotify_mark(watch_->events, FAN_MARK_ADD, FAN_OPEN_PERM | FAN_EVENT_ON_CHILD, AT_FDCWD, folder.c_str()) == 0;
    if (!watch_->permission) {
        if (watch_->events >= 0) close(watch_->events);
        watch_->events = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
        inotify_add_watch(watch_->events, folder.c_str(), IN_CLOSE_WRITE | IN_MODIFY);
    }
    watch_->stop = eventfd(0, EFD_CLOEXEC);
    if (watch_->events < 0 || watch_->stop < 0) throw std::runtime_error("cannot watch " + folder);
    watch_->thread = std::thread([watch = watch_.get()] { watch->run(); });
}

StatusWatcher::~StatusWatcher() {
    const std::uint64_t one = 1;
    if (write(watch_->stop, &one, sizeof one) == sizeof one) watch_->thread.join();
    close(watch_->events);
    close(watch_->stop);
}

std::vector<std::string> StatusWatcher::seen() {
    watch_->note(read_file(watch_->path));
    const std::lock_guard lock(watch_->guard);
    return watch_->contents;
}

} // namespace tsbackup::test
