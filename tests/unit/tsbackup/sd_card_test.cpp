#include "sd_card.h"

#include "front_support.h"
#include "tsbackup.h"
#include "tsbackup/paths.h"
#include "tsbackup_utils.h"

#include <chrono>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <thread>

namespace tsbackup::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;

const std::string kPrefix =
    "backup\nzelkovad\n0 0\n<xs:add-s resource-type=\"Backup\"><backup job-id=\"0\" job-name=\"";
const std::string kNoTargetEvent = kPrefix + "SD_to_\" status=\"4\" email=\"0\" by-button=\"1\"/></xs:add-s>";

std::string summary_event(int status) {
    return kPrefix + "button\" status=\"" + std::to_string(status) + "\" email=\"0\" by-button=\"1\"/></xs:add-s>";
}

std::string copy_event(const std::string &escaped_name, int status) {
    return kPrefix + escaped_name + "\" status=\"" + std::to_string(status) +
           "\" email=\"0\" by-button=\"1\"/></xs:add-s>";
}

// --- the table of USB storage ---

struct CardCase {
    const char *name;
    std::string line;
    std::optional<std::string> card;
};

const CardCase kCardCases[] = {
    {"an enabled card", "sd!!CARD!!SDCARD_1!!vfat!!1!!sdb1!!0!!rw!!3!!ok\n", "CARD"},
    {"the mark in any field", "SDCARD_x!!CARD!!l!!vfat!!1!!sdb1\n", "CARD"},
    {"the mark across the name", "sd!!SDCARD_HOLIDAY!!l!!vfat!!1!!x\n", "SDCARD_HOLIDAY"},
    {"the mark behind the switch", "sd!!CARD!!l!!vfat!!1!!SDCARD_\n", "CARD"},
    {"blanks in the name", "sd!!MY CARD!!SDCARD_!!vfat!!1!!x\n", "MY CARD"},
    {"the switch ends the last line of the file", "sd!!CARD!!SDCARD_!!vfat!!1", "CARD"},
    {"empty fields count", "!!CARD!!!!SDCARD_!!1!!\n", "CARD"},
    {"no mark", "usb!!USB!!Disk!!ext4!!1!!sdq1\n", std::nullopt},
    {"the mark in small letters", "sd!!CARD!!sdcard_1!!vfat!!1!!x\n", std::nullopt},
    {"switched off", "sd!!CARD!!SDCARD_!!vfat!!0!!x\n", std::nullopt},
    {"more than a one", "sd!!CARD!!SDCARD_!!vfat!!11!!x\n", std::nullopt},
    {"a one and a blank", "sd!!CARD!!SDCARD_!!vfat!!1 !!x\n", std::nullopt},
    {"no switch at all", "sd!!CARD!!SDCARD_!!vfat\n", std::nullopt},
    {"an empty switch", "sd!!CARD!!SDCARD_!!vfat!!!!x\n", std::nullopt},
    {"the switch holds the line's end", "sd!!CARD!!SDCARD_!!vfat!!1\n", std::nullopt},
    {"nothing but the mark", "SDCARD_", std::nullopt},
    {"an empty line", "\n", std::nullopt},
    {"a name that leads out of the media folder", "sd!!..!!SDCARD_!!vfat!!1!!x\n", std::nullopt},
    {"a name that is the media folder", "sd!!.!!SDCARD_!!vfat!!1!!x\n", std::nullopt},
    {"a name that is a path", "sd!!../data/Pictures!!SDCARD_!!vfat!!1!!x\n", std::nullopt},
};

TEST(SdCard, cards_are_told_by_the_mark_and_the_switch) {
    for (const CardCase &test : kCardCases)
        EXPECT_EQ(sd_card_in(test.line), test.card) << test.name;
}

// --- the media server's configuration ---

struct TargetCase {
    const char *name;
    std::string line;
    const char *volume; ///< null: no target
    const char *share;
};

