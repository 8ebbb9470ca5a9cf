// Jobs whose ends are both local, on real file systems.

#include "local_ends.h"
#include "tsbackup_local.h"

#include <unistd.h>

namespace tsbackup::test {

namespace {

class LocalToLocal : public LocalEndsOnVolumes {
  protected:
    void SetUp() override {
        LocalEndsOnVolumes::SetUp();
        if (IsSkipped()) return;
        make_share("share");
        write_file("/data/share/photos/a.jpg", "a");
        write_file("/data/share/notes.txt", "notes");
        receiver_.emplace();
    }
    void TearDown() override {
        receiver_.reset();
        LocalEndsOnVolumes::TearDown();
    }
    /// Which disks were asked for, in order, by their devices.
    std::vector<std::string> ejected() {
        std::vector<std::string> devices;
        for (const std::string &event : receiver_->received()) {
            const std::string before = "device=\"";
            const std::size_t at = event.find(before);
            if (event.compare(0, 3, "ui\n") != 0 || at == std::string::npos) continue;
            const std::size_t start = at + before.size();
            devices.push_back(event.substr(start, event.find('"', start) - start));
        }
        return devices;
    }
    static std::vector<std::string> snapshots() { return list_folder("/data/._share/share/.snapshot"); }

  private:
    std::optional<EventReceiver> receiver_;
};

using Names = std::vector<std::string>;

const BackupJob kShare = job_from("share", "share", "data", {});
const BackupJob kMissingShare = job_from("share", "missing", "data", {});
/// Fails without a record of its own: the path is relative.
const BackupJob kSilentSource = job_from("home", "relative", {}, {});
const BackupJob kDisk = job_to("usb", "usb_port_2", {}, "backup");
const BackupJob kUnmounted = job_to("share", "share", "missing", {});
/// Fails without a record of its own.
const BackupJob kSilentDestination = job_to("usb", "somewhere", {}, {});

BackupJob with_ejects(BackupJob job) {
    job.name = "Nightly";
    job.src_eject = "1";
    job.dst_eject = "1";
    return job;
}

TEST_F(LocalToLocal, CopiesFromASnapshotAndLeavesNothingBehind) {
    LoggedRun run;
    backup_local_to_local(with_ejects(job_between(kShare, kDisk)), run);
    EXPECT_TRUE(run.silent());
    EXPECT_EQ(list_folder("/media/USB/backup"), (Names{"notes.txt", "photos"}));
    EXPECT_EQ(read_file("/media/USB/backup/photos/a.jpg"), "a");
    EXPECT_EQ(snapshots(), Names());
    EXPECT_FALSE(run.snapshot_path);
    EXPECT_EQ(ejected(), Names{"sdc1"});
}

TEST_F(LocalToLocal, CopiesAWholeFolderOfASnapshot) {
    BackupJob job = job_between(kShare, kDisk);
    job.src_path = "photos";
    LoggedRun run;
    backup_local_to_local(job, run);
    EXPECT_TRUE(run.silent());
    EXPECT_EQ(list_folder("/media/USB/backup"), Names{"a.jpg"});
    EXPECT_EQ(ejected(), Names()) << "nobody asked";
}

TEST_F(LocalToLocal, LeavesTheSharesOwnSnapshotsOut) {
    write_file("/data/share/.snapshots/old/a.jpg", "a");
    write_file("/data/._share/share/snapdir.conf", "/data/share/.snapshots\n");
    LoggedRun run;
    backup_local_to_local(job_between(kShare, kDisk), run);
    EXPECT_TRUE(run.silent());
    EXPECT_EQ(list_folder("/media/USB/backup"), (Names{"notes.txt", "photos"}));
}

TEST_F(LocalToLocal, EmptiesTheDestinationOnlyBeforeTheCopy) {
    write_file("/media/USB/backup/old.txt", "old");
    BackupJob job = job_between(kShare, kDisk);
    job.opt_remove_previous_backup = "1";
    LoggedRun run;
    run.full = 1;
    backup_local_to_local(job, run);
    EXPECT_TRUE(run.silent());
    EXPECT_EQ(list_folder("/media/USB/backup"), (Names{"notes.txt", "photos"}));
}

TEST_F(LocalToLocal, EjectsTheSourceBeforeTheDestination) {
    make_folder("/media/DISK/photos");
    LoggedRun run;
    backup_local_to_local(with_ejects(job_between(job_from("usb", "usb_port_1", {}, "photos"), kDisk)), run);
    EXPECT_TRUE(run.silent());
    EXPECT_EQ(ejected(), (Names{"sdb1", "sdc1"}));
}

TEST_F(LocalToLocal, WithoutASourceStillResolvesAndEjectsTheDestination) {
    LoggedRun run;
    backup_local_to_local(with_ejects(job_between(kMissingShare, kDisk)), run);
    EXPECT_TRUE(run.recorded(5, "'/data/missing/' not exists", "Path /data/missing/ does not exist!\n"));
    EXPECT_EQ(list_folder("/media/USB/backup"), Names()) << "created, nothing copied";
    EXPECT_EQ(ejected(), Names{"sdc1"});
}

TEST_F(LocalToLocal, EndsWithTheFirstError) {
    // A relative home is a folder that exists, and yet no path.
    const TempFolder folder;
    make_folder(folder / "relative/home");
    ASSERT_EQ(chdir(folder.path().c_str()), 0);
    const std::string missing = "Path /data/missing/ does not exist!\n";
    const struct {
        const char *name;
        const BackupJob &source, &destination;
        int code;
        const char *message;
        std::string errors;
        bool ejected;
    } cases[] = {
        {"silent source", kSilentSource, kDisk, 3, "No SRC", "", true},
        {"silent source, silent destination", kSilentSource, kSilentDestination, 3, "No SRC", "", false},
        {"silent source, reported destination", kSilentSource, kUnmounted, 3, "No SRC", "", false},
        {"reported source, silent destination", kMissingShare, kSilentDestination, 5, "'/data/missing/' not exists",
         missing, false},
        {"reported source, reported destination", kMissingShare, kUnmounted, 5, "'/data/missing/' not exists", missing,
         false},
        {"silent destination", kShare, kSilentDestination, 4, "No DST", "", false},
        {"reported destination", kShare, kUnmounted, 2, "'/missing/share/' is not mounted", "", false},
    };
    for (const auto &failing : cases) {
        SCOPED_TRACE(failing.name);
        LoggedRun run;
        backup_local_to_local(with_ejects(job_between(failing.source, failing.destination)), run);
        EXPECT_TRUE(run.recorded(failing.code, failing.message, failing.errors));
        EXPECT_EQ(ejected(), failing.ejected ? Names{"sdc1"} : Names());
        EXPECT_FALSE(run.snapshot_path);
        EXPECT_TRUE(!file_exists("/data/._share/share/.snapshot") || snapshots().empty());
    }
}

TEST_F(LocalToLocal, WithoutADestinationEjectsTheSource) {
    make_folder("/media/DISK/photos");
    LoggedRun run;
    const BackupJob source = job_from("usb", "usb_port_1", {}, "photos");
    backup_local_to_local(with_ejects(job_between(source, kSilentDestination)), run);
    EXPECT_TRUE(run.recorded(4, "No DST", ""));
    EXPECT_EQ(ejected(), Names{"sdb1"});
}

TEST_F(LocalToLocal, DeletesTheSnapshotAfterAFailedCopyToo) {
    make_folder("/media/USB/backup");
    LoggedRun run;
    {
        const ReadOnlyDisk disk;
        backup_local_to_local(with_ejects(job_between(kShare, kDisk)), run);
    }
    EXPECT_NE(run.error_code, 0);
    EXPECT_NE(run.errors(), "");
    EXPECT_EQ(snapshots(), Names());
    EXPECT_EQ(ejected(), Names{"sdc1"});
}

TEST_F(LocalToLocal, LeavesAFailedSnapshotToNobody) {
    SnapshotTool tool(SnapshotTool::Behaviour::fails);
    LoggedRun run;
    backup_local_to_local(job_between(kShare, kDisk), run);
    EXPECT_EQ(run.error_code, 5);
    EXPECT_EQ(tool.calls().size(), 1U);
    EXPECT_EQ(list_folder("/media/USB/backup"), Names());
}

TEST_F(LocalToLocal, TakesAndDeletesOneSnapshot) {
    SnapshotTool tool(SnapshotTool::Behaviour::works);
    LoggedRun run;
    backup_local_to_local(job_between(kShare, kDisk), run);
    EXPECT_TRUE(run.silent());
    const std::string path = "/data/._share/share/.snapshot/b_7_" + std::to_string(getpid());
    EXPECT_EQ(tool.calls(), (std::vector<Names>{{"subvolume", "snapshot", "-r", "/data/share", path},
                                                {"subvolume", "delete", path}}));
}

} // namespace

} // namespace tsbackup::test
