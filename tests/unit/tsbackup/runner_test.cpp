#include "front_support.h"
#include "tsbackup.h"
#include "tsbackup/paths.h"
#include "tsbackup_utils.h"
#include "zelkova.h"

#include <ctime>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

std::vector<std::string> woken;
int wake_result = 0;

} // namespace

// Takes the place of the platform library's function in this program: no packet leaves the machine.
extern "C" int send_wol_packet(const char *hardware_address) {
    woken.emplace_back(hardware_address);
    return wake_result;
}

namespace tsbackup::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

constexpr std::int32_t kJob = 7;

std::string result_event(const std::string &name, int status, int email, int by_button) {
    return "backup\nzelkovad\n0 0\n<xs:add-s resource-type=\"Backup\"><backup job-id=\"7\" job-name=\"" + name +
           "\" status=\"" + std::to_string(status) + "\" email=\"" + std::to_string(email) + "\" by-button=\"" +
           std::to_string(by_button) + "\"/></xs:add-s>";
}

std::string summary_event(int status) {
    return "backup\nzelkovad\n0 0\n<xs:add-s resource-type=\"Backup\"><backup job-id=\"0\" job-name=\"button\" "
           "status=\"" +
           std::to_string(status) + "\" email=\"0\" by-button=\"1\"/></xs:add-s>";
}

class Runner : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_APPLIANCE();
        make_system_folders();
        clear();
    }
    void TearDown() override {
        if (in_appliance()) clear();
    }

    static void clear() {
        for (const std::int32_t job_id : {0, 1, 2, 3, kJob}) {
            for (const std::string &path :
                 {paths::pid_file(job_id), paths::status_file(job_id), paths::history(job_id), paths::copy_log(job_id),
                  paths::error_log(job_id), paths::last_full_record(job_id)})
                remove_tree(path);
            purge_copy_logs(job_id, "");
        }
        remove_tree(paths::job_file);
        remove_tree("/etc/tessera/sysinfo");
    }

    static std::string status(std::int32_t job_id = kJob) { return read_file(paths::status_file(job_id)); }

    /// A job whose destination is no share, so that it fails at its first check.
    static std::string failing(const std::string &more = "") {
        return job_element(kJob, "<name>A &lt; B</name><src_type>volume</src_type><dst_type>nowhere</dst_type>"
                                 "<opt_full_backup_freq>EVERY_TIME</opt_full_backup_freq>" +
                                     more);
    }
};

TEST_F(Runner, an_unknown_job_is_logged_and_leaves_nothing_behind) {
    write_job_file(job_element(8, ""));
    EventReceiver events;
    const Diagnostics diagnostics;
    EXPECT_EQ(job_run(kJob, 0), -1);
    EXPECT_EQ(diagnostics.without_places(), "(error) Job_id 7 is not found\n");
    EXPECT_THAT(events.received(), IsEmpty());
    EXPECT_FALSE(file_exists(paths::status_file(kJob)));
    EXPECT_FALSE(file_exists(paths::error_log(kJob)));
}

TEST_F(Runner, negative_job_ids_are_refused) {
    const Diagnostics diagnostics;
    job_entry(-3);
    EXPECT_EQ(diagnostics.without_places(), "(error) Invalid job_id -3\n");
}

TEST_F(Runner, a_failed_run_has_its_history_its_event_and_its_status) {
    write_job_file(failing("<opt_email_this_to_alert_email>1</opt_email_this_to_alert_email>"));
    EventReceiver events;
    const Diagnostics diagnostics;
    EXPECT_EQ(job_run(kJob, 1), 4);
    EXPECT_THAT(events.received(), ElementsAre(result_event("A &lt; B", 4, 1, 1)));
    EXPECT_THAT(status(), StartsWith("BACKUP_STATUS__FAILED!!"));
    EXPECT_THAT(read_file(paths::history(kJob)), StartsWith("name: A < B\nfull: yes\nproto: local\n"));
    EXPECT_THAT(read_file(paths::history(kJob)), HasSubstr("\nstatus: 4\n"));
    EXPECT_TRUE(file_exists(paths::last_full_record(kJob)));
    EXPECT_TRUE(file_exists(paths::error_log(kJob)));
    EXPECT_FALSE(file_exists(paths::copy_log(kJob)));

    const std::string lines = diagnostics.text();
    const std::size_t in_progress = lines.find("BACKUP_STATUS__IN_PROGRESS,1!!");
    ASSERT_NE(in_progress, std::string::npos);
    EXPECT_LT(in_progress, lines.find("Destination is not a valid share"));
    EXPECT_LT(lines.find("Destination is not a valid share"), lines.find("BACKUP_STATUS__FAILED!!"));
}

