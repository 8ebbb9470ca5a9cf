#include "tsbackup_rsync.h"

#include "kernel.h"
#include "rsync_support.h"
#include "tsbackup/paths.h"

#include <array>
#include <linux/magic.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tsbackup::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

/// Sets "src" to the local source, the last word but one, in the script of an upload's call.
constexpr char kSource[] = "eval \"src=\\${$(($# - 1))}\"\n";

const std::vector<std::string> kStart = {"-n 10",
                                         "rsync",
                                         "-vP",
                                         "-8",
                                         "--timeout=1800",
                                         "--recursive",
                                         "--links",
                                         "--times",
                                         "--omit-dir-times",
                                         "--devices",
                                         "--specials",
                                         "--one-file-system",
                                         "--modify-window=1"};
const std::vector<std::string> kFirstAttempt = {"--owner", "--group", "--acls"};
const std::vector<std::string> kSecondAttempt = {"--owner", "--group", "--no-acls", "--no-perms"};

std::vector<std::string> words(std::initializer_list<std::vector<std::string>> parts) {
    std::vector<std::string> all;
    for (const auto &part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

/// What the error log holds after a transfer with this result.
std::string failure_of(const std::string &result) {
    return "Failed to run rsync, return rc " + result + "\n'rsync' command returns rc=" + result + "\n";
}

class Runner : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_APPLIANCE();
        make_folder(paths::work_folder);
        make_folder(paths::log_folder);
        make_folder("/data/Backup");
        write_file("/media/DISK/photos/a.txt", "content");
        write_file("/media/DISK/file.txt", "content");
        write_file(paths::usb_storage_table, "a!!DISK!!c!!d!!e!!sda1!!g!!h!!2!!j\n");
        // Every folder counts as one on an ext4 disk.
        kernel_.file_system = [](const std::string &path) -> std::optional<long> {
            if (!file_exists(path)) return std::nullopt;
            return EXT4_SUPER_MAGIC;
        };
    }
    void TearDown() override {
        if (!in_appliance()) return;
        while (waitpid(-1, nullptr, WNOHANG) > 0) {
        }
        for (const std::string &path : {std::string("/data"), std::string("/media/DISK"),
                                        std::string(paths::usb_storage_table), staging_folder(), paths::copy_log(7)})
            remove_tree(path);
    }

    static std::string staging_folder() { return "/tmp/" + std::to_string(getpid()); }
    static std::string copy_log() { return read_file(paths::copy_log(7)); }

    /// From a daemon into a share.
    static BackupJob download_job() {
        BackupJob job;
        job.job_id = 7;
        job.name = "Night";
        job.src_type = "remote";
        job.src_share_proto = "rsync";
        job.src_path = "server::module/dir";
        job.dst_type = "share";
        job.dst_share_vol = "data";
        job.dst_share_proto = "Backup";
        job.dst_path = "";
        return job;
    }
    /// From a folder of a disk to a daemon.
    static BackupJob upload_job() {
        BackupJob job;
        job.job_id = 7;
        job.name = "Night";
        job.src_type = "share";
        job.src_share_vol = "media";
        job.src_share_proto = "DISK";
        job.src_path = "photos";
        job.dst_type = "remote";
        job.dst_share_proto = "rsync";
        job.dst_path = "server::module/dir";
        return job;
    }

    /// Makes every wait for output short.
    void shorten_silence() {
        kernel_.select = [](timeval &wait) -> std::optional<int> {
            wait = {0, 100000};
            return std::nullopt;
        };
    }

    Kernel kernel_;
    StandIn stand_in_;
};

// ---- command lines and environments ----------------------------------------------------------------------------

