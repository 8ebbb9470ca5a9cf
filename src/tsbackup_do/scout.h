// A second pair of eyes for trees that have hardly changed: while the walk is at work in some folders, the scout looks
// at the files of the ones behind them.

#pragma once

#include "listing.h"

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
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

/// Subfolders of one folder to look at. The walk comes from the front, the scout goes to the last one first.
struct ScoutOrder {
    int src_parent = -1; ///< lent, and what the order is known by; both stay open until it is ended
    int dst_parent = -1;
    std::vector<std::string> names;
    ScoutedState state;
};

/// One of them.
struct ScoutErrand {
    int src_parent = -1;
    int dst_parent = -1;
    std::string name;
    ScoutedState state;
};

/// What the scout saw in one subfolder. It judges no file that is to be copied: a file counts as unchanged, or has to
/// be looked at.
struct ScoutReport {
    int src_parent = -1;
    std::string name;
    ScoutedState state;
    dev_t src_device = 0; ///< with the inode: the folders that were looked at
    ino_t src_inode = 0;
    dev_t dst_device = 0;
    ino_t dst_inode = 0;
    Listing listing;
    std::string unchanged; ///< for each entry of the listing, not 0: a regular file whose copy is up to date
};

/// Carries out orders, the last one given first, in a thread of its own that ends with the object. It writes nothing,
/// anywhere. Where no thread can be had there are no reports, and the walk sees for itself.
class Scout {
  public:
    Scout() = default;
    ~Scout();
    Scout(const Scout &) = delete;
    Scout &operator=(const Scout &) = delete;

    /// Gives an order, in place of an earlier one for the same folder.
    void send(ScoutOrder order);
    /// The report of one subfolder of an order. No value: the scout has not been there and will not go. Waits for a
    /// scout that is there just now.
    std::optional<ScoutReport> take(int src_parent, const std::string &name);
    /// Ends the order for a folder, if there is one; waits as `take` does. Reports that were not taken are gone.
    void end(int src_parent);
    /// Ends all orders without waiting.
    void end_all();

  private:
    bool start();
    static void *thread(void *scout);
    void work();
    std::optional<ScoutErrand> next_errand();
    void drop_reports(int src_parent);

    bool started_ = false; ///< this and the next two are the walk's alone
    bool unavailable_ = false;
    pthread_t thread_{};

    std::mutex mutex_; ///< guards what follows
    std::condition_variable changed_;
    bool dismissed_ = false;
    std::vector<ScoutOrder> orders_;     ///< with the names that are left
    std::optional<ScoutErrand> present_; ///< where the scout is
    std::vector<ScoutReport> reports_;
    std::size_t remembered_ = 0; ///< entries in all reports
};

} // namespace tsbackup
