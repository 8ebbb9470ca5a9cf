#include "front_support.h"
#include "tsbackup.h"
#include "tsbackup/codes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tsbackup::test {
namespace {

using testing::HasSubstr;

constexpr char kHomeHelper[] = "/sbin/mkhomedir_helper";

BackupJob job_between(const JobText &src_type, const JobText &src_share, const JobText &dst_type,
                      const JobText &dst_share) {
    BackupJob job;
    job.job_id = 9;
    job.src_type = src_type;
    job.src_share_proto = src_share;
    job.src_share_vol = "no_volume";
    job.dst_type = dst_type;
    job.dst_share_proto = dst_share;
    job.dst_share_vol = "no_volume";
    return job;
}

struct Case {
    const char *name;
    BackupJob job;
    std::int32_t code;
    const char *message;
    const char *also_logged; ///< a message that stood in the record before the error's own
};

const char *const kNoShare = "Local share not exists\n";

const Case kRefused[] = {
    {"remote to remote", job_between("remote", "nfs", "remote", "nfs"), 4, "Destination is not a valid share",
     kNoShare},
    {"remote to nowhere", job_between("remote", "nfs", std::nullopt, std::nullopt), 4,
     "Destination is not a valid share", kNoShare},
    {"remote to a missing share", job_between("remote", "nfs", "share", "s"), 4, "Destination is not a valid share",
     kNoShare},
    {"capitals", job_between("remote", "RSYNC", "volume", "v"), 3, "Unknown protocol",
     "Unknown remote source protocol <RSYNC>\n"},
    {"no protocol", job_between("remote", std::nullopt, "volume", "v"), 3, "Unknown protocol",
     "Unknown remote source protocol <>\n"},
    {"empty protocol", job_between("remote", "", "usb", "v"), 3, "Unknown protocol",
     "Unknown remote source protocol <>\n"},
    {"to an unknown protocol", job_between("volume", "v", "remote", "gopher"), 4, "Unknown protocol",
     "Unknown remote destination protocol <gopher>\n"},
    {"http is a source only", job_between("timemachine", "v", "remote", "http"), 4, "Unknown protocol",
     "Unknown remote destination protocol <http>\n"},
    {"archives are a source only", job_between("usb", "v", "remote", "cifs-ab"), 4, "Unknown protocol",
     "Unknown remote destination protocol <cifs-ab>\n"},
    {"a bad source and an unknown protocol: the first error stays", job_between("share", "s", "remote", "gopher"), 3,
     "Source is not a valid share", kNoShare},
    {"local, both ends bad: the destination is looked at first", job_between("share", "s", "share", "s"), 4,
     "Destination is not a valid share", kNoShare},
    {"local, bad source", job_between("share", "s", "volume", "v"), 3, "Source is not a valid share", kNoShare},
    {"local, unknown kind of destination", job_between("volume", "v", "Share", "s"), 4,
     "Destination is not a valid share", kNoShare},
    {"local, unknown kind of source", job_between("floppy", "v", "volume", "s"), 3, "Source is not a valid share",
     kNoShare},
    {"capitals are no remote end", job_between("Remote", "nfs", "volume", "v"), 3, "Source is not a valid share",
     kNoShare},
    {"nothing at all", job_between(std::nullopt, std::nullopt, std::nullopt, std::nullopt), 4,
     "Destination is not a valid share", kNoShare},
};

TEST(Dispatch, refused_jobs_record_their_reason) {
    for (const Case &test : kRefused) {
        SCOPED_TRACE(test.name);
        const Diagnostics diagnostics;
        BackupRun run;
        run.job_id = 9;
        do_backup(&test.job, &run);
        EXPECT_EQ(run.error_code, test.code);
        EXPECT_EQ(run.error_message, test.message);
        EXPECT_THAT(diagnostics.text(), HasSubstr(test.also_logged));
    }
}

TEST(Dispatch, an_earlier_error_keeps_the_record) {
    BackupRun run;
    run.error_code = 2;
    run.error_message = "'/x' is not mounted";
    const BackupJob job = job_between("remote", "nfs", "remote", "nfs");
    do_backup(&job, &run);
    EXPECT_EQ(run.error_code, 2);
    EXPECT_EQ(run.error_message, "'/x' is not mounted");
}

TEST(Dispatch, two_local_ends_go_to_the_local_driver) {
    REQUIRE_APPLIANCE();
    BackupRun run;
    run.job_id = 9;
    const BackupJob job = job_between("volume", "no_such_volume", "volume", "v");
    do_backup(&job, &run);
    EXPECT_EQ(run.error_code, error_code::path_missing);
    EXPECT_EQ(run.error_message, "'/no_such_volume' not exists");
}

TEST(Dispatch, sources_that_are_fetched_go_to_their_drivers) {
    BackupRun archive;
    const BackupJob share = job_between("remote", "cifs-ab", "volume", "v");
    do_backup(&share, &archive);
    EXPECT_EQ(archive.error_code, error_code::source_setup);
    EXPECT_EQ(archive.error_message, "Mulformed path=\n"); // the mounted share's driver spells it otherwise

    BackupRun mirror;
    const BackupJob site = job_between("remote", "http", "usb", "usb_port_99");
    do_backup(&site, &mirror);
    EXPECT_EQ(mirror.error_code, error_code::invalid_destination);
    EXPECT_EQ(mirror.error_message, "No USB storage device at usb_port_99");
}

TEST(DispatchDeathTest, missing_records_stop_the_process) {
    BackupJob job;
    BackupRun run;
    EXPECT_DEATH(do_backup(nullptr, &run), "conf");
    EXPECT_DEATH(do_backup(&job, nullptr), "env");
}

TEST(LocalEndpoint, kinds_that_always_or_never_pass) {
    for (const char *type : {"timemachine", "usb", "volume"}) {
        const Diagnostics diagnostics;
        EXPECT_EQ(local_endpoint_check(type, nullptr, nullptr), 0) << type;
        EXPECT_EQ(local_endpoint_check(type, "none", "none"), 0) << type;
        EXPECT_EQ(diagnostics.text(), "");
    }
    for (const char *type : {"remote", "", "Share", "share ", "shar", "USB", "homes"}) {
        const Diagnostics diagnostics;
        EXPECT_EQ(local_endpoint_check(type, "s", "v"), -1) << type;
        EXPECT_EQ(diagnostics.text(), "");
    }
    EXPECT_EQ(local_endpoint_check(nullptr, "s", "v"), -1);
}

class ShareEndpoint : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_APPLIANCE();
        make_folder("/vol_test");
    }
    void TearDown() override {
        rmdir("/vol_test/share");
        unlink("/vol_test/share");
        rmdir("/vol_test");
    }
    static std::string check(const char *share, const char *volume) {
        const Diagnostics diagnostics;
        const int result = local_endpoint_check("share", share, volume);
        return std::to_string(result) + " " + diagnostics.without_places();
    }
};