TEST_F(Runner, a_download_from_a_daemon) {
    BackupJob job = download_job();
    job.src_login = "bob";
    job.src_password = "pass word";
    job.src_port = "8730";
    LoggedRun run;
    backup_rsync_to_local(job, run);
    const std::vector<Call> calls = stand_in_.calls();
    ASSERT_THAT(calls, SizeIs(1));
    EXPECT_EQ(
        calls[0].arguments,
        words(
            {kStart, kFirstAttempt, {"--exclude=.snapshot", "--port=8730", "bob@server::module/dir", "/data/Backup"}}));
    EXPECT_THAT(calls[0].environment, ElementsAre("RSYNC_PASSWORD=pass word"));
    EXPECT_EQ(run.error_code, 0);
    EXPECT_EQ(run.errors(), "");
}

TEST_F(Runner, a_download_over_ssh_gets_no_environment) {
    BackupJob job = download_job();
    job.src_share_proto = "rsync+ssh";
    job.src_path = "server:/srv/dir";
    job.src_login = "bob";
    job.src_password = "secret";
    LoggedRun run;
    backup_rsync_to_local(job, run);
    const std::vector<Call> calls = stand_in_.calls();
    ASSERT_THAT(calls, SizeIs(1));
    EXPECT_EQ(calls[0].arguments,
              words({kStart,
                     kFirstAttempt,
                     {"--exclude=.snapshot", "--rsh=ssh -oStrictHostKeyChecking=no -oPasswordAuthentication=no -p22",
                      "bob@server:srv/dir", "/data/Backup"}}));
    EXPECT_THAT(calls[0].environment, IsEmpty());
}

TEST_F(Runner, a_daemon_without_a_password_gets_an_empty_entry) {
    LoggedRun run;
    backup_rsync_to_local(download_job(), run);
    BackupJob job = download_job();
    job.src_password = "of nobody";
    backup_rsync_to_local(job, run);
    ASSERT_THAT(stand_in_.calls(), SizeIs(2));
    for (const Call &call : stand_in_.calls())
        EXPECT_THAT(call.environment, ElementsAre(""));
}

TEST_F(Runner, an_upload_to_a_daemon) {
    BackupJob job = upload_job();
    job.dst_login = "bob";
    job.dst_password = "secret";
    job.dst_path = "server::/module/dir";
    LoggedRun run;
    backup_local_to_rsync(job, run);
    const std::vector<Call> calls = stand_in_.calls();
    ASSERT_THAT(calls, SizeIs(1));
    EXPECT_EQ(calls[0].arguments,
              words({kStart, kFirstAttempt, {staging_folder() + "/photos", "bob@server::module/dir/"}}));
    EXPECT_THAT(calls[0].environment, ElementsAre("RSYNC_PASSWORD=secret"));
    EXPECT_EQ(run.error_code, 0);
}

TEST_F(Runner, an_upload_over_ssh) {
    BackupJob job = upload_job();
    job.dst_share_proto = "rsync+ssh";
    job.dst_path = "server://srv/dir";
    job.dst_port = "2222";
    LoggedRun run;
    backup_local_to_rsync(job, run);
    const std::vector<Call> calls = stand_in_.calls();
    ASSERT_THAT(calls, SizeIs(1));
    EXPECT_EQ(calls[0].arguments, words({kStart,
                                         kFirstAttempt,
                                         {"--rsh=ssh -oStrictHostKeyChecking=no -oPasswordAuthentication=no -p2222",
                                          staging_folder() + "/photos", "server:/srv/dir/"}}));
    EXPECT_THAT(calls[0].environment, IsEmpty());
}

TEST_F(Runner, remote_paths_in_arguments) {
    struct Case {
        const char *path;
        const char *source;
        const char *destination;
    };
    const Case cases[] = {
        {"h::m", "h::m", "h::m/"}, {"h::/m/", "h::m/", "h::m//"}, {"h:::m", "h::m", "h::m/"},
        {"h:", "h:", "h:/"},       {"h://", "h:/", "h://"},       {"h::a b/c:d", "h::a b/c:d", "h::a b/c:d/"},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(test.path);
        LoggedRun run;
        BackupJob download = download_job();
        download.src_path = test.path;
        backup_rsync_to_local(download, run);
        const auto down = stand_in_.calls().back().arguments;
        EXPECT_EQ(down[down.size() - 2], test.source);
        BackupJob upload = upload_job();
        upload.dst_path = test.path;
        backup_local_to_rsync(upload, run);
        EXPECT_EQ(stand_in_.calls().back().arguments.back(), test.destination);
    }
}

