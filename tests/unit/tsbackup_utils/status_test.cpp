#include "tsbackup_utils.h"

#include "support.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <limits>

using namespace tsbackup;
using namespace tsbackup::test;

namespace {

const std::string kFolder = "/var/log/tessera/backup/";

class Status : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_APPLIANCE();
        remove_tree(kFolder);
        make_folder(kFolder);
    }
};

struct JobCase {
    const char *name;
    std::int32_t job_id;
    BackupStatusCode code;
    std::uint32_t timestamp;
    std::int32_t full;
    const char *file;
    const char *line;
};

const JobCase kJobCases[] = {
    {"full run in progress", 7, BackupStatusCode::in_progress, 1700000000, 1, "status_backup_007",
     "BACKUP_STATUS__IN_PROGRESS,1!!1700000000!!OK"},
    {"incremental run in progress", 7, BackupStatusCode::in_progress, 1700000000, 0, "status_backup_007",
     "BACKUP_STATUS__IN_PROGRESS,0!!1700000000!!OK"},
    {"undecided run in progress", 7, BackupStatusCode::in_progress, 1700000000, -1, "status_backup_007",
     "BACKUP_STATUS__IN_PROGRESS,-1!!1700000000!!OK"},
    {"in queue", 1, BackupStatusCode::in_queue, 5, 1, "status_backup_001", "BACKUP_STATUS__IN_QUEUE!!5!!OK"},
    {"failed", 12, BackupStatusCode::failed, 6, 1, "status_backup_012", "BACKUP_STATUS__FAILED!!6!!warn"},
    {"cancelling", 123, BackupStatusCode::cancelling, 7, 1, "status_backup_123",
     "BACKUP_STATUS__CANCELLING!!7!!notice"},
    {"cancelled", 7, BackupStatusCode::cancelled, 8, 1, "status_backup_007", "BACKUP_STATUS__CANCELLED!!8!!notice"},
    {"completed", 7, BackupStatusCode::completed, 9, 1, "status_backup_007", "BACKUP_STATUS__COMPLETED!!9!!OK"},
    {"waking", 7, BackupStatusCode::wol_waking, 10, 1, "status_backup_007", "BACKUP_STATUS__WOL_WAKING!!10!!OK"},
    {"the button jobs", 0, BackupStatusCode::completed, 11, 0, "status_backup_000", "BACKUP_STATUS__COMPLETED!!11!!OK"},
    {"a job number of four digits", 1234, BackupStatusCode::completed, 12, 0, "status_backup_1234",
     "BACKUP_STATUS__COMPLETED!!12!!OK"},
    {"a time beyond 31 bits", 7, BackupStatusCode::completed, 0xffffffff, 0, "status_backup_007",
     "BACKUP_STATUS__COMPLETED!!-1!!OK"},
};

TEST_F(Status, EveryStateOfAJobHasItsLine) {
    for (const JobCase &c : kJobCases) {
        SCOPED_TRACE(c.name);
        const std::string path = kFolder + c.file;
        write_file(path, std::string(2000, 'x'));
        const Diagnostics diagnostics;
        backup_status_write(c.job_id, c.code, c.timestamp, c.full);
        EXPECT_EQ(read_file(path), std::string(c.line) + "\n");
        EXPECT_EQ(diagnostics.without_places(), "(debug) write(" + path + "," + c.line + ")\n");
        EXPECT_EQ(backup_status_read(c.job_id), c.line);
    }
}

TEST_F(Status, TheTraceIsADebugMessage) {
    const Diagnostics diagnostics(6);
    backup_status_write(7, BackupStatusCode::completed, 1, 0);
    EXPECT_EQ(diagnostics.text(), "");
    EXPECT_EQ(list_folder(kFolder), std::vector<std::string>{"status_backup_007"});
}

TEST_F(Status, AFileThatCannotBeOpenedIsSkippedButTraced) {
    make_folder(kFolder + "status_backup_007");
    const Diagnostics diagnostics;
    backup_status_write(7, BackupStatusCode::failed, 1, 0);
    EXPECT_EQ(diagnostics.without_places(),
              "(debug) write(" + kFolder + "status_backup_007,BACKUP_STATUS__FAILED!!1!!warn)\n");
}

