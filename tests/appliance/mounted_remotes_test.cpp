// Whole runs of the installed program against remote ends that are mounted. The mount commands are stand-ins that show
// a folder of the appliance in the remote end's place, so that everything else is real.

#include "aftermath.h"
#include "appliance_support.h"
#include "job_runs.h"
#include "mount_tools.h"

#include <filesystem>
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tsbackup::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

constexpr int kJob = 7;
constexpr char kMountPoint[] = "/job_007";
const std::string kServer = "/vault/Archive"; ///< what the remote end holds
const std::string kPictures = "/data/Pictures";
const std::string kCopy = "/media/USB/copy";
const std::string kPassword = "s3cret $(w0rd)";

Settings remote(const std::string &side, const std::string &protocol, const std::string &path) {
    return {{side + "_type", "remote"}, {side + "_share_proto", protocol}, {side + "_path", path}};
}

Settings cifs_source(const std::string &below = "") { return remote("src", "cifs", "//server/Public" + below); }
Settings cifs_destination(const std::string &below = "") { return remote("dst", "cifs", "//server/Public" + below); }
Settings nfs_source(const std::string &path) { return remote("src", "nfs", path); }
Settings nfs_destination(const std::string &path) { return remote("dst", "nfs", path); }

Settings incremental() { return {{"name", "Remote"}, {"opt_full_backup_freq", "NEVER"}}; }
Settings full_with_wipe() {
    return {{"name", "Remote"}, {"opt_full_backup_freq", "EVERY_TIME"}, {"opt_remove_previous_backup", "1"}};
}

/// Mounts of jobs that this process, and with it the whole appliance, sees.
bool any_job_is_mounted() { return read_file("/proc/self/mounts").find(" /job_") != std::string::npos; }

class MountedRemotes : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_VOLUMES();
        reset_appliance();
        tools_.emplace();
        serve();
    }
    void TearDown() override {
        if (!tools_) return;
        while (umount2(kMountPoint, MNT_DETACH) == 0) {
        }
        remove_tree(kMountPoint);
        tools_.reset();
        reset_appliance();
    }

    /// Everything can be mounted, NFS for reading alone where that is asked for.
    void serve() {
        tools_->answers("case \" $* \" in\n*vers=[34],ro,*) " + MountTools::shows_read_only(kServer) + " ;;\n*) " +
                        MountTools::shows(kServer) + " ;;\nesac");
    }

    static Outcome run(const Settings &settings) {
        JobFile().job(kJob, settings).write();
        return run_program({"-v", "7", "-e", "7"});
    }

    static void expect_failure(int result, const std::string &error_log) {
        EXPECT_EQ(state_of(kJob), "FAILED");
        EXPECT_EQ(last_result(kJob), result);
        EXPECT_EQ(read_file(error_log_path(kJob)), error_log);
    }
    static void expect_success() {
        EXPECT_EQ(state_of(kJob), "COMPLETED");
        EXPECT_EQ(last_result(kJob), 0);
        EXPECT_EQ(read_file(error_log_path(kJob)), "");
    }

    std::optional<MountTools> tools_;
};

// --- Whole trees ---

TEST_F(MountedRemotes, AShareArrivesOnADisk) {
    make_tree(kServer + "/folder", {.seed = 5});
    write_file(kServer + "/beside", "not wanted");
    const Baseline baseline;
    EventReceiver events;
    StatusWatcher status(kJob);
    run(incremental() + cifs_source("/folder") + destination_usb("1", "copy"));
    expect_success();
    EXPECT_TRUE(same_trees(kServer + "/folder", kCopy));
    EXPECT_THAT(tools_->lines(),
                ElementsAre("timeout|-k7|5|mount.cifs|//server/Public|/job_007|-o|guest,iocharset=utf8,"
                            "vers=3.0"));
    EXPECT_THAT(states(status),
                ElementsAre("BACKUP_STATUS__IN_PROGRESS,0!!TIME!!OK", "BACKUP_STATUS__COMPLETED!!TIME!!OK"));
    EXPECT_THAT(events.received(), ElementsAre(result_event(kJob, "Remote", 0)));
    EXPECT_TRUE(baseline.restored());
    EXPECT_EQ(with_placeholders(read_file(history_path(kJob))),
              "name: Remote\nfull: no\nproto: cifs\nsrc: [remote:cifs]///server/Public/folder\n"
              "dst: [usb:usb_port_1]/copy\nstart: TIME\nfinish: TIME\nstatus: 0\nlog:\n");

    // The next run finds nothing to do.
    run(incremental() + cifs_source("/folder") + destination_usb("1", "copy"));
    expect_success();
    EXPECT_EQ(read_file(kept_copy_log_path(kJob)), "");
}