TEST_F(Runner, settings_that_are_missing_count_as_empty) {
    write_job_file(job_element(kJob, ""));
    EventReceiver events;
    EXPECT_EQ(job_run(kJob, 0), 4);
    EXPECT_THAT(events.received(), ElementsAre(result_event("", 4, 0, 0)));
}

TEST_F(Runner, the_entry_claims_the_job_and_leaves_the_claim) {
    write_job_file(failing());
    const EventReceiver events;
    job_entry(kJob);
    EXPECT_EQ(read_file(paths::pid_file(kJob)), std::to_string(getpgrp()));
    EXPECT_THAT(status(), StartsWith("BACKUP_STATUS__FAILED!!"));
}

TEST_F(Runner, a_job_that_runs_already_is_not_started) {
    write_job_file(failing());
    const GroupLeader holder([] { return pause(); });
    write_file(paths::pid_file(kJob), std::to_string(holder.pid()));
    const Diagnostics diagnostics(5);
    job_entry(kJob);
    EXPECT_EQ(diagnostics.without_places(), "(error) Cannot write pidfile for job_id=7. May be already running.\n");
    EXPECT_FALSE(file_exists(paths::status_file(kJob)));
}

TEST_F(Runner, logs_that_cannot_be_created_end_the_run_before_it_begins) {
    struct Case {
        std::string path;
        std::string line;
    };
    const Case cases[] = {
        {paths::copy_log(kJob), "(error) Failed to create copy log file /apps/.backup/backup_007_copy.log!\n"},
        {paths::error_log(kJob),
         "(error) Failed to create error log file /var/log/tessera/backup/backup_007_error.log!\n"},
    };
    write_job_file(failing());
    for (const Case &test : cases) {
        make_folder(test.path);
        EventReceiver events;
        const std::size_t descriptors = list_folder("/proc/self/fd").size();
        const Diagnostics diagnostics;
        EXPECT_EQ(job_run(kJob, 0), -1);
        EXPECT_EQ(diagnostics.without_places(), test.line);
        EXPECT_THAT(events.received(), IsEmpty());
        EXPECT_FALSE(file_exists(paths::status_file(kJob)));
        EXPECT_EQ(list_folder("/proc/self/fd").size(), descriptors);
        remove_tree(test.path);
    }
}

TEST_F(Runner, a_run_starts_with_fresh_logs_and_leaves_no_descriptor_open) {
    write_job_file(failing());
    write_file(paths::error_log(kJob), "of an earlier run\n");
    write_file(paths::copy_log(kJob), "of a run that was cut short\n");
    const EventReceiver events;
    const std::size_t descriptors = list_folder("/proc/self/fd").size();
    job_run(kJob, 0);
    EXPECT_EQ(list_folder("/proc/self/fd").size(), descriptors);
    EXPECT_EQ(read_file(paths::error_log(kJob)), "");
    for (const std::string &name : list_folder(paths::log_folder))
        EXPECT_THAT(read_file(std::string(paths::log_folder) + "/" + name), Not(HasSubstr("cut short"))) << name;
}

TEST_F(Runner, a_machine_is_woken_and_waited_for_as_the_job_says) {
    struct Case {
        const char *settings;
        int result; ///< of sending the packet
        std::vector<std::string> woken;
        std::vector<unsigned> waits;
        const char *logged;
    };
    const std::string address = "<wol_addr>00:11:22:33:44:55</wol_addr>";
    const std::vector<std::string> sent = {"00:11:22:33:44:55"};
    const std::string settings[] = {
        address,
        address + "<time_to_wait/>",
        address + "<time_to_wait>0</time_to_wait>",
        address + "<time_to_wait>-5</time_to_wait>",
        address + "<time_to_wait>soon</time_to_wait>",
        address + "<time_to_wait>5</time_to_wait>",
        address + "<time_to_wait>1x</time_to_wait>",
    };
    const char *const rc_0 = "(error) Fail to send WOL packet. (rc:0)\n";
    const Case cases[] = {
        {"", 0, {}, {}, ""},
        {"<wol_addr/>", 0, {}, {}, ""},
        {"<wol_addr/><time_to_wait>5</time_to_wait>", 0, {}, {}, ""},
        {"<time_to_wait>5</time_to_wait>", 0, {}, {}, ""},
        {settings[0].c_str(), 0, sent, {}, rc_0},
        {settings[1].c_str(), 0, sent, {}, rc_0},
        {settings[2].c_str(), 0, sent, {}, rc_0},
        {settings[3].c_str(), 0, sent, {}, rc_0},
        {settings[4].c_str(), 0, sent, {}, rc_0},
        {settings[5].c_str(), -1, sent, {}, "(error) Fail to send WOL packet. (rc:-1)\n"},
        {settings[5].c_str(), 3, sent, {}, "(error) Fail to send WOL packet. (rc:3)\n"},
        {settings[5].c_str(), 0, sent, {300}, ""},
        {settings[6].c_str(), 0, sent, {60}, ""},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(test.settings);
        clear();
        write_job_file(failing(test.settings));
        woken.clear();
        wake_result = test.result;
        const EventReceiver events;
        const Waits waits;
        std::string status_while_waiting;
        Waits::on_next([&] { status_while_waiting = status(); });
        const Diagnostics diagnostics(3);
        EXPECT_EQ(job_run(kJob, 0), 4);
        EXPECT_EQ(woken, test.woken);
        EXPECT_EQ(waits.seconds(), test.waits);
        EXPECT_THAT(status_while_waiting, StartsWith(test.waits.empty() ? "" : "BACKUP_STATUS__WOL_WAKING!!"));
        EXPECT_EQ(diagnostics.without_places(), test.logged);
    }
}

