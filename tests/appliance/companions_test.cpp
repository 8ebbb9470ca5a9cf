// What the status and the check of the job file say about real jobs.

#include "appliance_support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tsbackup::test {
namespace {

using testing::AllOf;
using testing::HasSubstr;

constexpr char kPrograms[] = "/opt/tsbackup/sbin/";

Outcome companion(const std::string &name, const std::vector<std::string> &arguments) {
    ProgramOptions options;
    options.program = kPrograms + name;
    return run_program(arguments, options);
}

Settings with_needed_options(const Settings &settings) {
    return settings +
           Settings{{"name", "Pictures"}, {"opt_full_backup_freq", "NEVER"}, {"opt_email_this_to_alert_email", "0"}};
}

class Companions : public testing::Test {
  protected:
    void SetUp() override {
        if (!file_exists(kPrograms + std::string("tsbackup-status"))) GTEST_SKIP() << "built without the companions";
        reset_appliance();
        make_tree("/data/Pictures");
        JobFile()
            .job(7, with_needed_options(source_share("data", "Pictures") + destination_usb("1", "copy")))
            .job(8, with_needed_options(source_share("data", "Pictures", "missing") + destination_usb("1", "copy")))
            .button_jobs({7})
            .write();
    }
};

TEST_F(Companions, TheCheckAcceptsJobsThatRun) {
    const Outcome outcome = companion("tsbackup-check", {});
    EXPECT_EQ(outcome.status, 0) << outcome.out;
}

TEST_F(Companions, TheStatusTellsHowRunsEnded) {
    REQUIRE_VOLUMES();
    EXPECT_THAT(companion("tsbackup-status", {}).out, HasSubstr("never run"));
    ASSERT_EQ(run_program({"-e", "7"}).status, 0);
    ASSERT_EQ(run_program({"-e", "8"}).status, 0);

    const Outcome table = companion("tsbackup-status", {});
    EXPECT_EQ(table.status, 0) << table.err;
    EXPECT_THAT(table.out, HasSubstr("failed"));
    EXPECT_THAT(table.out, HasSubstr("path does not exist"));
    EXPECT_THAT(companion("tsbackup-status", {"7"}).out,
                AllOf(HasSubstr("state        completed, since "), HasSubstr("incremental  local     completed\n")));
    EXPECT_THAT(companion("tsbackup-status", {"8", "--json"}).out,
                AllOf(HasSubstr("\"state\": \"failed\""), HasSubstr("\"status\": 5,"), HasSubstr("does not exist!\"")));
}

} // namespace
} // namespace tsbackup::test