TEST_F(MountedRemotes, AShareArrivesOnAServer) {
    make_tree(kPictures + "/tree", {.seed = 6});
    const Baseline baseline;
    for (const char *path : {"/a/b", "\\\\server\\Public\\c\\d"}) {
        SCOPED_TRACE(path);
        Settings settings = incremental() + source_share("data", "Pictures", "tree") + cifs_destination(path);
        if (path[0] == '\\') settings.back().second = path;
        const Outcome outcome = run(settings);
        expect_success();
        EXPECT_TRUE(same_trees(kPictures + "/tree", kServer + (path[0] == '\\' ? "/c/d" : "/a/b")));
        EXPECT_THAT(outcome.err, HasSubstr("do_copy_dir(\"/data/._share/Pictures/.snapshot/b_7_"));
        // The ownership of files was tried before the first of them was copied.
        const std::size_t probe = outcome.err.find("do_copy_file(\"/tmp/__foo__.");
        ASSERT_NE(probe, std::string::npos);
        EXPECT_LT(probe, outcome.err.find("do_copy_dir("));
        EXPECT_TRUE(baseline.restored());
    }
}

TEST_F(MountedRemotes, AnExportArrivesOnADisk) {
    make_tree(kServer + "/folder", {.seed = 7});
    const Baseline baseline;
    run(incremental() + nfs_source("server:/export/folder") + destination_usb("1", "copy"));
    expect_success();
    // Every location is shown alike by the stand-in: the first one was taken.
    EXPECT_TRUE(same_trees(kServer, kCopy));
    EXPECT_THAT(tools_->lines(), ElementsAre("mount|-t|nfs|-o|vers=3,ro,soft,intr,tcp|server:/export/folder|/job_007"));
    EXPECT_TRUE(baseline.restored());

    run(incremental() + nfs_source("server:/export/folder") + destination_usb("1", "copy"));
    EXPECT_EQ(read_file(kept_copy_log_path(kJob)), "");
}

TEST_F(MountedRemotes, AShareArrivesOnAnExportOfWhichOnlyAParentIsExported) {
    make_tree(kPictures + "/tree", {.seed = 8});
    make_folder(kServer + "/b");
    tools_->answers("exit 32").answers(8, MountTools::shows(kServer));
    const Baseline baseline;
    run(incremental() + source_share("data", "Pictures", "tree") + nfs_destination("server:/export/b/c"));
    expect_success();
    EXPECT_TRUE(same_trees(kPictures + "/tree", kServer + "/b/c"));
    EXPECT_THAT(tools_->lines(), ElementsAre("mount|-t|nfs|-o|vers=3,rw,soft,intr,tcp|server:/export/b/c|/job_007",
                                             "mount|-t|nfs|-o|vers=3,rw,soft,intr|server:/export/b/c|/job_007",
                                             "mount|-t|nfs|-o|vers=4,rw,soft,intr|server:/export/b/c|/job_007",
                                             "mount|-t|nfs|-o|vers=3,rw,soft,intr,tcp|server:/export/b|/job_007",
                                             "mount|-t|nfs|-o|vers=3,rw,soft,intr|server:/export/b|/job_007",
                                             "mount|-t|nfs|-o|vers=4,rw,soft,intr|server:/export/b|/job_007",
                                             "mount|-t|nfs|-o|vers=3,rw,soft,intr,tcp|server:/export|/job_007",
                                             "mount|-t|nfs|-o|vers=3,rw,soft,intr|server:/export|/job_007"));
    EXPECT_TRUE(baseline.restored());
}

TEST_F(MountedRemotes, ASingleFileIsCopied) {
    write_file(kServer + "/file", "content");
    run(incremental() + cifs_source("/file") + destination_usb("1", "copy"));
    // A destination is made as a folder before it is known that the source is a file.
    EXPECT_EQ(last_result(kJob), 13);
    EXPECT_THAT(tools_->commands(), SizeIs(1));
    EXPECT_EQ(read_file(kServer + "/file"), "content");
}

