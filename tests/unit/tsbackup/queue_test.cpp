#include "front_support.h"
#include "tsbackup.h"
#include "tsbackup/paths.h"
#include "tsbackup_utils.h"

#include <algorithm>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tsbackup::test {
namespace {

using testing::ElementsAre;

class Queue : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_APPLIANCE();
        make_system_folders();
        unlink(paths::job_queue_pipe);
    }
};

std::string record_of(std::string text) {
    text.resize(kQueueRecordSize, '\0');
    return text;
}

TEST_F(Queue, a_request_is_its_text_and_zero_bytes) {
    const QueuePipe pipe;
    const Diagnostics diagnostics;
    queue_request_send("enqueue:%d", 7);
    EXPECT_EQ(pipe.received(), "enqueue:7" + std::string(119, '\0'));
    queue_request_send("dequeue:%d\n", 12);
    EXPECT_EQ(pipe.received(), "dequeue:12\n" + std::string(117, '\0'));
    EXPECT_EQ(diagnostics.text(), "");
}

TEST_F(Queue, requests_stand_one_after_the_other) {
    const QueuePipe pipe;
    queue_request_send("enqueue:%d", 1);
    queue_request_send("enqueue:%d", 0);
    EXPECT_EQ(pipe.received(), record_of("enqueue:1") + record_of("enqueue:0"));
}

TEST_F(Queue, a_long_request_is_cut_and_terminated) {
    const QueuePipe pipe;
    queue_request_send("%s", std::string(200, 'x').c_str());
    EXPECT_EQ(pipe.received(), std::string(127, 'x') + '\0');
}

TEST_F(Queue, an_empty_request_sends_nothing) {
    const QueuePipe pipe;
    queue_request_send("%s", "");
    EXPECT_EQ(pipe.received(), "");
}

TEST_F(Queue, a_pipe_without_a_daemon_is_logged_and_not_waited_for) {
    ASSERT_EQ(mkfifo(paths::job_queue_pipe, 0600), 0);
    const Diagnostics diagnostics;
    queue_request_send("enqueue:%d", 5);
    EXPECT_EQ(diagnostics.without_places(), "(error) Cannot open /var/run/zelkovad/tsbackup-q, because tsbackup-q is "
                                            "not running\n");
    EXPECT_THAT(diagnostics.text(), testing::StartsWith("tsbackup:"));
    unlink(paths::job_queue_pipe);
}

TEST_F(Queue, a_missing_pipe_is_logged_with_its_error_number) {
    const Diagnostics diagnostics;
    queue_request_send("enqueue:%d", 5);
    EXPECT_EQ(diagnostics.without_places(), "(error) Cannot open /var/run/zelkovad/tsbackup-q. errno=2\n");
}

TEST_F(Queue, a_full_pipe_is_waited_for_a_second_at_a_time) {
    const QueuePipe pipe;
    const UniqueFd filler(open(paths::job_queue_pipe, O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    const std::string block(4096, 'f');
    while (write(filler.get(), block.data(), block.size()) > 0) {
    }
    const Waits waits;
    Waits::on_next(
        [&] { Waits::on_next([&] { EXPECT_EQ(pipe.received().find_first_not_of('f'), std::string::npos); }); });
    const Diagnostics diagnostics;
    queue_request_send("enqueue:%d", 3);
    EXPECT_THAT(waits.seconds(), ElementsAre(1, 1));
    EXPECT_EQ(pipe.received(), record_of("enqueue:3"));
    EXPECT_EQ(diagnostics.text(), "");
}

} // namespace
} // namespace tsbackup::test
