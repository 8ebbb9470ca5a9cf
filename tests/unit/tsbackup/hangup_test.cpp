#include "front_support.h"
#include "tsbackup.h"
#include "tsbackup_error.h"

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tsbackup::test {
namespace {

TEST(HangUp, ends_the_process_with_success_and_says_so) {
    const TempFolder folder;
    const std::string output = folder / "stderr";
    GroupLeader worker([&] {
        dup2(open(output.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600), STDERR_FILENO);
        hangup_handler_install();
        std::raise(SIGHUP);
        return 1;
    });
    const int status = worker.wait();
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(read_file(output), "Aborting Backup Job:\n");
}

TEST(HangUp, reaches_a_worker_whose_starter_ignored_and_blocked_it) {
    GroupLeader worker([] {
        std::signal(SIGHUP, SIG_IGN);
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, nullptr);
        close(STDERR_FILENO);
        hangup_handler_install();
        std::raise(SIGHUP);
        return 1;
    });
    const int status = worker.wait();
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(HangUp, interrupts_an_allocation_or_a_stream_without_harm) {
    for (int round = 0; round < 30; ++round) {
        GroupLeader worker([] {
            dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO);
            hangup_handler_install();
            const int log = open("/dev/null", O_WRONLY | O_CLOEXEC);
            hangup_logs_set(log, log);
            const pid_t self = getpid();
            if (fork() == 0) {
                usleep(static_cast<useconds_t>(500 + 37 * (self % 50)));
                kill(self, SIGHUP);
                _exit(0);
            }
            for (;;) {
                std::string *text = new std::string(5000, 'x');
                std::fprintf(stderr, "%s", text->c_str());
                delete text;
            }
            return 1;
        });
        const int status = worker.wait();
        ASSERT_TRUE(WIFEXITED(status)) << "signal " << WTERMSIG(status);
        ASSERT_EQ(WEXITSTATUS(status), 0);
    }
}

} // namespace
} // namespace tsbackup::test
