// Names that a shell, an XML reader or a path buffer could trip over, and trees of unusual shape.

#include "aftermath.h"
#include "appliance_support.h"
#include "job_runs.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace tsbackup::test {

namespace {

namespace fs = std::filesystem;

constexpr int kJob = 7;
/// What every command in a hostile name would make.
constexpr char kTrace[] = "/pwned";

class Hostile : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_VOLUMES();
        reset_appliance();
        remove_tree(kTrace);
    }
    void TearDown() override {
        if (!volumes()) return;
        EXPECT_FALSE(file_exists(kTrace));
        remove_tree(kTrace);
        reset_appliance();
    }
};

Settings incremental(const Settings &ends) { return Settings{{"opt_full_backup_freq", "NEVER"}} + ends; }

void expect_success(const Outcome &outcome) {
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(state_of(kJob), "COMPLETED") << outcome.err;
    EXPECT_EQ(read_file(error_log_path(kJob)), "");
}

/// A chain of folders, each within the one before, too long to be named by a path; a file "f" in each.
void make_chain(const std::string &root, const std::string &name, int levels) {
    make_folder(root);
    int folder = open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (int level = 0; level < levels && folder >= 0; ++level) {
        const int made = mkdirat(folder, name.c_str(), 0755);
        const int next = openat(folder, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        const int file = openat(next, "f", O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        const bool done = made == 0 && write(file, "chain", 5) == 5;
        close(file);
        close(folder);
        folder = next;
        if (!done) throw std::runtime_error("cannot make level " + std::to_string(level));
    }
    close(folder);
}

std::string chain_path(const std::string &root, const std::string &name, int levels) {
    std::string path = root;
    for (int level = 0; level < levels; ++level)
        path += "/" + name;
    return path + "/f";
}

} // namespace

TEST_F(Hostile, AnyFileNameIsCopiedAsItIs) {
    const std::string root = "/data/Pictures";
    const std::string names[] = {
        "line\nend",
        "\n",
        "tab\t",
        "bell\a",
        "\x7f",
        "invalid\xff\xfe",
        "\xc3",
        "-rf",
        "--",
        "-",
        "~",
        "~1",
        "#hash",
        "a;touch ..",
        "$(touch \\pwned)",
        "`touch pwned`",
        "'",
        "\"",
        "\\",
        "\\n",
        "*",
        "?",
        "[a]",
        "%s%n%s",
        "&amp;",
        "<xml>",
        "a|b",
        "a>b",
        "a&",
        "!",
        " ",
        "trailing ",
        "...",
        ".hidden",
        std::string(255, 'x'),
        std::string(127, '\'') + std::string(128, '$'),
        "Permission denied",
        ".snapshots",
        ".apps2",
        "größe",
        "\u202Etxt",
    };
    for (const std::string &name : names) {
        write_file(fs::path(root) / "files" / name, name);
        write_file(fs::path(root) / "folders" / name / "inside", name);
    }
    JobFile().job(kJob, incremental(source_share("data", "Pictures") + destination_usb("1", "copy"))).write();
    expect_success(run_program({"-e", "7"}));
    EXPECT_TRUE(same_trees(root, "/media/USB/copy"));
    EXPECT_NE(read_file(kept_copy_log_path(kJob)).find("Copy File  files/line\nend\n"), std::string::npos);
    expect_success(run_program({"-e", "7"}));
    EXPECT_EQ(read_file(kept_copy_log_path(kJob)), "");
}

TEST_F(Hostile, AnyShareAndPathNameIsOneWordForTheShell) {
    const char *names[] = {
        "two words",
        " leading",
        "a;touch ..;touch pwned",
        "$(touch $HOME;touch pwned)",
        "`touch pwned`",
        "line\ntouch pwned",
        "it's",
        "say \"hi\"",
        "-rf",
        "#hash",
        "*",
        "a&touch pwned&",
        "a|touch pwned",
        "a>pwned",
        "\\",
        "tilde~x",
        "$HOME",
        "größe",
        "{a,b}",
        "!!",
        "%d%s",
        "&lt;",
    };
    for (const char *name : names) {
        SCOPED_TRACE(name);
        const std::string source = std::string("/data/") + name;
        const std::string destination = std::string("/vault/") + name;
        ASSERT_EQ(run_command({"btrfs", "subvolume", "create", source}), 0);
        ASSERT_EQ(run_command({"btrfs", "subvolume", "create", destination}), 0);
        ASSERT_EQ(chown(destination.c_str(), 1001, 1002), 0);
        write_file(fs::path(source) / name / "file", name);
        write_file(source + "/other", "not wanted");
        const std::string before = shell_output("ls -a / /root /data /vault; ls -a");
        const Baseline baseline;

        JobFile()
            .job(kJob, incremental(Settings{{"name", name}, {"opt_chown_to_share_owner", "1"}} +
                                   source_share("data", name, name) + destination_share("vault", name, name)))
            .write();
        const Outcome outcome = run_program({"-v", "7", "-e", "7"});
        expect_success(outcome);
        const std::string copy = destination + "/" + name;
        EXPECT_EQ(read_file(copy + "/file"), name);
        EXPECT_EQ(list_folder(copy), std::vector<std::string>{"file"});
        // The bytes came from a snapshot of this very share, and the copy belongs to the owner of its folder.
        EXPECT_NE(outcome.err.find("do_copy_dir(\"/data/._share/" + std::string(name) + "/.snapshot/b_7_"),
                  std::string::npos)
            << outcome.err;
        struct stat status {};
        ASSERT_EQ(stat(copy.c_str(), &status), 0);
        const uid_t owner = status.st_uid;
        ASSERT_EQ(stat((copy + "/file").c_str(), &status), 0);
        EXPECT_EQ(status.st_uid, owner);
        EXPECT_TRUE(baseline.restored());
        EXPECT_EQ(shell_output("ls -a / /root /data /vault; ls -a"), before);
        ASSERT_EQ(run_command({"btrfs", "subvolume", "delete", source, destination}), 0);
        remove_tree("/data/._share/" + std::string(name));
    }
}

TEST_F(Hostile, ALeftOverSnapshotOfAnyShareNameIsDeletedAndNothingElse) {
    const std::string name = "a; touch ..;touch pwned $(touch pwned)\n'";
    const std::string share = "/data/" + name;
    const std::string snapshots = "/data/._share/" + name + "/.snapshot";
    ASSERT_EQ(run_command({"btrfs", "subvolume", "create", share}), 0);
    make_folder(snapshots);
    const std::string left_over = snapshots + "/b_3_4711\n$(touch pwned)";
    ASSERT_EQ(run_command({"btrfs", "subvolume", "snapshot", "-r", share, left_over}), 0);
    ASSERT_EQ(run_command({"btrfs", "subvolume", "snapshot", "-r", share, snapshots + "/hourly"}), 0);
    EXPECT_EQ(run_program({"-e", "7"}).status, 0);
    EXPECT_EQ(list_folder(snapshots), std::vector<std::string>{"hourly"});
    ASSERT_EQ(run_command({"btrfs", "subvolume", "delete", snapshots + "/hourly", share}), 0);
}

TEST_F(Hostile, NamesThatLeadElsewhereAreRefused) {
    struct Case {
        const char *name;
        Settings ends;
        int result;
        const char *error_log;
    };
    const Case cases[] = {
        {"a short name as the source", source_share("data", "long~1") + destination_usb("1"), 5,
         "Path (null) does not exist!\n"},
        {"a short name as the destination", source_usb("1") + destination_share("vault", "long~1"), 4, ""},
        {"the folder above as the source", source_share("data", "..") + destination_usb("1"), 3, ""},
        {"the folder above as the destination", source_usb("1") + destination_share("vault", "..", "etc"), 4, ""},
        {"no name as the destination", source_usb("1") + destination_share("", "", "etc"), 4, ""},
    };
    for (const char *share : {"/data/long~1", "/vault/long~1"})
        ASSERT_EQ(run_command({"btrfs", "subvolume", "create", share}), 0);
    for (const Case &a_case : cases) {
        SCOPED_TRACE(a_case.name);
        JobFile().job(kJob, incremental(a_case.ends)).write();
        EXPECT_EQ(run_program({"-e", "7"}).status, 0);
        EXPECT_EQ(state_of(kJob), "FAILED");
        EXPECT_EQ(last_result(kJob), a_case.result);
        EXPECT_EQ(read_file(error_log_path(kJob)), a_case.error_log);
        EXPECT_EQ(list_folder("/media/USB"), std::vector<std::string>{});
    }
}

TEST_F(Hostile, RemoteFieldsStartNothing) {
    write_file("/data/Pictures/file", "content");
    const StandIn nfs("/sbin/mount.nfs", "exit 32");
    const char *hostile = "$(touch /pwned)`touch /pwned`;touch /pwned;\ntouch /pwned\n'\"|touch /pwned&";
    const auto path_of = [](const std::string &protocol, const std::string &host) {
        return protocol.starts_with("cifs") ? "//" + host + "/m/" : host + ":/m/";
    };
    for (const char *protocol : {"cifs", "cifs-ab", "nfs", "ftp", "http", "rsync", "rsync+ssh"}) {
        for (const std::string &host : {std::string("-oProxyCommand=touch /pwned"), std::string(hostile)}) {
            for (const bool upload : {false, true}) {
                SCOPED_TRACE(std::string(protocol) + (upload ? " to " : " from ") + host);
                const std::string side = upload ? "dst" : "src";
                const Settings remote{{side + "_type", "remote"},
                                      {side + "_share_proto", protocol},
                                      {side + "_path", path_of(protocol, host) + hostile},
                                      {side + "_login", hostile},
                                      {side + "_password", hostile},
                                      {side + "_port", hostile},
                                      {"opt_rsync_exclude", hostile},
                                      {"opt_rsync_options", "65535"}};
                const Settings local = upload ? source_share("data", "Pictures") : destination_usb("1", "copy");
                JobFile().job(kJob, incremental(remote + local)).write();
                EXPECT_EQ(run_program({"-e", "7"}).status, 0);
                // A download by FTP that finds no server of that name is not told as a failure.
                const bool ignored = std::string(protocol) == "ftp" && !upload;
                EXPECT_EQ(state_of(kJob), ignored ? "COMPLETED" : "FAILED");
                EXPECT_FALSE(file_exists(kTrace));
            }
        }
    }
}

TEST_F(Hostile, FieldsOfMountedRemotesStartNothing) {
    write_file("/data/Pictures/file", "content");
    // The real one asks a server that does not answer again and again, for minutes.
    const StandIn nfs("/sbin/mount.nfs", "exit 32");
    // Each is short enough to pass every cut-off, and would make the trace by itself. A "/" would end a host's name.
    for (const std::string piece : {"$(touch pwned)", "`touch pwned`", ";touch pwned;", "\ntouch pwned\n",
                                    "&touch pwned&", "x|touch pwned|x", ">pwned", "-o bind"}) {
        const std::pair<const char *, std::string> ends[] = {
            {"cifs", "//" + piece + "/" + piece + "/" + piece},
            {"cifs", "\\\\" + piece + "\\" + piece + "\\" + piece},
            {"cifs", "//127.0.0.1/" + piece},
            {"nfs", piece + ":/" + piece},
            {"nfs", "127.0.0.1:/" + piece + "/" + piece},
        };
        for (const auto &[protocol, path] : ends)
            for (const std::string side : {"src", "dst"}) {
                SCOPED_TRACE(side + " " + protocol + " " + path);
                const Settings remote{{side + "_type", "remote"},
                                      {side + "_share_proto", protocol},
                                      {side + "_path", path},
                                      {side + "_login", piece + "\\" + piece},
                                      {side + "_password", piece}};
                const Settings local = side == "dst" ? source_share("data", "Pictures") : destination_usb("1", "copy");
                JobFile().job(kJob, incremental(remote + local)).write();
                const Baseline baseline;
                EXPECT_EQ(run_program({"-e", "7"}).status, 0);
                EXPECT_EQ(state_of(kJob), "FAILED");
                EXPECT_FALSE(file_exists(kTrace));
                rmdir("/job_007"); // what may be left of an export that could not be mounted
                EXPECT_TRUE(baseline.restored());
            }
    }
}

TEST_F(Hostile, FieldsOfFetchedRemotesStartNothing) {
    for (const std::string piece :
         {"$(touch pwned)", "`touch pwned`", ";touch pwned;", "\ntouch pwned\n", "&touch pwned&", "x|touch pwned|x",
          ">pwned", "--output-document=/pwned", "-O /pwned", "--command=!touch /pwned", "-c !touch pwned",
          "--use-askpass=/bin/touch", "x\nuse_askpass=/opt/touch\n", "x\noutput_document=/pwned\n"}) {
        const std::pair<const char *, std::string> ends[] = {
            {"http", piece},
            {"http", "http://" + piece + "/" + piece},
            {"http", "127.0.0.1/" + piece},
            {"cifs-ab", "//" + piece + "/" + piece + "/" + piece},
            {"cifs-ab", "\\\\" + piece + "\\" + piece + "\\" + piece},
            {"cifs-ab", "//127.0.0.1/" + piece},
            {"cifs-ab", "//127.0.0.1/share/" + piece},
        };
        write_file("/opt/touch", "#!/bin/sh\ntouch /pwned\n", 0755);
        for (const auto &[protocol, path] : ends) {
            SCOPED_TRACE(std::string(protocol) + " " + path);
            const Settings remote{{"src_type", "remote"},    {"src_share_proto", protocol}, {"src_path", path},
                                  {"src_port", "1" + piece}, {"src_login", piece},          {"src_password", piece}};
            JobFile().job(kJob, incremental(remote + destination_usb("1", piece))).write();
            const Baseline baseline;
            EXPECT_EQ(run_program({"-e", "7"}).status, 0);
            EXPECT_EQ(state_of(kJob), "FAILED");
            EXPECT_FALSE(file_exists(kTrace));
            EXPECT_TRUE(baseline.restored());
        }
    }
    remove_tree("/opt/touch");
}

TEST_F(Hostile, ALongJobNameIsCutInTheEventAndEscapedEverywhere) {
    write_file("/data/Pictures/file", "content");
    std::string name = "\"<&>'";
    while (name.size() < 2000)
        name += "<job status=\"0\"/>";
    JobFile()
        .job(kJob,
             incremental(Settings{{"name", name}} + source_share("data", "Pictures") + destination_usb("1", "copy")))
        .write();
    EventReceiver daemon;
    expect_success(run_program({"-e", "7"}));
    const std::vector<std::string> events = daemon.received();
    ASSERT_EQ(events.size(), 1U);
    const std::string start = "<xs:add-s resource-type=\"Backup\"><backup job-id=\"7\" job-name=\"";
    const std::size_t message = events[0].find(start);
    ASSERT_NE(message, std::string::npos) << events[0];
    EXPECT_EQ(events[0].size() - message, 1023U);
    EXPECT_EQ(events[0].find_first_of("<>\"'", message + start.size()), std::string::npos) << events[0];
    EXPECT_TRUE(read_file(history_path(kJob)).starts_with("name: " + name + "\n"));
}

TEST_F(Hostile, AThousandLevelsAreCopied) {
    constexpr int kLevels = 1000;
    make_chain("/media/USB/deep", "d", kLevels);
    JobFile().job(kJob, incremental(source_usb("1", "deep") + destination_share("vault", "Backup", "copy"))).write();
    expect_success(run_program({"-e", "7"}));
    EXPECT_EQ(read_file(chain_path("/vault/Backup/copy", "d", kLevels)), "chain");
    EXPECT_EQ(count_of(read_file("/var/log/tessera/backup/backup_007.log"), "status: 0"), 1U);
    expect_success(run_program({"-e", "7"}));
    EXPECT_EQ(read_file(kept_copy_log_path(kJob)), "");
}

TEST_F(Hostile, PathsBeyondTheBufferEndTheDescentAndNothingElse) {
    const std::string name(255, 'n');
    make_chain("/media/USB/long", name, 20);
    write_file("/media/USB/long/zz", "behind it");
    JobFile().job(kJob, incremental(source_usb("1", "long") + destination_share("vault", "Backup", "copy"))).write();
    const Outcome outcome = run_program({"-e", "7"});
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    for (const int level : {1, 10, 15})
        EXPECT_EQ(read_file(chain_path("/vault/Backup/copy", name, level)), "chain") << level;
    EXPECT_EQ(read_file("/vault/Backup/copy/zz"), "behind it");
}

TEST_F(Hostile, ADestinationInsideItsSourceIsNotCopiedIntoItself) {
    write_file("/data/Pictures/picture", "picture");
    write_file("/data/Documents/document", "document");
    JobFile()
        .job(kJob, incremental(Settings{{"src_type", "volume"}, {"src_share_proto", "data"}} +
                               destination_share("data", "Documents", "copy")))
        .write();
    for (int run = 0; run < 2; ++run) {
        expect_success(run_program({"-e", "7"}));
        EXPECT_EQ(read_file("/data/Documents/copy/Pictures/picture"), "picture");
        EXPECT_EQ(list_folder("/data/Documents/copy/Documents"), std::vector<std::string>{"document"});
    }
}

TEST_F(Hostile, MountsThatLeadBackToTheDestinationEndTheWalk) {
    write_file("/media/USB/source/a/file", "content");
    for (const char *folder : {"/media/USB/source/all", "/media/USB/source/into", "/media/USB/copy/old"})
        make_folder(folder);
    const MountedFor whole("--bind /media/USB", "/media/USB/source/all");
    const MountedFor into("--bind /media/USB/copy", "/media/USB/source/into");
    JobFile().job(kJob, incremental(source_usb("1", "source") + destination_usb("1", "copy"))).write();
    for (int run = 0; run < 2; ++run) {
        expect_success(run_program({"-e", "7"}));
        EXPECT_EQ(read_file("/media/USB/copy/a/file"), "content");
        EXPECT_FALSE(file_exists("/media/USB/copy/into"));
        EXPECT_FALSE(file_exists("/media/USB/copy/all/copy"));
    }
}

TEST_F(Hostile, ASourceThatIsItsOwnDestinationKeepsItsFiles) {
    write_file("/media/USB/same/folder/file", "content");
    write_file("/media/USB/same/empty", "");
    for (const char *full : {"NEVER", "EVERY_TIME"}) {
        SCOPED_TRACE(full);
        JobFile()
            .job(kJob,
                 Settings{{"opt_full_backup_freq", full}} + source_usb("1", "same") + destination_usb("1", "same"))
            .write();
        EXPECT_EQ(run_program({"-e", "7"}).status, 0);
        EXPECT_EQ(read_file("/media/USB/same/folder/file"), "content");
        EXPECT_EQ(malformed_error_lines(kJob), std::vector<std::string>{});
    }
}

TEST_F(Hostile, ADestinationThatHoldsItsSourceIsNotEmptied) {
    const Settings full{{"opt_full_backup_freq", "EVERY_TIME"}, {"opt_remove_previous_backup", "1"}};
    for (const char *path : {"same", "", "same/folder/.."}) {
        SCOPED_TRACE(path);
        write_file("/media/USB/same/folder/file", "content");
        write_file("/media/USB/same/source", "source");
        JobFile().job(kJob, full + source_usb("1", "same") + destination_usb("1", path)).write();
        EXPECT_EQ(run_program({"-e", "7"}).status, 0);
        EXPECT_EQ(read_file("/media/USB/same/folder/file"), "content");
        EXPECT_EQ(read_file("/media/USB/same/source"), "source");
    }
    // A folder beside the source is emptied.
    write_file("/media/USB/same too/old", "old");
    JobFile().job(kJob, full + source_usb("1", "same") + destination_usb("1", "same too")).write();
    expect_success(run_program({"-e", "7"}));
    EXPECT_TRUE(same_trees("/media/USB/same", "/media/USB/same too"));
}

namespace {

/// Runs the job and returns the most memory that the worker has held, in KiB, as seen shortly before its end.
long peak_memory() {
    Program worker({"-e", "7"});
    long peak = 0;
    const std::string status = "/proc/" + std::to_string(worker.pid()) + "/status";
    wait_until(
        [&] {
            const std::string text = read_file(status);
            const std::size_t at = text.find("VmHWM:");
            if (at != std::string::npos) peak = std::max(peak, std::strtol(text.c_str() + at + 6, nullptr, 10));
            return !worker.running();
        },
        std::chrono::minutes(5));
    expect_success(worker.wait());
    return peak;
}

void make_empty_files(const std::string &folder, int from, int to) {
    make_folder(folder);
    for (int number = from; number < to; ++number) {
        const std::string path = folder + "/entry" + std::to_string(number);
        const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        if (fd < 0) throw std::runtime_error("cannot make " + path);
        close(fd);
    }
}

} // namespace

TEST_F(Hostile, AFolderOfAHundredThousandEntriesCostsHardlyMoreMemoryThanASmallOne) {
    constexpr int kFew = 1000;
    constexpr int kMany = 100'000;
    make_empty_files("/media/USB/many", 0, kFew);
    JobFile().job(kJob, incremental(source_usb("1", "many") + destination_share("vault", "Backup", "copy"))).write();
    const long few = peak_memory();
    make_empty_files("/media/USB/many", kFew, kMany);
    const long many = peak_memory();
    EXPECT_EQ(list_folder("/vault/Backup/copy").size(), static_cast<std::size_t>(kMany));
    EXPECT_GT(few, 0);
#ifndef __SANITIZE_ADDRESS__ // which holds back what is freed
    constexpr long kNamesOfTheFolder = 8L * 1024;
    EXPECT_LT(many, few + kNamesOfTheFolder);
    EXPECT_LT(many, 32L * 1024);
#endif
    RecordProperty("peak_few_kib", static_cast<int>(few));
    RecordProperty("peak_many_kib", static_cast<int>(many));
    std::printf("peak memory: %ld KiB for %d entries, %ld KiB for %d\n", few, kFew, many, kMany);
}

} // namespace tsbackup::test