TEST_F(MountedRemotes, ADiskIsEjectedAfterACopyFromAServer) {
    write_file(kServer + "/file", "content");
    for (const Settings &source : {cifs_source(), nfs_source("server:/export")}) {
        EventReceiver events;
        run(incremental() + source + destination_usb("1", "copy") + Settings{{"dst_eject", "1"}});
        const std::vector<std::string> received = events.received();
        ASSERT_THAT(received, SizeIs(3));
        EXPECT_THAT(received[0], HasSubstr("action=\"eject\" device=\"sdq1\""));
    }
}

// --- The password ---

TEST_F(MountedRemotes, ThePasswordIsSeenByTheMountCommandAlone) {
    write_file(kPictures + "/a", "text");
    write_file(kServer + "/b", "text");
    // Everything that other users of the machine can see of processes, at the moment of the mount.
    tools_->answers("cat /proc/[0-9]*/cmdline >>/tmp/seen; exit 32");
    for (const std::string side : {"src", "dst"}) {
        const Settings ends = side == "src" ? cifs_source() + destination_usb("1", "copy")
                                            : source_share("data", "Pictures") + cifs_destination();
        const Outcome outcome =
            run(incremental() + ends + Settings{{side + "_login", "HOME\\alice"}, {side + "_password", kPassword}});
        EXPECT_THAT(outcome.err, HasSubstr("cmd=timeout -k7 5 mount.cifs //server/Public /job_007 -o "
                                           "username=alice,domain=HOME,iocharset=utf8,vers=3.0\n"));
        for (const std::string &text : {outcome.out, outcome.err, read_file("/tmp/seen")})
            EXPECT_THAT(text, Not(HasSubstr("s3cret")));
        EXPECT_EQ(shell_output("grep -rl s3cret /var /apps /data /media /vault"), "");
    }
    ASSERT_THAT(tools_->commands(), SizeIs(16));
    for (const MountCommand &command : tools_->commands())
        EXPECT_EQ(command.password, kPassword);
}

// --- Failures ---

TEST_F(MountedRemotes, WhatCannotBeMountedFailsAndNothingIsTouched) {
    struct Case {
        const char *name;
        Settings ends;
        int result;
        std::string error_log;
        std::size_t commands;
        bool mount_point_stays;
    };
    const Settings from = source_share("data", "Pictures");
    const Settings to = destination_usb("1", "copy");
    const Case cases[] = {
        {"a share as the source", cifs_source("/x") + to, 1, "Failed to mount remote path //server/Public/x!\n", 8,
         false},
        {"a share as the destination", from + cifs_destination("/x"), 2,
         "Failed to mount remote path //server/Public/x!\n", 8, false},
        {"an export as the source", nfs_source("server:/a/b/c") + to, 1, "Failed to mount nfs path server:/a/b/c!\n",
         12, true},
        {"an export as the destination", from + nfs_destination("server:/"), 2, "Failed to mount nfs path server:/!\n",
         6, true},
        {"a malformed share as the source", remote("src", "cifs", "server/Public") + to, 1,
         "Path server/Public is in a wrong format!\n", 0, false},
        {"a malformed share as the destination", from + remote("dst", "cifs", "/server/Public"), 1,
         "Path /server/Public is in a wrong format!\n", 0, false},
        {"a malformed export as the source", nfs_source("server:export") + to, 3, "Invalid nfs path server:export!\n",
         0, false},
        {"a malformed export as the destination", from + nfs_destination("/export"), 4, "Invalid nfs path /export!\n",
         0, false},
        {"no export at all", Settings{{"src_type", "remote"}, {"src_share_proto", "nfs"}} + to, 3,
         "Invalid nfs path (null)!\n", 0, false},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(test.name);
        write_file(kPictures + "/a", "text");
        write_file(kCopy + "/earlier", "text");
        tools_.emplace();
        remove_tree(kMountPoint);
        run(full_with_wipe() + test.ends);
        expect_failure(test.result, test.error_log);
        EXPECT_THAT(tools_->commands(), SizeIs(test.commands));
        EXPECT_EQ(file_exists(kMountPoint), test.mount_point_stays);
        EXPECT_EQ(read_file(kCopy + "/earlier"), "text");
        EXPECT_THAT(snapshots(), IsEmpty());
    }
}

TEST_F(MountedRemotes, AMissingFolderOnAShareCopiesNothingAndIsNoFailure) {
    write_file(kCopy + "/earlier", "text");
    const Baseline baseline;
    run(full_with_wipe() + cifs_source("/missing") + destination_usb("1", "copy"));
    expect_success();
    EXPECT_EQ(list_folder(kCopy), std::vector<std::string>{"earlier"});
    EXPECT_TRUE(baseline.restored());
}

