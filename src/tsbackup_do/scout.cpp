#include "scout.h"

#include "tsbackup/owners.h"
#include "tsbackup_do.h"

#include <algorithm>
#include <csignal>
#include <dirent.h>
#include <fcntl.h>
#include <utility>

namespace tsbackup {

namespace {

/// The scout remembers no more entries than that, and rests until some are taken. A folder with more is left to the
/// walk.
constexpr std::size_t kMostEntries = 16'384;

bool identify(int fd, dev_t &device, ino_t &inode) {
    struct stat status {};
    if (fstat(fd, &status) != 0) return false;
    device = status.st_dev;
    inode = status.st_ino;
    return true;
}

bool is_unchanged(int src, int dst, const char *name, const ScoutedState &state) {
    struct stat source {};
    struct stat copy {};
    return fstatat(src, name, &source, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(source.st_mode) &&
           fstatat(dst, name, &copy, 0) == 0 && copy.st_size == source.st_size &&
           mtime_compare(source, copy, state.resolution_ns, state.coarse) == 0;
}

/// No value when the folder cannot be looked at; the walk will find out why.
std::optional<ScoutReport> look_at_folder(const ScoutErrand &errand) {
    const char *name = errand.name.c_str();
    const UniqueFd src(openat(errand.src_parent, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW));
    const UniqueFd dst(openat(errand.dst_parent, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ScoutReport report;
    if (!src || !dst || !identify(src.get(), report.src_device, report.src_inode) ||
        !identify(dst.get(), report.dst_device, report.dst_inode) || report.listing.read(src.get()) != 0 ||
        report.listing.size() > kMostEntries)
        return std::nullopt;

    report.src_parent = errand.src_parent;
    report.name = errand.name;
    report.state = errand.state;
    report.unchanged.resize(report.listing.size());
    for (std::size_t index = 0; index < report.listing.size(); ++index)
        if (report.listing.type(index) == DT_REG)
            report.unchanged[index] =
                is_unchanged(src.get(), dst.get(), report.listing.name(index), errand.state) ? 1 : 0;
    return report;
}

} // namespace

Scout::~Scout() {
    if (!started_) return;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        dismissed_ = true;
    }
    changed_.notify_all();
    pthread_join(thread_, nullptr);
}

// Signals are the walk's.
bool Scout::start() {
    if (started_ || unavailable_) return started_;
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    started_ = pthread_create(&thread_, nullptr, thread, this) == 0;
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    unavailable_ = !started_;
    return started_;
}

void Scout::send(ScoutOrder order) {
    if (order.names.empty() || !start()) return;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        std::erase_if(orders_, [&](const ScoutOrder &other) { return other.src_parent == order.src_parent; });
        drop_reports(order.src_parent);
        orders_.push_back(std::move(order));
    }
    changed_.notify_all();
}

std::optional<ScoutReport> Scout::take(int src_parent, const std::string &name) {
    if (!started_) return std::nullopt;
    std::unique_lock<std::mutex> lock(mutex_);
    for (ScoutOrder &order : orders_)
        if (order.src_parent == src_parent) std::erase(order.names, name);
    changed_.wait(lock, [&] { return !present_ || present_->src_parent != src_parent || present_->name != name; });
    const auto found = std::find_if(reports_.begin(), reports_.end(), [&](const ScoutReport &one) {
        return one.src_parent == src_parent && one.name == name;
    });
    if (found == reports_.end()) return std::nullopt;
    std::optional<ScoutReport> report = std::move(*found);
    reports_.erase(found);
    const bool had_to_rest = remembered_ >= kMostEntries;
    remembered_ -= report->listing.size();
    if (had_to_rest) changed_.notify_all();
    return report;
}

void Scout::end(int src_parent) {
    if (!started_) return;
    std::unique_lock<std::mutex> lock(mutex_);
    std::erase_if(orders_, [&](const ScoutOrder &order) { return order.src_parent == src_parent; });
    changed_.wait(lock, [&] { return !present_ || present_->src_parent != src_parent; });
    drop_reports(src_parent);
}

void Scout::end_all() {
    if (!started_) return;
    const std::lock_guard<std::mutex> lock(mutex_);
    orders_.clear();
    reports_.clear();
    remembered_ = 0;
}

void Scout::drop_reports(int src_parent) {
    std::erase_if(reports_, [&](const ScoutReport &report) {
        if (report.src_parent != src_parent) return false;
        remembered_ -= report.listing.size();
        return true;
    });
}

// The first subfolder that is left is the walk's, which will be there before the scout could be back.
std::optional<ScoutErrand> Scout::next_errand() {
    if (remembered_ >= kMostEntries) return std::nullopt;
    const auto order =
        std::find_if(orders_.rbegin(), orders_.rend(), [](const ScoutOrder &one) { return one.names.size() > 1; });
    if (order == orders_.rend()) return std::nullopt;
    ScoutErrand errand{order->src_parent, order->dst_parent, std::move(order->names.back()), order->state};
    order->names.pop_back();
    return errand;
}

void *Scout::thread(void *scout) {
    static_cast<Scout *>(scout)->work();
    return nullptr;
}

void Scout::work() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (true) {
        changed_.wait(lock, [this] { return dismissed_ || (present_ = next_errand()); });
        if (dismissed_) return;
        const ScoutErrand errand = *present_;
        lock.unlock();
        std::optional<ScoutReport> report = look_at_folder(errand);
        lock.lock();
        if (report) {
            remembered_ += report->listing.size();
            reports_.push_back(std::move(*report));
        }
        present_.reset();
        changed_.notify_all();
    }
}

} // namespace tsbackup