const TargetCase kTargetCases[] = {
    {"pictures alone", "media_dir=P,/data/Pictures\n", "data", "Pictures"},
    {"all media", "media_dir=/data/Music\n", "data", "Music"},
    {"no line end", "media_dir=/data/Music", "data", "Music"},
    {"further folders", "media_dir=V,/data/Music/films/new\n", "data", "Music"},
    {"runs of slashes", "media_dir=P,///data//Music///\n", "data", "Music"},
    {"blanks in the share", "media_dir=P,/data/My Music\n", "data", "My Music"},
    {"anywhere in the line", "#x media_dir=P,/data/Music\n", "data", "Music"},
    {"cut at the first slash of the line", "x/y/media_dir=P,/data/Music\n", "y", "media_dir=P,"},
    {"a slash in front of it", "/a/b media_dir=\n", "a", "b media_dir="},
    {"no slash", "media_dir=data\n", nullptr, nullptr},
    {"the volume alone", "media_dir=P,/data\n", nullptr, nullptr},
    {"the volume and a slash", "media_dir=P,/data/\n", nullptr, nullptr},
    {"the volume and a slash at the file's end", "media_dir=P,/data/", nullptr, nullptr},
    {"nothing", "media_dir=\n", nullptr, nullptr},
    {"slashes alone", "media_dir=///\n", nullptr, nullptr},
    {"another setting", "db_dir=/data/Music\n", nullptr, nullptr},
    {"capital letters", "MEDIA_DIR=/data/Music\n", nullptr, nullptr},
    {"a blank before the sign", "media_dir =/data/Music\n", nullptr, nullptr},
};

TEST(SdCard, the_target_is_the_share_of_a_media_folder) {
    for (const TargetCase &test : kTargetCases) {
        SCOPED_TRACE(test.name);
        const std::optional<MediaShare> target = media_share_in(test.line);
        ASSERT_EQ(target.has_value(), test.volume != nullptr);
        if (!target) continue;
        EXPECT_EQ(target->volume, test.volume);
        EXPECT_EQ(target->share, test.share);
    }
}

TEST(SdCard, the_job_has_these_settings) {
    struct Setting {
        const char *name;
        JobText BackupJob::*text;
        JobText value;
    };
    const Setting settings[] = {
        {"name", &BackupJob::name, "SD_to_Music"},
        {"enabled", &BackupJob::enabled, "1"},
        {"sch_every", &BackupJob::sch_every, "24"},
        {"sch_start", &BackupJob::sch_start, "0"},
        {"sch_end", &BackupJob::sch_end, "23"},
        {"sch_dow", &BackupJob::sch_dow, "127"},
        {"src_type", &BackupJob::src_type, "share"},
        {"src_share_proto", &BackupJob::src_share_proto, "CARD"},
        {"src_share_vol", &BackupJob::src_share_vol, "media"},
        {"src_path", &BackupJob::src_path, ""},
        {"src_login", &BackupJob::src_login, ""},
        {"src_password", &BackupJob::src_password, ""},
        {"src_port", &BackupJob::src_port, "0"},
        {"src_eject", &BackupJob::src_eject, std::nullopt},
        {"dst_type", &BackupJob::dst_type, "share"},
        {"dst_share_proto", &BackupJob::dst_share_proto, "Music"},
        {"dst_share_vol", &BackupJob::dst_share_vol, "data"},
        {"dst_path", &BackupJob::dst_path, "CARD"},
        {"dst_login", &BackupJob::dst_login, ""},
        {"dst_password", &BackupJob::dst_password, ""},
        {"dst_port", &BackupJob::dst_port, "0"},
        {"dst_eject", &BackupJob::dst_eject, std::nullopt},
        {"opt_full_backup_freq", &BackupJob::opt_full_backup_freq, "FIRST_TIME"},
        {"opt_remove_previous_backup", &BackupJob::opt_remove_previous_backup, "0"},
        {"opt_chown_to_share_owner", &BackupJob::opt_chown_to_share_owner, "0"},
        {"opt_rsync_options", &BackupJob::opt_rsync_options, "0"},
        {"opt_email_this_to_alert_email", &BackupJob::opt_email_this_to_alert_email, "0"},
        {"opt_rsync_exclude", &BackupJob::opt_rsync_exclude, ""},
        {"opt_misc_option", &BackupJob::opt_misc_option, "0"},
        {"opt_max_log_lines", &BackupJob::opt_max_log_lines, "1000"},
        {"wol_addr", &BackupJob::wol_addr, ""},
        {"time_to_wait", &BackupJob::time_to_wait, std::nullopt},
    };
    const BackupJob job = sd_card_job("CARD", {"data", "Music"});
    EXPECT_EQ(job.job_id, 0);
    for (const Setting &setting : settings)
        EXPECT_EQ(job.*setting.text, setting.value) << setting.name;
}