TEST_F(MountedRemotes, AMissingFolderOnAnExportIsReportedByTheCopy) {
    tools_->answers("exit 32").answers(5, MountTools::shows_read_only(kServer));
    run(incremental() + nfs_source("server:/export/missing") + destination_usb("1", "copy"));
    expect_failure(6, "Failed to get status of file '' (error: No such file or directory)!\n");
}

TEST_F(MountedRemotes, AMissingLocalSourceMountsNothing) {
    for (const Settings &destination : {cifs_destination("/x"), nfs_destination("server:/x")}) {
        run(full_with_wipe() + source_share("data", "Pictures", "missing") + destination);
        EXPECT_EQ(last_result(kJob), 5);
        EXPECT_THAT(tools_->commands(), IsEmpty());
        EXPECT_FALSE(file_exists(kMountPoint));
    }
    EXPECT_EQ(read_file(error_log_path(kJob)), "Path /data/Pictures/missing does not exist!\n"
                                               "/Pictures/missing does not exist!\n");
}

TEST_F(MountedRemotes, AnUnusableLocalDestinationTakesTheRemoteEndDown) {
    write_file(kServer + "/file", "content");
    write_file("/media/USB/file", "in the way");
    set_service("ANTIVIRUS", "1");
    for (const Settings &source : {cifs_source(), nfs_source("server:/x")}) {
        run(incremental() + source + destination_usb("1", "file/below"));
        EXPECT_EQ(last_result(kJob), 4);
        EXPECT_FALSE(file_exists(kMountPoint));
        EXPECT_FALSE(any_job_is_mounted());
    }
    EXPECT_THAT(tools_->commands(), SizeIs(2));
}

TEST_F(MountedRemotes, ADestinationFolderThatIsAFileLeavesTheShareMountedUntilTheNextRun) {
    write_file(kPictures + "/a", "text");
    write_file(kServer + "/file", "content");
    set_service("ANTIVIRUS", "1"); // mounts are the whole system's then
    run(full_with_wipe() + source_share("data", "Pictures") + cifs_destination("/file"));
    expect_failure(4, "Destination cifs///server/Public/file is a file. Cannot backup to a file!\n");
    EXPECT_TRUE(any_job_is_mounted());
    EXPECT_EQ(read_file(kServer + "/file"), "content");
    EXPECT_THAT(snapshots(), IsEmpty());

    run(incremental() + source_share("data", "Pictures") + cifs_destination("/file/below"));
    expect_failure(4, "Failed to create destination directory /job_007/file/below!\n");
    EXPECT_TRUE(any_job_is_mounted());

    run(incremental() + source_share("data", "Pictures") + cifs_destination("/folder"));
    expect_success();
    EXPECT_EQ(read_file(kServer + "/folder/a"), "text");
    EXPECT_FALSE(any_job_is_mounted());
    EXPECT_FALSE(file_exists(kMountPoint));
}

TEST_F(MountedRemotes, WithAPrivateNamespaceTheMountThatStaysIsSeenByNobody) {
    write_file(kPictures + "/a", "text");
    write_file(kServer + "/file", "content");
    run(incremental() + source_share("data", "Pictures") + cifs_destination("/file"));
    EXPECT_EQ(last_result(kJob), 4);
    EXPECT_FALSE(any_job_is_mounted());
    EXPECT_THAT(list_folder(kMountPoint), IsEmpty());
}

TEST_F(MountedRemotes, AnUploadThatLostItsSnapshotIsNotASuccess) {
    write_file(kPictures + "/a", "text");
    // The start of any other job deletes the snapshots of all.
    tools_->answers("/sbin/btrfs subvolume delete /data/._share/Pictures/.snapshot/b_7_* && " +
                    MountTools::shows(kServer));
    for (const Settings &destination : {cifs_destination("/x"), nfs_destination("server:/x")}) {
        run(incremental() + source_share("data", "Pictures") + destination);
        EXPECT_EQ(state_of(kJob), "FAILED");
        EXPECT_EQ(last_result(kJob), 5);
        EXPECT_THAT(read_file(error_log_path(kJob)), testing::MatchesRegex("Path /data/._share/Pictures/.snapshot/"
                                                                           "b_7_[0-9]+ does not exist!\n"));
    }
}

// --- Full runs ---