// ---- staging ---------------------------------------------------------------------------------------------------

TEST_F(Runner, the_staged_source_is_readable_and_not_writable) {
    stand_in_.plays(1, std::string(kSource) +
                           "{ cat \"$src/a.txt\"; stat -c ' %a' \"${src%/*}\"\n"
                           "touch \"$src/a.txt\" \"$src/new\" 2>&1; } >" +
                           stand_in_.file("seen"));
    LoggedRun run;
    backup_local_to_rsync(upload_job(), run);
    const std::string seen = read_file(stand_in_.file("seen"));
    EXPECT_THAT(seen, HasSubstr("content 700\n"));
    EXPECT_THAT(seen, HasSubstr("Read-only file system"));
    EXPECT_FALSE(file_exists("/media/DISK/photos/new"));
    EXPECT_FALSE(file_exists(staging_folder()));
    EXPECT_EQ(read_file("/media/DISK/photos/a.txt"), "content");
}

TEST_F(Runner, the_staged_source_is_gone_after_a_failure) {
    stand_in_.plays(1, "exit 23").plays(2, "exit 23");
    LoggedRun run;
    backup_local_to_rsync(upload_job(), run);
    EXPECT_EQ(run.error_code, 6);
    EXPECT_FALSE(file_exists(staging_folder()));
    EXPECT_TRUE(file_exists("/media/DISK/photos/a.txt"));
}

TEST_F(Runner, the_staged_source_is_gone_although_it_is_in_use) {
    // What outlives rsync holds the folder.
    stand_in_.plays(1, std::string(kSource) + "cd \"$src\" && sleep 20 >/dev/null 2>&1 &");
    LoggedRun run;
    backup_local_to_rsync(upload_job(), run);
    EXPECT_FALSE(file_exists(staging_folder()));
    EXPECT_TRUE(file_exists("/media/DISK/photos/a.txt"));
}

TEST_F(Runner, what_an_earlier_process_left_is_replaced) {
    write_file("/media/DISK/other/b.txt", "other");
    make_folder(staging_folder() + "/photos");
    ASSERT_EQ(chmod(staging_folder().c_str(), 0700), 0);
    ASSERT_EQ(mount("/media/DISK/other", (staging_folder() + "/photos").c_str(), nullptr, MS_BIND, nullptr), 0);
    stand_in_.plays(1, std::string(kSource) + "ls \"$src\" >" + stand_in_.file("seen"));
    LoggedRun run;
    backup_local_to_rsync(upload_job(), run);
    EXPECT_EQ(read_file(stand_in_.file("seen")), "a.txt\n");
    EXPECT_FALSE(file_exists(staging_folder()));
    EXPECT_EQ(read_file("/media/DISK/other/b.txt"), "other");
}

