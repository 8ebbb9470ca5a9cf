#include "tsbackup_error.h"

#include <csignal>
#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

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

TEST(Abort, RemovesTheFileThatWasNamedLast) {
    std::string first = testing::TempDir() + "/abort-XXXXXX";
    std::string second = first;
    ASSERT_GE(mkstemp(first.data()), 0);
    ASSERT_GE(mkstemp(second.data()), 0);
    const auto abort_after = [](std::initializer_list<const char *> named) {
        for (const char *path : named)
            backup_abort_removes(path);
        backup_abort_request();
        std::_Exit(0);
    };
    EXPECT_EXIT(abort_after({first.c_str(), nullptr}), testing::ExitedWithCode(0), "");
    EXPECT_EQ(access(first.c_str(), F_OK), 0);
    EXPECT_EXIT(abort_after({second.c_str(), first.c_str()}), testing::ExitedWithCode(0), "");
    EXPECT_NE(access(first.c_str(), F_OK), 0);
    EXPECT_EQ(access(second.c_str(), F_OK), 0);
    unlink(second.c_str());
}

/// How a process ends that an aborted one has started; the one that is aborted leads its group or does not.
int child_of_an_aborted(bool leads, bool ends_group) {
    const pid_t group = fork();
    if (group == 0) { // so that no signal to the group reaches the test
        setpgid(0, 0);
        const pid_t aborted = leads ? getpid() : fork();
        if (aborted != 0 && !leads) {
            int status = 0;
            waitpid(aborted, &status, 0);
            std::_Exit(WIFEXITED(status) ? WEXITSTATUS(status) : 100);
        }
        const pid_t child = fork();
        if (child == 0) {
            std::signal(SIGHUP, SIG_IGN);
            sleep(2);
            std::_Exit(1);
        }
        if (ends_group) backup_abort_ends_group(true);
        backup_abort_request();
        int status = 0;
        waitpid(child, &status, 0);
        std::_Exit(WIFSIGNALED(status) ? 200 + WTERMSIG(status) : WEXITSTATUS(status));
    }
    int status = 0;
    waitpid(group, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

TEST(Abort, EndsTheGroupOfItsLeaderWhenItIsTold) {
    EXPECT_EQ(child_of_an_aborted(true, true), 200 + SIGTERM);
    EXPECT_EQ(child_of_an_aborted(true, false), 1);
    EXPECT_EQ(child_of_an_aborted(false, true), 1);
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
