#include "queue_kind.h"

#include "support.h"
#include "tsbackup/paths.h"
#include "tsbackup_utils.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace tsbackup::test {
namespace {

using testing::ElementsAre;
using testing::StartsWith;

struct RequestCase {
    std::string text;
    const char *task; ///< null: no request
    bool enqueue = true;
};

const RequestCase kJobRequests[] = {
    {"enqueue:7", "7"},
    {"enqueue:0", "0"},
    {"enqueue:2147483647", "2147483647"},
    {"enqueue:7\n", "7"},
    {"dequeue:7\n", "7", false},
    {"dequeue:7", "7", false},
    {"", nullptr},
    {"enqueue:", nullptr},
    {"enqueue", nullptr},
    {"enqueue:-1", nullptr},
    {"enqueue:+1", nullptr},
    {"enqueue: 1", nullptr},
    {"enqueue:1 ", nullptr},
    {"enqueue:1x", nullptr},
    {"enqueue:007", nullptr},
    {"enqueue:-0", nullptr},
    {"enqueue:2147483648", nullptr},
    {"enqueue:99999999999999999999", nullptr},
    {"enqueue:7\n\n", nullptr},
    {"enqueue:1\nenqueue:2\n", nullptr},
    {"requeue:7", nullptr},
    {"Enqueue:7", nullptr},
};

const RequestCase kCameraRequests[] = {
    {"enqueue:1:001:004:Canon_PowerShot_0123\n", "1:001:004:Canon_PowerShot_0123"},
    {"enqueue:2:1:4:x", "2:1:4:x"},
    {"enqueue:1:001:004:a:b:c\n", "1:001:004:a:b:c"},
    {"enqueue:1:001:004:-x y\n", "1:001:004:-x y"},
    {"enqueue:1:001:004:name\nand more", "1:001:004:name"},
    {"enqueue:1:001:004:\xc3\xa9\n", "1:001:004:\xc3\xa9"},
    {"enqueue:1:001:004:\n", nullptr},
    {"enqueue:1:001:004\n", nullptr},
    {"enqueue:1:001\n", nullptr},
    {"enqueue:7\n", nullptr},
    {"enqueue::001:004:x\n", nullptr},
    {"enqueue:-1:001:004:x\n", nullptr},
    {"enqueue:1:0x1:004:x\n", nullptr},
    {"enqueue:1:001:12345678:x\n", nullptr},
    {"enqueue:1:001:004:.\n", nullptr},
    {"enqueue:1:001:004:..\n", nullptr},
    {"enqueue:1:001:004:../etc\n", nullptr},
    {"enqueue:1:001:004:a\tb\n", nullptr},
    {"dequeue:1:001:004:x\n", nullptr},
    {"", nullptr},
};

void check(const QueueKind &kind, const RequestCase &test) {
    SCOPED_TRACE(test.text);
    const std::optional<Request> request = kind.parse(test.text);
    ASSERT_EQ(request.has_value(), test.task != nullptr);
    if (!request) return;
    EXPECT_EQ(request->task, test.task);
    EXPECT_EQ(request->enqueue, test.enqueue);
}

TEST(JobQueue, takes_job_numbers_alone) {
    for (const RequestCase &test : kJobRequests)
        check(job_queue(), test);
}

TEST(CameraQueue, takes_addresses_and_names) {
    for (const RequestCase &test : kCameraRequests)
        check(camera_queue(), test);
}

TEST(JobQueue, starts_the_worker_with_the_job) {
    EXPECT_THAT(job_queue().arguments("12"), ElementsAre("-e", "12"));
    EXPECT_EQ(job_queue().key("12"), "12");
}

TEST(CameraQueue, starts_the_worker_with_the_four_arguments) {
    EXPECT_THAT(camera_queue().arguments("1:001:004:a:b"), ElementsAre("-m", "1", "001", "004", "a:b"));
    EXPECT_EQ(camera_queue().key("1:001:004:a:b"), "a:b");
    EXPECT_THAT(camera_queue().tasks_of("1:001:004:a"), ElementsAre("1:001:004:a"));
}

class JobStates : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_APPLIANCE();
        remove_tree(paths::pid_file(7));
        remove_tree(paths::status_file(7));
        remove_tree(paths::status_file(0));
        remove_tree(paths::job_file);
    }
    void TearDown() override {
        if (in_appliance()) SetUp();
    }
    static std::string status(std::int32_t job_id = 7) { return read_file(paths::status_file(job_id)); }
    static void set_status(const std::string &state) {
        write_file(paths::status_file(7), "BACKUP_STATUS__" + state + "\n");
    }
};