TEST_F(Runner, staged_names) {
    struct Case {
        const char *name;
        const char *type;
        JobText share;
        JobText volume;
        JobText path;
        std::string argument; ///< below the staging folder
    };
    const std::string long_name(80, 'n');
    const std::string cut(63 - staging_folder().size() - 1, 'n');
    write_file("/media/DISK/deep/er/a", "");
    write_file("/media/DISK/with blank/a", "");
    write_file("/media/DISK/" + long_name + "/a", "");
    write_file("/data/.timemachine/a", "");
    const Case cases[] = {
        {"a folder of a share", "share", "DISK", "media", "photos", "/photos"},
        {"a deeper folder", "share", "DISK", "media", "deep/er", "/er"},
        {"a slash at the end", "share", "DISK", "media", "deep/er/", "/er"},
        {"a name with a blank", "share", "DISK", "media", "with blank", "/with blank"},
        {"a whole share", "share", "DISK", "media", "", "/DISK"},
        {"a share without a path", "share", "DISK", "media", std::nullopt, "/DISK"},
        {"a volume", "volume", "data", "", "", "/data"},
        {"all homes", "home", "*", "", "", "/home"},
        {"all homes, with a path", "home", "*", "", "photos", "/photos"},
        {"a time machine", "timemachine", "tm", "data", "", "/tm"},
        {"a time machine without a name", "timemachine", "", "data", "", "/"},
        {"a disk at a port", "usb", "usb_port_2", "", "", "/usb_port_2/"},
        {"a folder of a disk at a port", "usb", "usb_port_2", "", "photos", "/photos/"},
        {"a path that leads nowhere else", "share", "DISK", "media", "photos/..", "/DISK"},
        {"a long name is cut", "share", "DISK", "media", long_name, "/" + cut},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(test.name);
        BackupJob job = upload_job();
        job.src_type = test.type;
        job.src_share_proto = test.share;
        job.src_share_vol = test.volume;
        job.src_path = test.path;
        LoggedRun run;
        const std::size_t before = stand_in_.calls().size();
        backup_local_to_rsync(job, run);
        ASSERT_EQ(run.error_code, 0) << run.errors();
        ASSERT_THAT(stand_in_.calls(), SizeIs(before + 1));
        const auto arguments = stand_in_.calls().back().arguments;
        EXPECT_EQ(arguments[arguments.size() - 2], staging_folder() + test.argument);
        EXPECT_FALSE(file_exists(staging_folder()));
    }
}

TEST_F(Runner, a_single_file_is_not_staged) {
    BackupJob job = upload_job();
    job.src_path = "file.txt";
    LoggedRun run;
    backup_local_to_rsync(job, run);
    ASSERT_THAT(stand_in_.calls(), SizeIs(1));
    const auto arguments = stand_in_.calls()[0].arguments;
    EXPECT_EQ(arguments[arguments.size() - 2], "/media/DISK/file.txt");
    EXPECT_FALSE(file_exists(staging_folder()));
}

// "/tmp" is everybody's: whoever guesses the number of the process must not say where the source is mounted.
TEST_F(Runner, a_folder_of_somebody_else_is_no_place_for_staging) {
    REQUIRE_ROOT();
    const TempFolder elsewhere;
    make_folder(elsewhere / "photos");
    const std::function<void()> prepare[] = {
        [&] { ASSERT_EQ(symlink(elsewhere.path().c_str(), staging_folder().c_str()), 0); },
        [] {
            make_folder(staging_folder());
            ASSERT_EQ(chmod(staging_folder().c_str(), 0700), 0);
            ASSERT_EQ(chown(staging_folder().c_str(), 65534, 65534), 0);
        },
        [] {
            make_folder(staging_folder());
            ASSERT_EQ(chmod(staging_folder().c_str(), 0777), 0);
        },
        [] { write_file(staging_folder(), "a file"); },
    };
    for (const auto &step : prepare) {
        step();
        LoggedRun run;
        backup_local_to_rsync(upload_job(), run);
        EXPECT_EQ(run.error_code, 6);
        EXPECT_EQ(run.error_message, "rsync returns rc=-1\n");
        EXPECT_TRUE(file_exists(staging_folder()));
        EXPECT_TRUE(file_exists(elsewhere / "photos"));
        unlink(staging_folder().c_str());
        remove_tree(staging_folder());
    }
    EXPECT_THAT(stand_in_.calls(), IsEmpty());
}

// ---- attempts, runs and results --------------------------------------------------------------------------------