TEST(SdCard, the_jobs_name_is_cut_at_127_characters_and_nothing_else_is) {
    const std::string share(200, 's');
    const BackupJob job = sd_card_job("CARD", {"data", share});
    EXPECT_EQ(job.name, "SD_to_" + std::string(121, 's'));
    EXPECT_EQ(job.dst_share_proto, share);
}

// --- runs that end before anything is copied ---

class SdCardRun : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_APPLIANCE();
        make_system_folders();
        make_folder("/etc/tessera/usb");
        clear();
        write_file("/etc/tessera/sysinfo", "HARDWARE_TYPE=23\n");
    }
    void TearDown() override {
        if (in_appliance()) clear();
    }

    static void clear() {
        for (const std::string &path : {paths::pid_file(0), paths::status_file(0), paths::history(0),
                                        paths::copy_log(0), paths::error_log(0), paths::last_full_record(0)})
            remove_tree(path);
        purge_copy_logs(0, "");
        for (const char *path :
             {paths::job_file, paths::usb_storage_table, paths::media_server_file, "/etc/tessera/sysinfo"})
            remove_tree(path);
    }

    static void insert_card(const std::string &more = "") {
        write_file(paths::usb_storage_table, "usb!!USB!!Disk!!ext4!!1!!sdq1!!0!!rw!!1!!ok\n" + more +
                                                 "sd!!CARD!!SDCARD_1!!vfat!!1!!sdb1!!0!!rw!!3!!ok\n");
    }

    static std::string status() { return read_file(paths::status_file(0)); }
};

TEST_F(SdCardRun, without_an_enabled_card_nothing_is_written_or_told) {
    const char *const tables[] = {
        nullptr, // no table at all
        "",
        "usb!!USB!!Disk!!ext4!!1!!sdq1!!0!!rw!!1!!ok\n",
        "sd!!CARD!!SDCARD_1!!vfat!!0!!sdb1!!0!!rw!!3!!ok\nsd!!CARD!!SDCARD_1!!vfat!!1\n",
    };
    write_file(paths::media_server_file, "media_dir=P,/data/Pictures\n");
    for (const char *table : tables) {
        remove_tree(paths::usb_storage_table);
        remove_tree(paths::pid_file(0));
        if (table != nullptr) write_file(paths::usb_storage_table, table);
        EventReceiver events;
        const Diagnostics diagnostics;
        job_entry(0);
        EXPECT_THAT(events.received(), IsEmpty());
        EXPECT_FALSE(file_exists(paths::status_file(0)));
        EXPECT_FALSE(file_exists(paths::history(0)));
        EXPECT_EQ(diagnostics.text(), "");
    }
}

TEST_F(SdCardRun, other_hardware_has_no_card) {
    insert_card();
    write_file("/etc/tessera/sysinfo", "HARDWARE_TYPE=22\n");
    EventReceiver events;
    job_entry(0);
    EXPECT_THAT(events.received(), IsEmpty());
    EXPECT_FALSE(file_exists(paths::status_file(0)));
}

TEST_F(SdCardRun, button_jobs_take_the_place_of_the_card) {
    insert_card();
    write_job_file("<backupButtonJobs><backupButtonJob>1</backupButtonJob></backupButtonJobs>");
    EventReceiver events;
    job_entry(0);
    EXPECT_THAT(events.received(), ElementsAre(summary_event(0)));
}

TEST_F(SdCardRun, a_card_without_a_target_fails) {
    const char *const configurations[] = {
        nullptr, "", "media_dir=\n", "media_dir=P,/data\nmedia_dir=V,/vault/\n", "db_dir=/data/Pictures\n",
    };
    for (const char *configuration : configurations) {
        SCOPED_TRACE(configuration != nullptr ? configuration : "no file");
        clear();
        write_file("/etc/tessera/sysinfo", "HARDWARE_TYPE=23\n");
        insert_card();
        if (configuration != nullptr) write_file(paths::media_server_file, configuration);
        EventReceiver events;
        const Diagnostics diagnostics;
        job_entry(0);
        EXPECT_THAT(events.received(), ElementsAre(kNoTargetEvent, summary_event(1)));
        EXPECT_THAT(
            diagnostics.without_places(),
            MatchesRegex("\\(debug\\) write\\([^,]*/status_backup_000,BACKUP_STATUS__IN_PROGRESS,0!![0-9]+!!OK\\)\n"
                         "\\(debug\\) write\\([^,]*/status_backup_000,BACKUP_STATUS__FAILED!![0-9]+!!warn\\)\n"));
        EXPECT_FALSE(file_exists(paths::history(0)));
        EXPECT_FALSE(file_exists(paths::last_full_record(0)));
    }
}

