// Shares on data volumes are read from a snapshot.

#include "local_ends.h"
#include "tsbackup/paths.h"
#include "tsbackup_local.h"
#include "tsbackup_utils.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/wait.h>
#include <unistd.h>

namespace tsbackup::test {

namespace {

using testing::HasSubstr;
using Calls = std::vector<std::vector<std::string>>;

/// The name of a snapshot that this process takes for a job.
std::string snapshot_name(int job_id = 7) { return "b_" + std::to_string(job_id) + "_" + std::to_string(getpid()); }

// ---- the steps, with a tool that fails -------------------------------------------------------------------------

class SnapshotSteps : public LocalEnds {
  protected:
    void SetUp() override {
        LocalEnds::SetUp();
        if (IsSkipped()) return;
        make_folder("/volume/share/photos");
        make_folder("/volume/._share");
        tool_.emplace(SnapshotTool::Behaviour::fails);
    }
    void TearDown() override {
        tool_.reset();
        LocalEnds::TearDown();
    }
    Calls calls() { return tool_->calls(); }

  private:
    std::optional<SnapshotTool> tool_;
};

TEST_F(SnapshotSteps, RunTheToolThroughTheShell) {
    const Diagnostics diagnostics;
    LoggedRun run;
    static_cast<void>(local_path_resolve(job_from("share", "share", "volume", "photos"), run, Side::source));
    const std::string path = "/volume/._share/share/.snapshot/" + snapshot_name();
    EXPECT_EQ(calls(), (Calls{{"subvolume", "snapshot", "-r", "/volume/share", path}}));
    EXPECT_THAT(diagnostics.without_places(),
                HasSubstr("(debug) cmd=/sbin/btrfs subvolume snapshot -r /volume/share " + path + "\n"));
    EXPECT_EQ(run.snapshot_path, path);
}

TEST_F(SnapshotSteps, NameTheSnapshotAfterTheJob) {
    for (const int job_id : {0, 1, 42, 1000, 2147483647}) {
        LoggedRun run;
        run.job_id = job_id;
        static_cast<void>(local_path_resolve(job_from("share", "share", "volume", "photos"), run, Side::source));
        EXPECT_EQ(run.snapshot_path, "/volume/._share/share/.snapshot/" + snapshot_name(job_id));
    }
}

TEST_F(SnapshotSteps, ShowAFailureByTheMissingPathInsideTheSnapshot) {
    struct {
        JobText path;
        const char *shown;
    } const cases[] = {{"photos", "/photos"}, {"photos/", "/photos/"}, {"", "/"}, {std::nullopt, "/"}};
    for (const auto &source : cases) {
        SCOPED_TRACE(source.shown);
        LoggedRun run;
        EXPECT_EQ(local_path_resolve(job_from("share", "share", "volume", source.path), run, Side::source),
                  std::nullopt);
        const std::string shown = "/volume/._share/share/.snapshot/" + snapshot_name() + source.shown;
        EXPECT_TRUE(run.recorded(5, "'" + shown + "' not exists", "Path " + shown + " does not exist!\n"));
        ASSERT_EQ(calls().size(), 1U) << "there is nothing to delete";
    }
}

TEST_F(SnapshotSteps, MakeTheFoldersOfTheShare) {
    struct {
        mode_t mask, expected;
    } const cases[] = {{022, 0755}, {0, 0755}, {077, 0700}};
    for (const auto &masked : cases) {
        const Umask umask(masked.mask);
        remove_tree("/volume/._share/share");
        LoggedRun run;
        static_cast<void>(local_path_resolve(job_from("share", "share", "volume", {}), run, Side::source));
        EXPECT_EQ(mode_of("/volume/._share/share"), masked.expected);
        EXPECT_EQ(mode_of("/volume/._share/share/.snapshot"), masked.expected);
    }
}

TEST_F(SnapshotSteps, LeaveExistingFoldersAsTheyAre) {
    make_folder("/volume/._share/share/.snapshot/b_1_1");
    chmod("/volume/._share/share", 0711);
    chmod("/volume/._share/share/.snapshot", 0700);
    LoggedRun run;
    static_cast<void>(local_path_resolve(job_from("share", "share", "volume", {}), run, Side::source));
    EXPECT_EQ(mode_of("/volume/._share/share"), 0711U);
    EXPECT_EQ(mode_of("/volume/._share/share/.snapshot"), 0700U);
    EXPECT_TRUE(file_exists("/volume/._share/share/.snapshot/b_1_1"));
}

TEST_F(SnapshotSteps, DoNotMakeTheVolumesOwnFolder) {
    remove_tree("/volume/._share");
    LoggedRun run;
    EXPECT_EQ(local_path_resolve(job_from("share", "share", "volume", {}), run, Side::source), std::nullopt);
    EXPECT_FALSE(file_exists("/volume/._share"));
    EXPECT_EQ(calls().size(), 1U) << "the tool is asked all the same";
    EXPECT_EQ(run.error_code, 5);
}

TEST_F(SnapshotSteps, AreForSharesOnVolumesWhosePathExists) {
    make_folder("/media/DISK/photos");
    make_folder("/media/._share");
    make_folder("/home/alice");
    make_folder("/volume/.timemachine");
    const struct {
        const char *name;
        JobText type, share_proto, share_vol, path;
    } cases[] = {
        {"share on a disk", "share", "DISK", "media", "photos"},
        {"missing path", "share", "share", "volume", "missing"},
        {"missing share", "share", "missing", "volume", {}},
        {"short name", "share", "share~1", "volume", {}},
        {"volume", "volume", "volume", {}, {}},
        {"home", "home", "alice", {}, {}},
        {"timemachine", "timemachine", {}, "volume", {}},
        {"disk", "usb", "usb_port_1", {}, {}},
    };
    for (const auto &source : cases) {
        SCOPED_TRACE(source.name);
        LoggedRun run;
        const BackupJob job = job_from(source.type, source.share_proto, source.share_vol, source.path);
        static_cast<void>(local_path_resolve(job, run, Side::source));
        EXPECT_EQ(calls(), Calls());
        EXPECT_FALSE(run.snapshot_path);
    }
    EXPECT_EQ(list_folder("/volume/._share"), std::vector<std::string>());
    remove_tree("/media/._share");
}

TEST_F(SnapshotSteps, AreNotForDestinations) {
    LoggedRun run;
    static_cast<void>(local_path_resolve(job_to("share", "share", "volume", {}), run, Side::destination));
    EXPECT_EQ(calls(), Calls());
    EXPECT_FALSE(run.snapshot_path);
}

TEST_F(SnapshotSteps, SkipTheSharesOwnSnapshots) {
    struct {
        const char *name;
        std::optional<std::string> settings;
        std::optional<std::string> expected; ///< below the snapshot
    } const cases[] = {
        {"absolute folder", "/volume/share/.snapshots\n", ".snapshots"},
        {"relative folder", "share/own", "own"},
        {"deep folder: the last name counts", "/volume/share/a/b/own", "own"},
        {"first line counts", "/volume/share/own\n/volume/share/other\n", "own"},
        {"white space at the end", "/volume/share/own \t\r\n", "own"},
        {"blanks in the name", "/volume/share/My Snapshots\n", "My Snapshots"},
        {"slash at the end", "/volume/share/\n", ""},
        {"slash alone", "/", ""},
        {"no slash", "own\n", std::nullopt},
        {"slash on the second line", "own\n/volume/share/own\n", std::nullopt},
        {"empty", "", std::nullopt},
        {"empty line", "\n", std::nullopt},
        {"missing", std::nullopt, std::nullopt},
        {"line of 4095 bytes", "/" + std::string(4094, 'n') + "\n", std::string(4094, 'n')},
        {"longer line", "/" + std::string(5000, 'n') + "\n", std::string(4094, 'n')},
    };
    for (const auto &share : cases) {
        SCOPED_TRACE(share.name);
        remove_tree("/volume/._share/share");
        if (share.settings) write_file("/volume/._share/share/snapdir.conf", *share.settings);
        LoggedRun run;
        static_cast<void>(local_path_resolve(job_from("share", "share", "volume", {}), run, Side::source));
        EXPECT_EQ(run.snapshot_skip_path,
                  share.expected ? JobText(*run.snapshot_path + "/" + *share.expected) : JobText());
    }
}

// ---- names in the commands -------------------------------------------------------------------------------------

const char *const kHostileNames[] = {
    "two words",
    " blank first",
    "tab\tbetween",
    "it's",
    "double\"quote",
    "a;touch started",
    "$(touch started)",
    "`touch started`",
    "a&touch started",
    "a|touch started",
    "a>started",
    "new\nline",
    "a\ntouch started",
    "return\rhere",
    "back\\slash",
    "back\\\\",
    "star*",
    "quest?ion",
    "[a-z]",
    "{a,b}",
    "#comment",
    "a #comment",
    "~root",
    "-r",
    "!history",
    "^caret",
    "$HOME",
    "%s%n",
    "a=b",
    "\xc3\xa9t\xc3\xa9",
    "\xff\xfe",
    "(sub)",
    "<in",
    "a;",
    "tail\n",
    "\x01\x7f",
};

TEST_F(SnapshotSteps, HandEveryNameOverAsOneWord) {
    for (const std::string name : kHostileNames) {
        const struct {
            std::string volume, share, path;
        } cases[] = {{name, "share", "photos"}, {"volume", name, "photos"}, {"volume", "share", name}};
        for (const auto &source : cases) {
            SCOPED_TRACE("/" + source.volume + "/" + source.share + "/" + source.path);
            const std::string volume = "/" + source.volume;
            make_folder(volume + "/" + source.share + "/" + source.path);
            make_folder(volume + "/._share");
            LoggedRun run;
            const BackupJob job = job_from("share", source.share, source.volume, source.path);
            EXPECT_EQ(local_path_resolve(job, run, Side::source), std::nullopt);
            const std::string snapshot = volume + "/._share/" + source.share + "/.snapshot/" + snapshot_name();
            EXPECT_EQ(run.snapshot_path, snapshot);
            EXPECT_EQ(calls(), (Calls{{"subvolume", "snapshot", "-r", volume + "/" + source.share, snapshot}}));

            local_endpoint_release(job, run, "/", Side::source);
            EXPECT_EQ(calls(), (Calls{{"subvolume", "delete", snapshot}}));
            if (source.volume == name) remove_tree(volume);
        }
    }
}

/// A volume (of nested folders) for which the command that takes the snapshot is of this length.
std::string volume_for_command_of(std::size_t length) {
    const std::string fixed = "/sbin/btrfs subvolume snapshot -r //share //._share/share/.snapshot/" + snapshot_name();
    std::size_t left = length - fixed.size();
    if (left % 2 != 0) return "";
    std::string volume = "volume";
    for (left = left / 2 - volume.size(); left > 0;) {
        const std::size_t name = left <= 201 ? left - 1 : std::min<std::size_t>(200, left - 3);
        volume += "/" + std::string(name, 'd');
        left -= name + 1;
    }
    return volume;
}

TEST_F(SnapshotSteps, RunNoCommandThatWouldBeCut) {
    // Both lengths of one parity; the job's number makes up for the other.
    for (const std::size_t length : {2046U, 2047U, 2048U, 2049U, 3000U}) {
        SCOPED_TRACE(length);
        LoggedRun run;
        std::string volume = volume_for_command_of(length);
        if (volume.empty()) {
            run.job_id = 42;
            volume = volume_for_command_of(length - 1);
        }
        make_folder("/" + volume + "/share");
        make_folder("/" + volume + "/._share");
        EXPECT_EQ(local_path_resolve(job_from("share", "share", volume, {}), run, Side::source), std::nullopt);
        EXPECT_EQ(run.error_code, 5);
        const Calls made = calls();
        if (length > 2047) {
            EXPECT_EQ(made, Calls());
        } else {
            ASSERT_EQ(made.size(), 1U);
            EXPECT_EQ(made[0].at(4), run.snapshot_path) << "the last word is whole";
            std::size_t whole = std::strlen("/sbin/btrfs");
            for (const std::string &word : made[0])
                whole += 1 + word.size();
            EXPECT_EQ(whole, length);
        }
    }
}

TEST_F(SnapshotSteps, RunNoCommandThatEscapingMakesTooLong) {
    const std::string name(250, '$');
    make_folder("/volume/" + name + "/" + name + "/" + name + "/share");
    make_folder("/volume/" + name + "/" + name + "/" + name + "/._share");
    LoggedRun run;
    const BackupJob job = job_from("share", "share", "volume/" + name + "/" + name + "/" + name, {});
    EXPECT_EQ(local_path_resolve(job, run, Side::source), std::nullopt);
    EXPECT_EQ(calls(), Calls());
    EXPECT_EQ(run.error_code, 5);
}

// ---- real snapshots --------------------------------------------------------------------------------------------

class Snapshot : public LocalEndsOnVolumes {
  protected:
    void SetUp() override {
        LocalEndsOnVolumes::SetUp();
        if (IsSkipped()) return;
        make_share("share");
        write_file("/data/share/photos/a.jpg", "a");
        write_file("/data/share/file.txt", "text");
    }
    static std::vector<std::string> snapshots() { return list_folder("/data/._share/share/.snapshot"); }
};

TEST_F(Snapshot, IsTheSource) {
    struct {
        JobText path;
        const char *below;
        int is_folder;
    } const cases[] = {
        {std::nullopt, "", 1},        {"", "", 1}, {"photos", "/photos", 1}, {"//photos/./", "/photos", 1},
        {"file.txt", "/file.txt", 0},
    };
    for (const auto &source : cases) {
        SCOPED_TRACE(source.below);
        LoggedRun run;
        run.src_is_dir = -1;
        const BackupJob job = job_from("share", "share", "data", source.path);
        const auto path = local_path_resolve(job, run, Side::source);
        ASSERT_EQ(path, "/data/._share/share/.snapshot/" + snapshot_name() + source.below);
        EXPECT_TRUE(run.silent());
        EXPECT_EQ(run.src_is_dir, source.is_folder);
        EXPECT_EQ(run.fsid, file_system_id(*path));
        local_endpoint_release(job, run, *path, Side::source);
        EXPECT_EQ(snapshots(), std::vector<std::string>());
    }
}

TEST_F(Snapshot, IsFrozenAndReadOnly) {
    LoggedRun run;
    const BackupJob job = job_from("share", "share", "data", {});
    const auto path = local_path_resolve(job, run, Side::source);
    ASSERT_TRUE(path);
    write_file("/data/share/photos/a.jpg", "changed");
    write_file("/data/share/photos/b.jpg", "b");
    EXPECT_EQ(read_file(*path + "/photos/a.jpg"), "a");
    EXPECT_FALSE(file_exists(*path + "/photos/b.jpg"));
    EXPECT_EQ(open((*path + "/new").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600), -1);
    EXPECT_EQ(errno, EROFS);
    local_endpoint_release(job, run, *path, Side::source);
}

TEST_F(Snapshot, IsDeletedAndForgottenWhenTheSourceIsReleased) {
    write_file("/data/._share/share/snapdir.conf", "/data/share/.snapshots\n");
    LoggedRun run;
    BackupJob job = job_from("share", "share", "data", {});
    job.src_eject = "0";
    const auto path = local_path_resolve(job, run, Side::source);
    ASSERT_TRUE(path);
    ASSERT_TRUE(run.snapshot_path);
    ASSERT_TRUE(run.snapshot_skip_path);
    EXPECT_EQ(snapshots(), std::vector<std::string>{snapshot_name()});

    local_endpoint_release(job, run, "/media/USB", Side::destination);
    EXPECT_EQ(snapshots(), std::vector<std::string>{snapshot_name()}) << "the destination's release leaves it";
    EXPECT_TRUE(run.snapshot_path);

    local_endpoint_release(job, run, *path, Side::source);
    EXPECT_EQ(snapshots(), std::vector<std::string>());
    EXPECT_FALSE(run.snapshot_path);
    EXPECT_FALSE(run.snapshot_skip_path);
    EXPECT_TRUE(run.silent());
}

TEST_F(Snapshot, OfHostilelyNamedSharesIsTakenAndDeleted) {
    for (const std::string name :
         {"two words", "it's", "a;touch started", "$(touch started)", "new\nline", "#comment"}) {
        SCOPED_TRACE(name);
        const std::filesystem::path share = std::filesystem::path("/data") / name;
        ASSERT_EQ(shell_output("btrfs subvolume create " + shell_word(share.native()) + " >/dev/null"), "");
        make_folder(share / name);
        LoggedRun run;
        const BackupJob job = job_from("share", name, "data", name);
        const auto path = local_path_resolve(job, run, Side::source);
        const std::filesystem::path folder = std::filesystem::path("/data/._share") / name / ".snapshot";
        EXPECT_EQ(path, (folder / snapshot_name() / name).native());
        ASSERT_TRUE(path);
        local_endpoint_release(job, run, *path, Side::source);
        EXPECT_EQ(list_folder(folder), std::vector<std::string>());
    }
}

TEST_F(Snapshot, WithoutTheWantedFolderInItDoesNotStayBehind) {
    // A subvolume inside the share is an empty folder in the share's snapshot.
    ASSERT_EQ(shell_output("btrfs subvolume create /data/share/inner >/dev/null"), "");
    make_folder("/data/share/inner/deep");
    LoggedRun run;
    EXPECT_EQ(local_path_resolve(job_from("share", "share", "data", "inner/deep"), run, Side::source), std::nullopt);
    const std::string shown = "/data/._share/share/.snapshot/" + snapshot_name() + "/inner/deep";
    EXPECT_TRUE(run.recorded(5, "'" + shown + "' not exists", "Path " + shown + " does not exist!\n"));
    EXPECT_EQ(snapshots(), std::vector<std::string>());
    EXPECT_FALSE(run.snapshot_path);
}

TEST_F(Snapshot, OfAFolderThatIsNoSubvolumeCannotBeTaken) {
    make_folder("/data/plain/photos");
    LoggedRun run;
    EXPECT_EQ(local_path_resolve(job_from("share", "plain", "data", "photos"), run, Side::source), std::nullopt);
    EXPECT_EQ(run.error_message, "'/data/._share/plain/.snapshot/" + snapshot_name() + "/photos' not exists");
}

TEST_F(Snapshot, IsTheRunsOwn) {
    // Two processes that run the same job at a time.
    LoggedRun run;
    const BackupJob job = job_from("share", "share", "data", {});
    const auto path = local_path_resolve(job, run, Side::source);
    ASSERT_TRUE(path);
    const pid_t other = fork();
    if (other == 0) {
        BackupRun second;
        second.job_id = run.job_id;
        _exit(local_path_resolve(job, second, Side::source) ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(other, &status, 0), other);
    EXPECT_EQ(status, 0);
    std::vector<std::string> expected = {snapshot_name(), "b_7_" + std::to_string(other)};
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(snapshots(), expected);
    local_endpoint_release(job, run, *path, Side::source);
    EXPECT_EQ(snapshots(), std::vector<std::string>{"b_7_" + std::to_string(other)});
}

} // namespace

} // namespace tsbackup::test