TEST_F(Runner, results_of_both_attempts) {
    struct Case {
        const char *first;
        const char *second;
        std::size_t calls;
        int result;
        int download_code;
        int upload_code;
    };
    const Case cases[] = {
        {"exit 0", "exit 9", 1, 0, 0, 0},          {"exit 23", "exit 0", 2, 0, 0, 0},
        {"exit 5", "exit 5", 2, 5, 10, 10},        {"exit 5", "exit 23", 2, 23, 6, 6},
        {"exit 23", "exit 5", 2, 5, 10, 10},       {"exit 12", "exit 12", 2, 12, 6, 12},
        {"exit 10", "exit 10", 2, 10, 6, 6},       {"exit 11", "exit 11", 2, 11, 6, 6},
        {"exit 24", "exit 24", 2, 24, 6, 6},       {"exit 255", "exit 255", 2, 255, 6, 6},
        {"kill -9 $$", "kill -9 $$", 2, -2, 6, 6},
    };
    for (const Case &test : cases)
        for (const bool upload : {false, true}) {
            SCOPED_TRACE(std::string(test.first) + ", then " + test.second + (upload ? ", upload" : ", download"));
            StandIn stand_in;
            stand_in.plays(1, test.first).plays(2, test.second);
            LoggedRun run;
            if (upload)
                backup_local_to_rsync(upload_job(), run);
            else
                backup_rsync_to_local(download_job(), run);
            const std::vector<Call> calls = stand_in.calls();
            ASSERT_THAT(calls, SizeIs(test.calls));
            const auto &last = calls.back().arguments;
            const auto &group = test.calls == 1 ? kFirstAttempt : kSecondAttempt;
            EXPECT_EQ(std::vector<std::string>(last.begin() + static_cast<long>(kStart.size()),
                                               last.begin() + static_cast<long>(kStart.size() + group.size())),
                      group);
            EXPECT_EQ(run.error_code, upload ? test.upload_code : test.download_code);
            const std::string number = std::to_string(test.result);
            EXPECT_EQ(run.error_message.value_or(""), test.result == 0 ? "" : "rsync returns rc=" + number + "\n");
            EXPECT_EQ(run.errors(), test.result == 0 ? "" : failure_of(number));
        }
}

TEST_F(Runner, the_copy_log_is_the_last_runs) {
    stand_in_.plays(1, "echo 'No space left'; exit 11")
        .plays(2, "printf 'receiving incremental file list\\na\\n\\r 5 100%% 1kB/s 0:00:00\\nb\\n'");
    LoggedRun run;
    backup_rsync_to_local(download_job(), run);
    EXPECT_EQ(run.error_code, 0);
    EXPECT_EQ(run.bytes, 5);
    EXPECT_EQ(copy_log(), "a\n\nb\n");
}

TEST_F(Runner, a_transfer_without_an_exit_code_can_still_tell_of_a_refusal) {
    stand_in_.plays(1, "echo 'x: Permission denied (13)' >&2");
    LoggedRun run;
    backup_rsync_to_local(download_job(), run);
    EXPECT_EQ(run.error_code, 7);
    EXPECT_EQ(run.error_message, "x: Permission denied (13)\n");
}

TEST_F(Runner, no_copy_log) {
    remove_tree(paths::work_folder);
    LoggedRun run;
    backup_rsync_to_local(download_job(), run);
    EXPECT_THAT(stand_in_.calls(), SizeIs(2));
    EXPECT_EQ(run.error_message, "rsync returns rc=-5\n");
    EXPECT_EQ(run.errors(), "Failed to run rsync, return rc -5\n");
}

TEST_F(Runner, a_silent_rsync_is_started_again_once) {
    shorten_silence();
    stand_in_.plays(1, "echo a; exec sleep 20").plays(2, "echo b");
    const Diagnostics diagnostics(3);
    LoggedRun run;
    backup_rsync_to_local(download_job(), run);
    const auto calls = stand_in_.calls();
    ASSERT_THAT(calls, SizeIs(2));
    EXPECT_EQ(calls[0].arguments, calls[1].arguments);
    EXPECT_EQ(run.error_code, 0);
    EXPECT_EQ(copy_log(), "b\n");
    EXPECT_EQ(diagnostics.without_places(), "(error) Can't read info from rsync log. retry rsync.\n"
                                            "(error) backup_rsync_to_local rsync download failed, rtry 2.\n");
}