TEST_F(Status, ACodeWithoutALineWritesNothing) {
    write_file(kFolder + "status_backup_007", "as it was\n");
    const Diagnostics diagnostics;
    backup_status_write(7, static_cast<BackupStatusCode>(7), 1, 0);
    mtpbackup_status_write("cam", static_cast<MtpBackupStatusCode>(5), 1, {});
    EXPECT_EQ(read_file(kFolder + "status_backup_007"), "as it was\n");
    EXPECT_EQ(list_folder(kFolder), std::vector<std::string>{"status_backup_007"});
    EXPECT_EQ(diagnostics.text(), "");
}

TEST_F(Status, ReadingGivesTheFirstLineWithoutTrailingWhiteSpace) {
    const struct {
        const char *name;
        std::string content;
        std::optional<std::string> expected;
    } cases[] = {
        {"one line", "BACKUP_STATUS__FAILED!!1!!warn\n", "BACKUP_STATUS__FAILED!!1!!warn"},
        {"no newline", "BACKUP_STATUS__FAILED!!1!!warn", "BACKUP_STATUS__FAILED!!1!!warn"},
        {"a progress line behind it", "BACKUP_STATUS__IN_PROGRESS,1!!5!!OK\n1!!2!!3\n",
         "BACKUP_STATUS__IN_PROGRESS,1!!5!!OK"},
        {"blanks at the end", "state \t\r\n", "state"},
        {"empty", "", std::nullopt},
        {"1023 characters", std::string(1023, 'a') + "\n", std::string(1023, 'a')},
        {"longer than 1023 characters", std::string(1500, 'a') + "\n", std::string(1023, 'a')},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        write_file(kFolder + "status_backup_007", c.content);
        EXPECT_EQ(backup_status_read(7), c.expected);
    }
    EXPECT_EQ(backup_status_read(8), std::nullopt) << "a missing file";
}