TEST_F(SdCardRun, the_first_usable_line_of_each_file_counts) {
    insert_card("sd!!OFF!!SDCARD_0!!vfat!!0!!sda1\nsd!!FIRST!!SDCARD_2!!vfat!!1!!sdc1\n");
    write_file(paths::media_server_file, "# media_dir=\nmedia_dir=P,/data\nmedia_dir=V,/none/A & B\nmedia_dir=/x/y\n");
    EventReceiver events;
    job_entry(0);
    EXPECT_THAT(events.received(), ElementsAre(copy_event("SD_to_A &amp; B", 4), summary_event(1)));
    EXPECT_THAT(read_file(paths::history(0)), HasSubstr("src: [share:FIRST]/\ndst: [share:A & B]/FIRST\n"));
}

TEST_F(SdCardRun, long_lines_are_read_in_pieces) {
    // Each piece counts as a line of its own: the marks of this one stand in different pieces.
    const std::string filling(5000, 'x');
    write_file(paths::usb_storage_table,
               "SDCARD_" + filling + "!!CARD!!l!!vfat!!1!!x\n" + "sd!!LATER!!SDCARD_!!vfat!!1!!x\n");
    write_file(paths::media_server_file, "media_dir=" + std::string(501, 'y') + "/data/Pictures\nmedia_dir=/none/B\n");
    EventReceiver events;
    job_entry(0);
    EXPECT_THAT(events.received(), ElementsAre(copy_event("SD_to_B", 4), summary_event(1)));
    EXPECT_THAT(read_file(paths::history(0)), HasSubstr("src: [share:LATER]/\n"));

    // One that just fits is read whole: 4095 and 511 characters.
    clear();
    write_file("/etc/tessera/sysinfo", "HARDWARE_TYPE=23\n");
    const std::string card = "sd!!CARD!!SDCARD_!!vfat!!1!!";
    write_file(paths::usb_storage_table, card + std::string(4094 - card.size(), 'x') + "\n");
    const std::string target = "/none/Fits";
    write_file(paths::media_server_file,
               "media_dir=" + std::string(510 - 10 - target.size(), 'y') + target + "\nmedia_dir=/none/B\n");
    job_entry(0);
    EXPECT_THAT(events.received(), ElementsAre(copy_event("SD_to_Fits", 4), summary_event(1)));
}

TEST_F(SdCardRun, the_end_is_told_under_both_starting_times) {
    insert_card();
    // The configuration arrives late: a pipe lets the run wait for it between its two starting times.
    ASSERT_EQ(mkfifo(paths::media_server_file, 0600), 0);
    std::thread writer([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(2100));
        write_file(paths::media_server_file, "media_dir=/none/B\n");
    });
    EventReceiver events;
    const Diagnostics diagnostics;
    job_entry(0);
    writer.join();

    std::vector<std::pair<std::string, long>> written;
    const std::string text = diagnostics.text();
    for (std::size_t at = 0; (at = text.find("BACKUP_STATUS__", at)) != std::string::npos;) {
        at += std::string("BACKUP_STATUS__").size();
        const std::size_t end = text.find("!!", at);
        written.emplace_back(text.substr(at, end - at), std::stol(text.substr(end + 2)));
    }
    ASSERT_EQ(written.size(), 4U) << text;
    const long found = written[0].second;
    const long start = written[1].second;
    EXPECT_GT(start, found);
    EXPECT_THAT(written, ElementsAre(std::pair("IN_PROGRESS,0", found), std::pair("IN_PROGRESS,1", start),
                                     std::pair("FAILED", start), std::pair("FAILED", found)));
    EXPECT_THAT(read_file(paths::history(0)), HasSubstr("start: " + std::to_string(start) + "\n"));
    EXPECT_EQ(read_file(paths::last_full_record(0)), std::to_string(start) + "\n");
}

} // namespace
} // namespace tsbackup::test
