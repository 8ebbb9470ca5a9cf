// A second pair of eyes for trees that have hardly changed: while the walk is at work in some folders, the scout looks
// at the files of the ones behind them.

#pragma once

#include "listing.h"

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <pthread.h>
#include <string>
#include <sys/types.h>
#include <vector>

namespace tsbackup {

/// How things stood when the scout was sent. Its report counts only as long as they stand so.
struct ScoutedState {
    std::uint64_t copies = 0; ///< files that the walk had copied
    std::int32_t resolution_ns = 0;
    std::int32_t coarse = 0;
    bool operator==(const ScoutedState &) const = default;
};

/// Subfolders to look at.
struct ScoutOrder {
    int src_parent = -1; ///< lent; both stay open until the reports were fetched
    int dst_parent = -1;
    std::vector<std::string> names;
    ScoutedState state;
};

/// What the scout saw in one subfolder. It judges no file that is to be copied: a file counts as unchanged, or has to
/// be looked at.
struct ScoutReport {
    std::string name;
    ScoutedState state;
    dev_t src_device = 0; ///< with the inode: the folders that were looked at
    ino_t src_inode = 0;
    dev_t dst_device = 0;
    ino_t dst_inode = 0;
    Listing listing;
    std::string unchanged; ///< for each entry of the listing, not 0: a regular file whose copy is up to date
};

/// Carries out one order at a time, in a thread of its own that ends with the object. It writes nothing, anywhere.
/// Where no thread can be had there are no reports, and the walk sees for itself.
class Scout {
  public:
    Scout() = default;
    ~Scout();
    Scout(const Scout &) = delete;
    Scout &operator=(const Scout &) = delete;

    /// Gives an order. One that was given before is ended, and its reports are lost.
    void send(ScoutOrder order);
    /// Whether there is an order for subfolders of that folder.
    bool was_sent_below(int src_parent) const { return sent_ && parent_ == src_parent; }
    /// Whether it begins with that subfolder.
    bool was_sent_to(int src_parent, const char *name) const { return was_sent_below(src_parent) && first_ == name; }
    /// Ends the order, and gives its reports. Waits for a scout that is on its way; an order that it has not set out
    /// for yet is taken back.
    std::vector<ScoutReport> fetch();

  private:
    enum class State { idle, ordered, on_the_way, dismissed };

    bool start();
    static void *thread(void *scout);
    void work();

    bool sent_ = false; ///< there is an order; this and its parent and first name are the walk's alone
    int parent_ = -1;
    std::string first_;
    bool started_ = false;
    bool unavailable_ = false;
    pthread_t thread_{};

    std::mutex mutex_; ///< guards what follows
    std::condition_variable changed_;
    State state_ = State::idle;
    ScoutOrder order_;
    std::vector<ScoutReport> reports_;
};

} // namespace tsbackup
