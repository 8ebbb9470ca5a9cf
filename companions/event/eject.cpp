#include "eject.h"

#include "disk.h"
#include "tell.h"
#include "tsbackup/log.h"

#include <algorithm>
#include <cerrno>
#include <sys/mount.h>
#include <unistd.h>

namespace tsbackup {

namespace {

constexpr std::chrono::seconds kPause{1};
constexpr std::string_view kMedia = "/media/";

/// What became of an attempt.
struct Attempt {
    bool is_over = false;
    std::string reason; ///< why the disk was not ejected; empty when it was
};

Attempt unmount(const std::vector<std::string> &points) {
    for (auto point = points.rbegin(); point != points.rend(); ++point) {
        if (umount2(point->c_str(), UMOUNT_NOFOLLOW) == 0) continue;
        const int error = errno;
        return {error != EBUSY, "cannot unmount " + *point + ": " + error_text(error)};
    }
    return {};
}

Attempt try_eject(const std::string &device) {
    const std::optional<Disk> disk = disk_find(device);
    if (!disk) return {true, "there is no such disk"};
    const std::vector<std::string> points = disk_mounts(*disk);
    for (const std::string &point : points)
        if (!point.starts_with(kMedia)) return {true, "it is mounted at " + point};

    // Unmounted here it would stay busy all the same, for as long as such a process lives.
    if (const std::optional<pid_t> holder = disk_holder(*disk))
        return {false, "process " + std::to_string(*holder) + " still holds it"};
    Attempt unmounted = unmount(points);
    if (!unmounted.reason.empty()) return unmounted;

    // The kernel has the last word: somebody may have got hold of it a moment ago.
    const UniqueFd claimed = disk_claim(*disk);
    if (!claimed && errno == EBUSY) return {false, "it is still in use"};
    if (!claimed) return {true, "it was unmounted, but cannot be opened: " + error_text(errno)};
    fsync(claimed.get());
    return {true, ""};
}

} // namespace

void Ejects::add(const std::string &device) {
    const bool is_known =
        std::any_of(pending_.begin(), pending_.end(), [&](const Pending &pending) { return pending.device == device; });
    if (!is_known) pending_.push_back({device, Clock::now() + config_.eject_patience, ""});
    next_look_ = Clock::now();
}

std::optional<Ejects::Clock::time_point> Ejects::deadline() const {
    return pending_.empty() ? std::nullopt : std::optional(next_look_);
}

void Ejects::work() {
    if (pending_.empty() || Clock::now() < next_look_) return;
    std::erase_if(pending_, [](Pending &pending) {
        const char *device = pending.device.c_str();
        const Attempt attempt = try_eject(pending.device);
        if (attempt.is_over && attempt.reason.empty()) {
            tell(LOG_NOTICE, "%s can be unplugged", device);
        } else if (attempt.is_over || Clock::now() >= pending.give_up) {
            tell(LOG_WARNING, "%s is not ejected: %s", device, attempt.reason.c_str());
            return true;
        } else if (attempt.reason != pending.reason) {
            tell(LOG_INFO, "%s is ejected later: %s", device, attempt.reason.c_str());
            pending.reason = attempt.reason;
        }
        return attempt.is_over;
    });
    next_look_ = Clock::now() + kPause;
}

} // namespace tsbackup
