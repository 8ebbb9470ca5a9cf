#include "tsbackup_utils.h"

#include "support.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <unistd.h>

using namespace tsbackup;
using namespace tsbackup::test;

namespace {

const std::string kTool = "/sbin/btrfs";
const std::string kToolAside = "/sbin/btrfs.aside";
const std::string kCalls = "/tmp/btrfs-calls";

/// Stands in for the tool in this appliance: notes each argument on a line of its own and, when told to delete a
/// folder whose name does not say "busy", removes it.
constexpr char kRecordingTool[] = R"(#!/bin/sh
printf '%s\n' "btrfs" "$@" >>/tmp/btrfs-calls
case $3 in *busy*) exit 1 ;; esac
rm -r "$3"
)";

class SnapshotCleanup : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_APPLIANCE();
        if (file_exists(kTool)) {
            ASSERT_EQ(rename(kTool.c_str(), kToolAside.c_str()), 0);
        }
        write_file(kTool, kRecordingTool, 0755);
        prepared_ = true;
    }

    void TearDown() override {
        if (!prepared_) return;
        unlink(kTool.c_str());
        if (file_exists(kToolAside)) {
            EXPECT_EQ(rename(kToolAside.c_str(), kTool.c_str()), 0);
        }
        remove_tree(kCalls);
        for (const std::string &path : volumes_)
            remove_tree(path);
    }

    /// Snapshots' folder of a share.
    std::string share(const std::string &volume, const std::string &name) {
        volumes_.push_back("/" + volume);
        const std::string path = "/" + volume + "/._share/" + name + "/.snapshot";
        make_folder(path);
        return path + "/";
    }

    /// The snapshots that the tool was asked to delete, sorted.
    static std::vector<std::string> deleted() {
        std::vector<std::string> paths;
        std::string calls = read_file(kCalls);
        const std::string start = "btrfs\nsubvolume\ndelete\n";
        while (calls.starts_with(start)) {
            const std::size_t next = std::min(calls.find("\n" + start, 1), calls.size() - 1);
            paths.push_back(calls.substr(start.size(), next - start.size()));
            calls.erase(0, next + 1);
        }
        EXPECT_EQ(calls, "") << "a call of another form";
        std::sort(paths.begin(), paths.end());
        return paths;
    }

    static std::string sorted_lines(const std::string &text) {
        std::vector<std::string> lines = str_split_all(text, "\n");
        std::sort(lines.begin(), lines.end());
        std::string sorted;
        for (const std::string &line : lines)
            if (!line.empty()) sorted += line + "\n";
        return sorted;
    }

    bool prepared_ = false;
    std::vector<std::string> volumes_;
};

TEST_F(SnapshotCleanup, WithZeroEveryJobSnapshotOfEveryShareGoes) {
    const std::string pictures = share("cleanup1", "Pictures");
    const std::string music = share("cleanup1", "Music");
    const std::string backup = share("cleanup2", "Backup");
    for (const std::string &path : {pictures + "b_1_100", pictures + "b_2_200", music + "b_3_4711", backup + "b_0_1",
                                    backup + "b_", backup + "b_manual"})
        make_folder(path + "/content");

    const Diagnostics diagnostics(5);
    backup_snapshot_cleanup(0);
    EXPECT_EQ(deleted(), (std::vector<std::string>{music + "b_3_4711", pictures + "b_1_100", pictures + "b_2_200",
                                                   backup + "b_", backup + "b_0_1", backup + "b_manual"}));
    EXPECT_EQ(sorted_lines(diagnostics.without_places()),
              "(notice) Clean up old snapshot " + music + "b_3_4711\n" + //
                  "(notice) Clean up old snapshot " + pictures + "b_1_100\n" + "(notice) Clean up old snapshot " +
                  pictures + "b_2_200\n" +                              //
                  "(notice) Clean up old snapshot " + backup + "b_\n" + //
                  "(notice) Clean up old snapshot " + backup + "b_0_1\n" + "(notice) Clean up old snapshot " + backup +
                  "b_manual\n");
}

TEST_F(SnapshotCleanup, WithAProcessOnlyItsSnapshotsGo) {
    const struct {
        const char *name;
        const char *snapshot;
        std::uint32_t pid;
        bool goes;
    } cases[] = {
        {"its process", "b_3_4711", 4711, true},
        {"its job number", "b_3_4711", 3, false},
        {"another process", "b_3_4711", 4712, false},
        {"a number that begins alike", "b_3_47110", 4711, false},
        {"a number that ends alike", "b_3_14711", 4711, false},
        {"only one number", "b_4711", 4711, true},
        {"leading zeros", "b_3_004711", 4711, true},
        {"text behind the number", "b_3_4711x", 4711, true},
        {"a number that is not the last", "b_4711_x", 4711, false},
        {"no number at all", "b_", 4711, false},
        {"the largest process id", "b_3_4294967295", 4294967295, true},
    };
    const std::string snapshots = share("cleanup1", "Pictures");
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        remove_tree(kCalls);
        make_folder(snapshots + c.snapshot);
        const Diagnostics diagnostics(5);
        backup_snapshot_cleanup(c.pid);
        EXPECT_EQ(deleted(), c.goes ? std::vector<std::string>{snapshots + c.snapshot} : std::vector<std::string>{});
        EXPECT_EQ(diagnostics.without_places(),
                  c.goes ? std::string("(notice) Clean up old snapshot ") + snapshots + c.snapshot + "\n" : "");
        remove_tree(snapshots + c.snapshot);
    }
}

