#include "tsbackup_error.h"

#include <csignal>
#include <gtest/gtest.h>

namespace tsbackup {
namespace {

// The flag of a process is never lowered, so its states are seen in processes of their own.

TEST(AbortedFlag, IsDownAtStart) { EXPECT_FALSE(backup_aborted()); }

TEST(AbortedFlag, IsRaisedFromASignalHandlerAndStays) {
    const auto raise_it = [] {
        std::signal(SIGHUP, [](int) { backup_abort_request(); });
        std::raise(SIGHUP);
        const bool raised = backup_aborted();
        std::raise(SIGHUP);
        std::_Exit(raised && backup_aborted() ? 0 : 1);
    };
    EXPECT_EXIT(raise_it(), testing::ExitedWithCode(0), "");
}

TEST(TransferTrace, IsOffAtStartAndFollowsItsSwitch) {
    EXPECT_FALSE(transfer_trace());
    transfer_trace_set(true);
    EXPECT_TRUE(transfer_trace());
    transfer_trace_set(false);
    EXPECT_FALSE(transfer_trace());
}

} // namespace
} // namespace tsbackup
