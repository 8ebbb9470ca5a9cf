// The shared support of the black-box tests: what it claims to see, it sees.

#include "appliance_support.h"

#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

namespace tsbackup::test {
namespace {

class Support : public testing::Test {
  protected:
    void SetUp() override { reset_appliance(); }
};

/// Two trees of the same seed, one of them below the path.
void make_twins(const std::string &a, const std::string &b) {
    make_tree(a);
    make_tree(b);
}

std::string first_file(const std::string &folder) {
    return shell_output("find " + folder + " -type f -size +0 | sort | head -n 1 | tr -d '\\n'");
}

TEST_F(Support, TreesOfOneSeedAreEqualAndOfAnotherDiffer) {
    make_twins("/tmp/a", "/tmp/b");
    EXPECT_TRUE(same_trees("/tmp/a", "/tmp/b"));
    make_tree("/tmp/c", {.seed = 2});
    EXPECT_FALSE(same_trees("/tmp/a", "/tmp/c"));
}

TEST_F(Support, EveryKindOfDifferenceIsFound) {
    const struct {
        const char *command;
        const char *told;
        bool needs_users;
    } cases[] = {
        {"rm \"$f\"", "is missing", false},
        {"touch /tmp/b/more", "is too many", false},
        {"chmod 0711 \"$f\"", "mode is 0711", false},
        {"chown 1234 \"$f\"", "owner is 1234:", true},
        {"touch -d '2001-01-01 00:00:00.000000001Z' \"$f\"", "time is 978307200.000000001", false},
        {"printf X | dd of=\"$f\" conv=notrunc bs=1", "the bytes differ from offset 0 on", false},
        {"echo more >> \"$f\"", "size is", false},
        {"setfacl -m u:0:--x \"$f\"", "access list is", false},
        {"setfacl -d -m u:0:--x /tmp/b/folder0", "default list is", false},
        {"rm \"$f\"; ln -s target \"$f\"", "type is", false},
    };
    for (const auto &[command, told, needs_users] : cases) {
        if (needs_users && !is_real_root()) continue;
        remove_tree("/tmp/a");
        remove_tree("/tmp/b");
        make_twins("/tmp/a", "/tmp/b");
        shell_output("f='" + first_file("/tmp/b") + "'; " + command);
        std::string all;
        for (const std::string &difference : tree_differences("/tmp/a", "/tmp/b"))
            all += difference + "\n";
        EXPECT_NE(all.find(told), std::string::npos) << command << "\n" << all;
    }
}

TEST_F(Support, ChangedTreeDiffersAndLosesNothing) {
    make_twins("/tmp/a", "/tmp/b");
    change_tree("/tmp/b", 5);
    const std::vector<std::string> differences = tree_differences("/tmp/a", "/tmp/b");
    EXPECT_GT(differences.size(), 3U);
    for (const std::string &difference : differences)
        EXPECT_EQ(difference.find("is missing"), std::string::npos) << difference;
}

TEST_F(Support, StatusWatcherSeesEveryContentInItsOrder) {
    if (!is_real_root()) GTEST_SKIP() << "needs root on the machine: contents replaced within a moment can be missed";
    StatusWatcher watcher(7);
    std::vector<std::string> expected;
    for (int number = 0; number < 200; ++number) {
        expected.push_back("state " + std::to_string(number) + "\n");
        std::ofstream(status_path(7)) << expected.back();
    }
    EXPECT_EQ(watcher.seen(), expected);
}

TEST_F(Support, StatusWatcherSeesTheLastContentEverywhere) {
    write_file(status_path(3), "before\n");
    StatusWatcher watcher(3);
    write_file(status_path(3), "after\n");
    EXPECT_EQ(watcher.seen(), (std::vector<std::string>{"before\n", "after\n"}));
}

TEST_F(Support, ProgramTellsStatusAndBothOutputs) {
    ProgramOptions options;
    options.program = "/bin/sh";
    options.environment = {{"WORD", "said"}};
    const Outcome outcome = run_program({"-c", "echo $WORD; echo wrong >&2; exit 3"}, options);
    EXPECT_EQ(outcome.status, 3);
    EXPECT_EQ(outcome.out, "said\n");
    EXPECT_EQ(outcome.err, "wrong\n");

    Program sleeper({"-c", "exec sleep 600"}, options);
    EXPECT_TRUE(sleeper.running());
    sleeper.signal(SIGTERM);
    EXPECT_EQ(sleeper.wait().status, 128 + SIGTERM);
}

TEST_F(Support, PreloadedLibraryShortensWaitsAndNotesThem) {
    ProgramOptions options;
    options.preload = {kShortWaits};
    options.environment = {{"SHORT_WAITS_LOG", "/tmp/waits"}};
    EXPECT_EQ(run_program({"7"}, options).status, 0);
    EXPECT_EQ(read_file("/tmp/waits").substr(0, 9), "0.140000\n");
}

TEST_F(Support, JobFileEscapesValuesAndKeepsTheirOrder) {
    EXPECT_EQ(JobFile().job(3, {{"name", "a<b & c"}, {"src_path", ""}}).button_jobs({1, 3}).xml(),
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<backupJobs>\n  <backupJob>\n    <job_id>3</job_id>\n"
              "    <name>a&lt;b &amp; c</name>\n    <src_path></src_path>\n  </backupJob>\n  <backupButtonJobs>\n"
              "    <backupButtonJob>1</backupButtonJob>\n    <backupButtonJob>3</backupButtonJob>\n"
              "  </backupButtonJobs>\n</backupJobs>\n");
}

TEST_F(Support, TextsAreComparedLineByLine) {
    EXPECT_TRUE(same_text("a\nb\n", "a\nb\n"));
    const testing::AssertionResult result = same_text("a\nb\nc\n", "a\nx\nc\n");
    EXPECT_FALSE(result);
    EXPECT_NE(std::string(result.message()).find("  a\n- b\n+ x\n  c\n"), std::string::npos) << result.message();
    EXPECT_FALSE(same_text("a\n", "a"));
    EXPECT_EQ(with_placeholders("start: 1795230749 in /tmp/x", {{"/tmp/x", "FOLDER"}}), "start: TIME in FOLDER");
}

TEST_F(Support, ResetBringsBackTheBeginning) {
    const std::string before =
        shell_output("cd / && find apps data vault media home var/log/tessera run/zelkovad etc/tessera "
                     "-printf '%p %y %m %U %G\\n' | sort; cat /etc/tessera/usb/storage.conf "
                     "/etc/default/services; getfacl -R /data /vault");
    make_tree("/data/Pictures/tree");
    make_tree("/media/USB/tree");
    make_share("data", "Extra");
    write_file("/home/alice/.hidden", "x");
    write_file(status_path(1), "x");
    write_file("/apps/.backup/x", "x");
    write_file("/etc/tessera/usb/storage.conf", "");
    unlink("/var/run/zelkovad/tsbackup-q");
    write_file(pid_path(1), "1");
    shell_output(
        "setfacl -d -m u:1001:rwx /data/Pictures; chmod 700 /data/Pictures; mkdir -p /data/._share/Pictures/.snapshot; "
        "btrfs subvolume snapshot -r /data/Pictures /data/._share/Pictures/.snapshot/b_1_2");
    reset_appliance();
    EXPECT_TRUE(same_text(before, shell_output("cd / && find apps data vault media home var/log/tessera run/zelkovad "
                                               "etc/tessera -printf '%p %y %m %U %G\\n' | sort; cat "
                                               "/etc/tessera/usb/storage.conf /etc/default/services; getfacl -R /data "
                                               "/vault")));
}

TEST_F(Support, InstalledProgramIsFoundAndTellsItsUsage) {
    const Outcome outcome = run_program({});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.out.find("[-v N] [-V] -e jobid"), std::string::npos) << outcome.out << outcome.err;
}

} // namespace
} // namespace tsbackup::test