TEST_F(SnapshotCleanup, WhatIsNoJobSnapshotStays) {
    const std::string snapshots = share("cleanup1", "Pictures");
    write_file(snapshots + "b_x", "a regular file");
    make_folder(snapshots + "daily_1");
    make_folder(snapshots + "B_1_2");
    make_folder(snapshots + "b1_2");
    make_folder(snapshots + ".b_1_2");
    make_folder(snapshots + "a/b_1_2");
    make_folder(share(".cleanup2", "Pictures") + "b_1_2");
    make_folder(share("cleanup3", ".Pictures") + "b_1_2");
    make_folder("/cleanup1/._share/Empty");
    make_folder("/cleanup1/share/Pictures/.snapshot/b_1_2");
    write_file("/cleanup1/._share/File/.snapshot", "no folder");
    write_file("/cleanup1/._share/plain", "no folder");
    volumes_.emplace_back("/cleanup4");
    write_file("/cleanup4/._share", "no folder");

    const Diagnostics diagnostics(5);
    backup_snapshot_cleanup(0);
    EXPECT_EQ(deleted(), std::vector<std::string>{});
    EXPECT_EQ(diagnostics.text(), "");
}

TEST_F(SnapshotCleanup, ALinkNeverLeadsTheDeletionElsewhere) {
    const std::string snapshots = share("cleanup1", "Pictures");
    make_folder("/cleanup1/precious");
    ASSERT_EQ(symlink("/cleanup1/precious", (snapshots + "b_1_2").c_str()), 0);
    const Diagnostics diagnostics(5);
    backup_snapshot_cleanup(0);
    EXPECT_EQ(deleted(), std::vector<std::string>{});
    EXPECT_TRUE(file_exists("/cleanup1/precious"));
    EXPECT_EQ(diagnostics.text(), "");
}

TEST_F(SnapshotCleanup, ASnapshotThatCannotBeDeletedIsLoggedAndTheWalkGoesOn) {
    const std::string first = share("cleanup1", "Pictures") + "b_busy_4711";
    const std::string second = share("cleanup2", "Backup") + "b_1_4711";
    make_folder(first);
    make_folder(second);
    const Diagnostics diagnostics(5);
    backup_snapshot_cleanup(4711);
    EXPECT_EQ(deleted(), (std::vector<std::string>{first, second}));
    EXPECT_TRUE(file_exists(first));
    EXPECT_FALSE(file_exists(second));
    EXPECT_EQ(sorted_lines(diagnostics.without_places()), "(error) Cannot delete snapshot at this time. " + first +
                                                              "\n(notice) Clean up old snapshot " + first +
                                                              "\n(notice) Clean up old snapshot " + second + "\n");
}

TEST_F(SnapshotCleanup, ANameIsOneWordOfTheCommandWhateverItHolds) {
    const std::vector<std::string> names = {
        "My Pictures", "a;touch intruder", "$(touch intruder)", "it's", "line\nbreak", "~", "#x"};
    std::vector<std::string> expected;
    for (const std::string &name : names) {
        expected.push_back(share("cleanup1", name) + "b_1_2");
        make_folder(expected.back());
    }
    std::sort(expected.begin(), expected.end());
    const Diagnostics diagnostics(3);
    backup_snapshot_cleanup(2);
    EXPECT_EQ(deleted(), expected);
    EXPECT_FALSE(file_exists("intruder"));
    EXPECT_EQ(diagnostics.text(), "");
}

TEST_F(SnapshotCleanup, ALongCommandIsNeverCut) {
    // Every name may have 255 bytes, and every byte of it may take three in the command.
    const std::string name(255, '\n');
    std::string path = share("cleanup" + std::string(248, '\n'), name) + "b_" + std::string(251, '\n') + "_2";
    make_folder(path);
    const Diagnostics diagnostics(3);
    backup_snapshot_cleanup(2);
    EXPECT_EQ(deleted(), std::vector<std::string>{path});
    EXPECT_EQ(diagnostics.text(), "");
}

TEST_F(SnapshotCleanup, TheCommandIsTheOneThatAdministratorsKnow) {
    const std::string snapshots = share("cleanup1", "Pictures");
    make_folder(snapshots + "b_1_2");
    const Diagnostics diagnostics(7);
    backup_snapshot_cleanup(2);
    EXPECT_NE(diagnostics.text().find("/sbin/btrfs subvolume delete /cleanup1/._share/Pictures/.snapshot/b_1_2"),
              std::string::npos)
        << diagnostics.text();
}

} // namespace