TEST_F(Runner, the_ownership_setting_counts_only_as_exactly_one_and_for_a_local_destination) {
    struct Case {
        const char *settings;
        bool resolved; ///< the destination is resolved ahead of the transfer, which fails and says so
    };
    const Case cases[] = {
        {"<opt_chown_to_share_owner>1</opt_chown_to_share_owner>", true},
        {"<opt_chown_to_share_owner>11</opt_chown_to_share_owner>", false},
        {"<opt_chown_to_share_owner>1 </opt_chown_to_share_owner>", false},
        {"<opt_chown_to_share_owner>0</opt_chown_to_share_owner>", false},
        {"<opt_chown_to_share_owner/>", false},
        {"", false},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(test.settings);
        clear();
        write_job_file(failing(test.settings));
        EventReceiver events;
        job_run(kJob, 0);
        EXPECT_THAT(events.received(), ElementsAre(result_event("A &lt; B", test.resolved ? 2 : 4, 0, 0)));
    }
    write_job_file(job_element(kJob, "<name>r</name><src_type>volume</src_type><dst_type>remote</dst_type>"
                                     "<opt_chown_to_share_owner>1</opt_chown_to_share_owner>"));
    EventReceiver events;
    EXPECT_EQ(job_run(kJob, 0), 4);
}

TEST_F(Runner, the_summary_of_the_button_jobs_follows_their_status_files) {
    struct Case {
        const char *name;
        std::vector<std::string> states; ///< of the jobs 1, 2, 3; empty: no file
        int result;
    };
    const std::string completed = "BACKUP_STATUS__COMPLETED!!1!!OK\n";
    const std::string failed = "BACKUP_STATUS__FAILED!!1!!warn\n";
    const Case cases[] = {
        {"all completed", {completed, completed, completed}, 0},
        {"second failed", {completed, failed, completed}, 1},
        {"third failed, first unknown", {"", completed, failed}, 1},
        {"none has run", {"", "", ""}, 0},
        {"cancelled is not failed", {"BACKUP_STATUS__CANCELLED!!1!!notice\n", completed, completed}, 0},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(test.name);
        clear();
        write_job_file("<backupButtonJobs><backupButtonJob>1</backupButtonJob><backupButtonJob>2</backupButtonJob>"
                       "<backupButtonJob>3</backupButtonJob></backupButtonJobs>");
        for (std::int32_t job_id = 1; job_id <= 3; ++job_id) {
            const std::string &state = test.states[static_cast<std::size_t>(job_id) - 1];
            if (!state.empty()) write_file(paths::status_file(job_id), state);
        }
        EventReceiver events;
        const Diagnostics diagnostics;
        job_entry(0);
        EXPECT_THAT(events.received(), ElementsAre(summary_event(test.result)));
        EXPECT_THAT(status(0), StartsWith(test.result != 0 ? "BACKUP_STATUS__FAILED!!" : "BACKUP_STATUS__COMPLETED!!"));
        EXPECT_THAT(diagnostics.text(), HasSubstr("status_backup_000,BACKUP_STATUS__IN_PROGRESS,0!!"));
        EXPECT_FALSE(file_exists(paths::history(0)));
    }
}

TEST_F(Runner, without_button_jobs_nothing_is_summed_up) {
    for (const char *hardware : {"HARDWARE_TYPE=22\n", ""}) {
        clear();
        write_job_file(job_element(1, "") + "<backupButtonJobs/>");
        write_file("/etc/tessera/sysinfo", hardware);
        EventReceiver events;
        const Diagnostics diagnostics;
        job_entry(0);
        EXPECT_THAT(events.received(), IsEmpty());
        EXPECT_FALSE(file_exists(paths::status_file(0)));
        EXPECT_EQ(diagnostics.text(), "");
    }
}

} // namespace
} // namespace tsbackup::test
