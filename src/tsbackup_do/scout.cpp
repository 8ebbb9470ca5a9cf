#include "scout.h"

#include "tsbackup/owners.h"
#include "tsbackup_do.h"

#include <csignal>
#include <dirent.h>
#include <fcntl.h>
#include <utility>

namespace tsbackup {

namespace {

/// With more entries than that an order ends: what is remembered stays small.
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

/// False when the folder cannot be looked at; the walk will find out why.
bool look_at_folder(const ScoutOrder &order, const std::string &name, ScoutReport &report) {
    const UniqueFd src(openat(order.src_parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW));
    const UniqueFd dst(openat(order.dst_parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!src || !dst || !identify(src.get(), report.src_device, report.src_inode) ||
        !identify(dst.get(), report.dst_device, report.dst_inode) || report.listing.read(src.get()) != 0 ||
        report.listing.size() > kMostEntries)
        return false;

    report.name = name;
    report.state = order.state;
    report.unchanged.resize(report.listing.size());
    for (std::size_t index = 0; index < report.listing.size(); ++index)
        if (report.listing.type(index) == DT_REG)
            report.unchanged[index] =
                is_unchanged(src.get(), dst.get(), report.listing.name(index), order.state) ? 1 : 0;
    return true;
}

std::vector<ScoutReport> carry_out(const ScoutOrder &order) {
    std::vector<ScoutReport> reports;
    std::size_t entries = 0;
    for (const std::string &name : order.names) {
        ScoutReport report;
        if (!look_at_folder(order, name, report)) continue;
        entries += report.listing.size();
        reports.push_back(std::move(report));
        if (entries > kMostEntries) break;
    }
    return reports;
}

} // namespace

Scout::~Scout() {
    if (!started_) return;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        state_ = State::dismissed;
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
    fetch();
    if (order.names.empty() || !start()) return;
    sent_ = true;
    parent_ = order.src_parent;
    first_ = order.names.front();
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        order_ = std::move(order);
        state_ = State::ordered;
    }
    changed_.notify_all();
}

std::vector<ScoutReport> Scout::fetch() {
    if (!std::exchange(sent_, false)) return {};
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return state_ != State::on_the_way; });
    state_ = State::idle;
    return std::exchange(reports_, {});
}

void *Scout::thread(void *scout) {
    static_cast<Scout *>(scout)->work();
    return nullptr;
}

void Scout::work() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (true) {
        changed_.wait(lock, [this] { return state_ == State::ordered || state_ == State::dismissed; });
        if (state_ == State::dismissed) return;
        state_ = State::on_the_way;
        const ScoutOrder order = std::move(order_);
        lock.unlock();
        std::vector<ScoutReport> reports = carry_out(order);
        lock.lock();
        if (state_ == State::dismissed) return;
        reports_ = std::move(reports);
        state_ = State::idle;
        changed_.notify_all();
    }
}

} // namespace tsbackup