TEST_F(Runner, a_second_silence_ends_the_attempt) {
    for (const bool upload : {false, true}) {
        SCOPED_TRACE(upload ? "upload" : "download");
        shorten_silence();
        StandIn stand_in;
        for (int call = 1; call <= 5; ++call)
            stand_in.plays(call, "exec sleep 20");
        const Diagnostics diagnostics(3);
        LoggedRun run;
        if (upload)
            backup_local_to_rsync(upload_job(), run);
        else
            backup_rsync_to_local(download_job(), run);
        EXPECT_THAT(stand_in.calls(), SizeIs(4));
        EXPECT_EQ(run.error_code, 6);
        EXPECT_EQ(run.error_message, "rsync returns rc=-62\n");
        EXPECT_EQ(run.errors(), "Failed to run rsync, return rc -62\n'rsync' command returns rc=-62\n");
        const std::string caller = upload ? "backup_local_to_rsync" : "backup_rsync_to_local";
        std::string expected;
        for (const char *left : {"2", "1", "2", "1"})
            expected += "(error) Can't read info from rsync log. retry rsync.\n(error) " + caller +
                        " rsync download failed, rtry " + left + ".\n";
        EXPECT_EQ(diagnostics.without_places(), expected);
        EXPECT_FALSE(file_exists(staging_folder()));
    }
}

// ---- what ends it early ----------------------------------------------------------------------------------------

TEST_F(Runner, malformed_servers_of_a_download) {
    struct Case {
        JobText path;
        JobText login;
        std::string shown;
    };
    const Case cases[] = {
        {"server/dir", std::nullopt, "server/dir"},
        {"", std::nullopt, ""},
        {std::nullopt, std::nullopt, ""},
        // rsync would take these for options, and an option can name a program to run.
        {"--rsh=reboot host:dir", std::nullopt, "--rsh=reboot host:dir"},
        {"host::dir", "-e reboot", "host::dir"},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(test.shown);
        BackupJob job = download_job();
        job.src_path = test.path;
        job.src_login = test.login;
        job.dst_path = "never made";
        LoggedRun run;
        backup_rsync_to_local(job, run);
        EXPECT_EQ(run.error_code, 1);
        EXPECT_EQ(run.error_message, "Mulformed path=" + test.shown + "\n");
        EXPECT_EQ(run.errors(), "Invalid path " + test.shown + "\n");
        EXPECT_FALSE(file_exists("/data/Backup/never made"));
    }
    EXPECT_THAT(stand_in_.calls(), IsEmpty());
}

TEST_F(Runner, a_malformed_server_of_an_upload) {
    BackupJob job = upload_job();
    job.dst_path = "server/dir";
    job.src_eject = "1";
    EventReceiver events;
    LoggedRun run;
    backup_local_to_rsync(job, run);
    EXPECT_EQ(run.error_code, 2);
    EXPECT_EQ(run.error_message, "Mulformed path=photos\n");
    EXPECT_EQ(run.errors(), "Invalid path server/dir!\n");
    EXPECT_THAT(stand_in_.calls(), IsEmpty());
    EXPECT_THAT(events.received(), SizeIs(2));
    EXPECT_FALSE(file_exists(staging_folder()));
}

TEST_F(Runner, a_local_end_that_does_not_resolve) {
    BackupJob download = download_job();
    download.dst_type = "usb";
    download.dst_share_proto = "usb_port_9";
    LoggedRun to_disk;
    backup_rsync_to_local(download, to_disk);
    EXPECT_EQ(to_disk.error_code, 4);
    EXPECT_EQ(to_disk.error_message, "No USB storage device at usb_port_9");

    BackupJob upload = upload_job();
    upload.src_path = "missing";
    LoggedRun from_share;
    backup_local_to_rsync(upload, from_share);
    EXPECT_EQ(from_share.error_code, 5);
    EXPECT_EQ(from_share.error_message, "'/media/DISK/missing' not exists");
    EXPECT_THAT(stand_in_.calls(), IsEmpty());
}