TEST_F(MountedRemotes, AFullRunEmptiesItsDestinationAndNothingElse) {
    for (const Settings &destination : {cifs_destination("/old/copy"), nfs_destination("server:/x/old/copy")}) {
        write_file(kPictures + "/a", "text");
        write_file(kServer + "/old/copy/sub/gone", "text");
        write_file(kServer + "/old/kept", "text");
        const bool is_nfs = destination[1].second == "nfs";
        if (is_nfs) tools_.emplace().answers(7, MountTools::shows(kServer));
        run(full_with_wipe() + source_share("data", "Pictures") + destination);
        expect_success();
        EXPECT_EQ(list_folder(kServer + "/old/copy"), std::vector<std::string>{"a"});
        EXPECT_TRUE(file_exists(kServer + "/old/kept"));
        EXPECT_TRUE(file_exists(kPictures + "/a"));
    }
}

TEST_F(MountedRemotes, AFullRunNeverEmptiesItsRemoteSource) {
    for (const Settings &source : {cifs_source(), nfs_source("server:/x")}) {
        write_file(kServer + "/sub/a", "text");
        write_file(kCopy + "/gone", "text");
        run(full_with_wipe() + source + destination_usb("1", "copy"));
        expect_success();
        EXPECT_EQ(read_file(kServer + "/sub/a"), "text");
        EXPECT_EQ(read_file(kCopy + "/sub/a"), "text");
        EXPECT_FALSE(file_exists(kCopy + "/gone"));
    }
}

// --- Cancelling ---

class CancelledRemotes : public MountedRemotes {
  protected:
    void SetUp() override {
        MountedRemotes::SetUp();
        if (IsSkipped()) return;
        set_service("ANTIVIRUS", "1"); // mounts are the whole system's then
    }
    static void cancel(Program &job) {
        ProgramOptions options;
        options.preload = {kShortWaits};
        EXPECT_EQ(run_program({"-k", "7"}, options).status, 0);
        job.wait(30s);
        EXPECT_EQ(state_of(kJob), "CANCELLED");
        EXPECT_EQ(last_result(kJob), 11);
    }
};

TEST_F(CancelledRemotes, ACancelledCopyLeavesNoMount) {
    for (int number = 0; number < 4000; ++number) {
        write_file(kServer + "/source/" + std::to_string(number), "text");
        write_file(kPictures + "/" + std::to_string(number), "text");
    }
    const RequestQueue queue;
    for (const Settings &ends : {cifs_source("/source") + destination_usb("1", "copy"),
                                 nfs_source("server:/x") + destination_usb("1", "copy2"),
                                 source_share("data", "Pictures") + cifs_destination("/a"),
                                 source_share("data", "Pictures") + nfs_destination("server:/x")}) {
        const Baseline baseline;
        JobFile().job(kJob, incremental() + ends).write();
        Program job({"-e", "7"});
        ASSERT_TRUE(wait_until([] { return read_file("/apps/.backup/backup_007_copy.log").size() > 500; }));
        EXPECT_TRUE(any_job_is_mounted());
        cancel(job);
        EXPECT_FALSE(any_job_is_mounted());
        EXPECT_FALSE(file_exists(kMountPoint));
        EXPECT_TRUE(baseline.restored());
        EXPECT_TRUE(file_exists(kServer + "/source/0"));
    }
}

TEST_F(CancelledRemotes, AMountThatIsUnderWayIsNotMadeAfterTheCancel) {
    // The time limit gives the mount command a process group of its own, which the hang-up does not reach.
    tools_->answers("case $0 in */timeout) exec /usr/bin/timeout \"$@\" ;; esac\n"
                    "trap '' HUP TERM\n"
                    ": >/tmp/under-way\n"
                    "sleep 4\n" +
                    MountTools::shows(kServer) + "\n: >/tmp/made");
    const RequestQueue queue;
    for (const Settings &source : {cifs_source(), nfs_source("server:/x")}) {
        remove_tree("/tmp/under-way");
        JobFile().job(kJob, incremental() + source + destination_usb("1", "copy")).write();
        const Baseline baseline;
        Program job({"-e", "7"});
        ASSERT_TRUE(wait_until([] { return file_exists("/tmp/under-way"); }));
        cancel(job);
        sleep(5);
        EXPECT_FALSE(file_exists("/tmp/made"));
        EXPECT_FALSE(any_job_is_mounted());
        EXPECT_FALSE(file_exists(kMountPoint));
        remove_tree("/tmp/under-way");
        EXPECT_TRUE(baseline.restored());
    }
}

} // namespace
} // namespace tsbackup::test