TEST_F(Status, EveryStateOfACameraImportHasItsLine) {
    const std::uint64_t most = std::numeric_limits<std::uint64_t>::max();
    const MtpBackupStatistics none;
    const MtpBackupStatistics some{1000, 250, 4, 1, 1234.5};
    const MtpBackupStatistics all{most, most, most, most, 0.0000004};
    const struct {
        const char *name;
        MtpBackupStatusCode code;
        std::int32_t timestamp;
        MtpBackupStatistics statistics;
        const char *content;
    } cases[] = {
        {"copying", MtpBackupStatusCode::active_copying, 1700000000, some,
         "MBACKUP_STATUS__ACTIVE_COPYING!!1700000000!!OK!!1000!!250!!4!!1!!1234.500000\n"},
        {"removing", MtpBackupStatusCode::active_removing, 2, some,
         "MBACKUP_STATUS__ACTIVE_REMOVING!!2!!OK!!1000!!250!!4!!1!!1234.500000\n"},
        {"failed", MtpBackupStatusCode::failed, 3, none, "MBACKUP_STATUS__FAILED!!3!!warn!!0!!0!!0!!0!!0.000000\n"},
        {"partly completed", MtpBackupStatusCode::partly_completed, 4, some,
         "MBACKUP_STATUS__PARTLY_COMPLETED!!4!!notice!!1000!!250!!4!!1!!1234.500000\n"},
        {"completed, the largest numbers", MtpBackupStatusCode::completed, -5, all,
         "MBACKUP_STATUS__COMPLETED!!-5!!OK!!18446744073709551615!!18446744073709551615!!18446744073709551615!!"
         "18446744073709551615!!0.000000\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const std::string path = kFolder + "status_mtpbackup_Canon_IXUS_1";
        write_file(path, std::string(2000, 'x'));
        const Diagnostics diagnostics;
        mtpbackup_status_write("Canon_IXUS_1", c.code, c.timestamp, c.statistics);
        EXPECT_EQ(read_file(path), c.content);
        EXPECT_EQ(diagnostics.text(), "");
    }
}

TEST_F(Status, ACameraFileThatCannotBeOpenedIsLogged) {
    make_folder(kFolder + "status_mtpbackup_cam");
    const Diagnostics diagnostics(3);
    mtpbackup_status_write("cam", MtpBackupStatusCode::failed, 1, {});
    EXPECT_EQ(diagnostics.without_places(), "(error) Can't open " + kFolder + "status_mtpbackup_cam ?\n");
}

TEST(StatusLine, EveryLineThatIsWrittenIsReadBack) {
    for (const JobCase &c : kJobCases) {
        SCOPED_TRACE(c.name);
        const std::optional<BackupStatus> status = backup_status_parse(c.line);
        ASSERT_TRUE(status);
        EXPECT_EQ(status->code, c.code);
        EXPECT_EQ(status->timestamp, static_cast<std::int32_t>(c.timestamp));
        EXPECT_EQ(status->full, c.code == BackupStatusCode::in_progress ? c.full : 0);
    }
}

TEST(StatusLine, AnythingElseIsNotRead) {
    for (const char *line : {"",
                             "BACKUP_STATUS__",
                             "BACKUP_STATUS__FAILED",
                             "BACKUP_STATUS__FAILED!!5",
                             "BACKUP_STATUS__FAILED!!5!!OK",
                             "BACKUP_STATUS__FAILED!!5!!warn!!",
                             "BACKUP_STATUS__FAILED!!!!warn",
                             "BACKUP_STATUS__FAILED!!5x!!warn",
                             "BACKUP_STATUS__FAILED!! 5!!warn",
                             "BACKUP_STATUS__FAILED!!99999999999!!warn",
                             "backup_status__failed!!5!!warn",
                             "BACKUP_STATUS__FAILED,!!5!!warn",
                             "BACKUP_STATUS__FAILED,1!!5!!warn",
                             "BACKUP_STATUS__IN_PROGRESS!!5!!OK",
                             "BACKUP_STATUS__IN_PROGRESS,!!5!!OK",
                             "BACKUP_STATUS__IN_PROGRESS,1,1!!5!!OK",
                             "BACKUP_STATUS__IN_PROGRESS,x!!5!!OK",
                             "MBACKUP_STATUS__FAILED!!5!!warn",
                             "!!!!",
                             "!!!!!!!!!!!!!!"})
        EXPECT_FALSE(backup_status_parse(line)) << line;
    EXPECT_FALSE(backup_status_parse(std::string("BACKUP_STATUS__FAILED\0!!5!!warn", 31)));
}

TEST(StatusLine, ACamerasLineIsReadBack) {
    const auto status = mtpbackup_status_parse(
        "MBACKUP_STATUS__PARTLY_COMPLETED!!-4!!notice!!1000!!18446744073709551615!!4!!1!!1234.500000");
    ASSERT_TRUE(status);
    EXPECT_EQ(status->code, MtpBackupStatusCode::partly_completed);
    EXPECT_EQ(status->timestamp, -4);
    EXPECT_EQ(status->statistics.total_bytes, 1000U);
    EXPECT_EQ(status->statistics.copied_bytes, std::numeric_limits<std::uint64_t>::max());
    EXPECT_EQ(status->statistics.total_files, 4U);
    EXPECT_EQ(status->statistics.copied_files, 1U);
    EXPECT_EQ(status->statistics.rate, 1234.5);
    for (const char *line :
         {"", "MBACKUP_STATUS__FAILED!!3!!warn!!0!!0!!0!!0", "MBACKUP_STATUS__FAILED!!3!!OK!!0!!0!!0!!0!!0.0",
          "MBACKUP_STATUS__FAILED!!3!!warn!!-1!!0!!0!!0!!0.0", "BACKUP_STATUS__FAILED!!3!!warn!!0!!0!!0!!0!!0.0",
          "MBACKUP_STATUS__FAILED!!3!!warn!!0!!0!!0!!0!!0.0!!"})
        EXPECT_FALSE(mtpbackup_status_parse(line)) << line;
}

} // namespace