TEST_F(JobStates, the_button_stands_for_its_jobs_and_the_summary_behind_them) {
    EXPECT_THAT(job_queue().tasks_of("0"), ElementsAre("0"));
    EXPECT_THAT(job_queue().tasks_of("3"), ElementsAre("3"));
    write_file(paths::job_file, "<r><backupButtonJobs><backupButtonJob>3</backupButtonJob><backupButtonJob/>"
                                "<backupButtonJob>-2</backupButtonJob><backupButtonJob>1</backupButtonJob>"
                                "</backupButtonJobs></r>");
    EXPECT_THAT(job_queue().tasks_of("0"), ElementsAre("3", "1", "0"));
    EXPECT_THAT(job_queue().tasks_of("3"), ElementsAre("3"));
}

TEST_F(JobStates, a_job_that_waits_shows_it) {
    job_queue().waits("7");
    EXPECT_THAT(status(), testing::MatchesRegex("BACKUP_STATUS__IN_QUEUE!![0-9]+!!OK\n"));
    // The summary's state is its own.
    job_queue().waits("0");
    EXPECT_EQ(status(0), "");
    // A job that somebody runs goes on showing that.
    set_status("IN_PROGRESS,0!!5!!OK");
    write_file(paths::pid_file(7), std::to_string(getpid()));
    job_queue().waits("7");
    EXPECT_THAT(status(), StartsWith("BACKUP_STATUS__IN_PROGRESS"));
}

TEST_F(JobStates, a_job_that_is_taken_out_does_not_seem_to_wait) {
    set_status("IN_QUEUE!!5!!OK");
    job_queue().taken_out("7");
    EXPECT_THAT(status(), testing::MatchesRegex("BACKUP_STATUS__CANCELLED!![0-9]+!!notice\n"));
    set_status("CANCELLED!!5!!notice");
    job_queue().taken_out("7");
    EXPECT_EQ(status(), "BACKUP_STATUS__CANCELLED!!5!!notice\n");
}

TEST_F(JobStates, a_canceller_that_has_begun_is_left_to_it) {
    set_status("CANCELLING!!5!!notice");
    EXPECT_FALSE(job_queue().must_hang_up("7"));
    set_status("CANCELLED!!5!!notice");
    EXPECT_TRUE(job_queue().must_hang_up("7"));
}

TEST_F(JobStates, no_ended_job_seems_to_wait_or_to_run) {
    const struct {
        const char *state;
        WorkerEnd end;
        const char *shown;
    } cases[] = {
        {"COMPLETED!!5!!OK", WorkerEnd::regular, "COMPLETED!!5!!OK"},
        {"FAILED!!5!!warn", WorkerEnd::regular, "FAILED!!5!!warn"},
        {"IN_QUEUE!!5!!OK", WorkerEnd::regular, "FAILED!!"},
        {"IN_QUEUE!!5!!OK", WorkerEnd::unknown, "FAILED!!"},
        {"IN_PROGRESS,1!!5!!OK", WorkerEnd::regular, "IN_PROGRESS,1!!5!!OK"}, // its canceller is at work
        {"IN_PROGRESS,1!!5!!OK", WorkerEnd::crashed, "FAILED!!"},
        {"IN_PROGRESS,1!!5!!OK", WorkerEnd::unknown, "FAILED!!"},
        {"WOL_WAKING!!5!!OK", WorkerEnd::crashed, "FAILED!!"},
        {"CANCELLING!!5!!notice", WorkerEnd::crashed, "CANCELLING!!5!!notice"},
        {"COMPLETED!!5!!OK", WorkerEnd::crashed, "COMPLETED!!5!!OK"},
        {"IN_PROGRESS,1!!5!!OK", WorkerEnd::dropped, "CANCELLED!!"},
    };
    for (const auto &[state, end, shown] : cases) {
        set_status(state);
        job_queue().ended("7", end);
        EXPECT_THAT(status(), StartsWith(std::string("BACKUP_STATUS__") + shown)) << state;
    }
    // A run by hand of the same job is none of the queue's business.
    set_status("IN_PROGRESS,1!!5!!OK");
    write_file(paths::pid_file(7), std::to_string(getpid()));
    job_queue().ended("7", WorkerEnd::crashed);
    EXPECT_EQ(status(), "BACKUP_STATUS__IN_PROGRESS,1!!5!!OK\n");
}

TEST_F(JobStates, a_claim_tells_that_a_worker_had_begun) {
    EXPECT_FALSE(job_queue().had_begun("7", 4711));
    write_file(paths::pid_file(7), "4711");
    EXPECT_TRUE(job_queue().had_begun("7", 4711));
    EXPECT_FALSE(job_queue().had_begun("7", 4712));
}

} // namespace
} // namespace tsbackup::test