TEST_F(Runner, a_source_that_vanishes_after_it_was_resolved) {
    kernel_.file_system = [](const std::string &path) -> std::optional<long> {
        if (path == "/media/DISK/photos") remove_tree(path);
        return EXT4_SUPER_MAGIC;
    };
    LoggedRun run;
    backup_local_to_rsync(upload_job(), run);
    EXPECT_EQ(run.error_code, 5);
    EXPECT_EQ(run.error_message, "/DISK/photos not exists");
    EXPECT_EQ(run.errors(), "Source path /DISK/photos does not exist!\n");
    EXPECT_THAT(stand_in_.calls(), IsEmpty());
}

TEST_F(Runner, a_disk_that_is_taken_away_between_the_attempts) {
    BackupJob job = download_job();
    job.dst_type = "usb";
    job.dst_share_proto = "usb_port_2";
    job.dst_path = "dir";
    job.dst_eject = "1";
    stand_in_.plays(1, "echo 'receiving incremental file list'; rm " + std::string(paths::usb_storage_table) +
                           "; exit 11");
    EventReceiver events;
    LoggedRun run;
    backup_rsync_to_local(job, run);
    EXPECT_THAT(stand_in_.calls(), SizeIs(1));
    EXPECT_EQ(run.error_code, 4);
    EXPECT_EQ(run.error_message, "Destination is not available path=dir\n");
    EXPECT_EQ(run.errors(), "Invalid destination path dir\n");
    EXPECT_EQ(copy_log(), "receiving incremental file list\n");
    EXPECT_THAT(events.received(), IsEmpty());
}

TEST_F(Runner, the_disk_is_ejected_after_a_success_and_after_a_failure) {
    for (const char *script : {"exit 0", "exit 11"})
        for (const bool upload : {false, true}) {
            SCOPED_TRACE(std::string(script) + (upload ? ", upload" : ", download"));
            StandIn stand_in;
            stand_in.plays(1, script).plays(2, script);
            BackupJob job = upload ? upload_job() : download_job();
            if (upload) {
                job.src_eject = "1";
            } else {
                job.dst_type = "usb";
                job.dst_share_proto = "usb_port_2";
                job.dst_eject = "1";
            }
            EventReceiver events;
            LoggedRun run;
            if (upload)
                backup_local_to_rsync(job, run);
            else
                backup_rsync_to_local(job, run);
            const auto received = events.received();
            ASSERT_THAT(received, SizeIs(2));
            EXPECT_THAT(received[0], HasSubstr("action=\"eject\" device=\"sda1\""));
        }
}

TEST_F(Runner, an_aborted_job_starts_nothing_and_gives_everything_back) {
    for (const bool upload : {false, true}) {
        SCOPED_TRACE(upload ? "upload" : "download");
        write_file(paths::copy_log(7), "receiving incremental file list\na\n");
        BackupJob job = upload ? upload_job() : download_job();
        job.src_eject = "1";
        job.dst_eject = "1";
        if (!upload) {
            job.dst_type = "usb";
            job.dst_share_proto = "usb_port_2";
        }
        when_aborted([&job, upload] {
            EventReceiver events;
            LoggedRun run;
            if (upload)
                backup_local_to_rsync(job, run);
            else
                backup_rsync_to_local(job, run);
            EXPECT_EQ(run.error_code, 0);
            EXPECT_EQ(run.errors(), "");
            EXPECT_THAT(events.received(), SizeIs(2));
            EXPECT_FALSE(file_exists(staging_folder()));
        });
        EXPECT_THAT(stand_in_.calls(), IsEmpty());
        EXPECT_EQ(copy_log(), "a\n");
    }
}

} // namespace
} // namespace tsbackup::test