TEST_F(ShareEndpoint, must_be_a_folder) {
    const std::string refusal = "-1 (error) Path /vol_test/share not exists or not a directory\n";
    EXPECT_EQ(check("share", "vol_test"), refusal);
    write_file("/vol_test/share", "a file");
    EXPECT_EQ(check("share", "vol_test"), refusal);
}

TEST_F(ShareEndpoint, names_that_are_missing_count_as_empty) {
    EXPECT_EQ(check(nullptr, "no_such_volume"), "-1 (error) Path /no_such_volume/ not exists or not a directory\n");
    EXPECT_EQ(check(nullptr, nullptr), "-1 (error) Path / not exists or the same device as //\n");
}

TEST_F(ShareEndpoint, must_not_be_a_mere_folder_of_its_volume) {
    const std::string refusal = "-1 (error) Path /vol_test not exists or the same device as /vol_test/share\n";
    make_folder("/vol_test/share");
    EXPECT_EQ(check("share", "vol_test"), refusal);

    const Mount volume("/vol_test");
    if (!volume) GTEST_SKIP() << "cannot mount";
    make_folder("/vol_test/share");
    EXPECT_EQ(check("share", "vol_test"), refusal);
    rmdir("/vol_test/share");
}

TEST_F(ShareEndpoint, passes_on_a_file_system_of_its_own) {
    const Mount share("/vol_test/share");
    if (!share) GTEST_SKIP() << "cannot mount";
    EXPECT_EQ(check("share", "vol_test"), "0 ");
}

TEST_F(ShareEndpoint, must_not_be_on_the_device_of_the_root) {
    const Mount volume("/vol_test");
    if (!volume) GTEST_SKIP() << "cannot mount";
    const TempFolder on_root;
    struct stat root {};
    struct stat folder {};
    ASSERT_EQ(stat("/", &root), 0);
    make_folder("/on_root");
    ASSERT_EQ(stat("/on_root", &folder), 0);
    ASSERT_EQ(root.st_dev, folder.st_dev);
    {
        const Mount share("/vol_test/share", "/on_root");
        EXPECT_EQ(check("share", "vol_test"), "-1 (error) Path /vol_test/share is on the same device as root\n");
    }
    remove_tree("/on_root");
}

TEST_F(ShareEndpoint, on_external_media_it_may_be_on_the_device_of_the_root) {
    make_folder("/media");
    const Mount media("/media");
    if (!media) GTEST_SKIP() << "cannot mount";
    make_folder("/on_root");
    {
        const Mount share("/media/disk", "/on_root");
        EXPECT_EQ(check("disk", "media"), "0 ");
    }
    EXPECT_EQ(check("disk", "media"), "-1 (error) Path /media not exists or the same device as /media/disk\n");
    EXPECT_EQ(check("other", "media"), "-1 (error) Path /media/other not exists or not a directory\n");
    remove_tree("/on_root");
}

TEST(HomeEndpoint, passes_always_and_has_a_missing_home_made) {
    REQUIRE_APPLIANCE();
    if (!file_exists(kHomeHelper)) GTEST_SKIP() << "no mkhomedir_helper on this machine";
    const TempFolder folder;
    write_file(folder / "helper", "#!/bin/sh\necho \"$#:$*\" >>" + (folder / "calls") + "\nexit 3\n", 0755);
    const Mount helper(kHomeHelper, folder / "helper");
    if (!helper) GTEST_SKIP() << "cannot mount";
    make_folder("/home/present");

    struct HomeCase {
        const char *user;
        const char *logged;
        std::string calls;
    };
    const HomeCase cases[] = {
        {"present", "", ""},
        {"*", "", ""},
        {"*all", "", ""},
        {"", "", ""},
        {nullptr, "", ""},
        {"absent", "(error) path = /home/absent does not exist!!!!\n", "1:absent\n"},
        {"two words;id", "(error) path = /home/two words;id does not exist!!!!\n", "1:two words;id\n"},
    };
    for (const HomeCase &test : cases) {
        SCOPED_TRACE(test.user != nullptr ? test.user : "(none)");
        const Diagnostics diagnostics;
        EXPECT_EQ(local_endpoint_check("home", test.user, nullptr), 0);
        EXPECT_EQ(diagnostics.without_places(), test.logged);
        EXPECT_EQ(read_file(folder / "calls"), test.calls);
        remove_tree(folder / "calls");
    }
    remove_tree("/home/present");
}

} // namespace
} // namespace tsbackup::test
