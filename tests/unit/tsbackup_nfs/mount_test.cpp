// Mounting an export: the walk up from the wanted folder, the commands, the wipe, taking it down again. The commands
// are stand-ins that show a local folder in the export's place.

#include "mount.h"

#include "mount_tools.h"
#include "remote_run.h"
#include "tsbackup/log.h"
#include "tsbackup_nfs.h"

#include <filesystem>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tsbackup::test {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr char kMountPoint[] = "/job_007";

BackupJob download(JobText path) {
    BackupJob job;
    job.job_id = 7;
    job.src_type = "remote";
    job.src_share_proto = "nfs";
    job.src_path = std::move(path);
    job.dst_type = "usb";
    job.dst_share_proto = "none";
    job.dst_path = "wrong:/wrong";
    return job;
}

BackupJob upload(JobText path) {
    BackupJob job;
    job.job_id = 7;
    job.src_type = "home";
    job.src_share_proto = "alice";
    job.dst_type = "remote";
    job.dst_share_proto = "nfs";
    job.dst_path = std::move(path);
    return job;
}

/// The commands for each location in turn, as they are given to the shell.
std::vector<std::string> commands_for(const std::vector<std::string> &locations, const std::string &access = "ro") {
    std::vector<std::string> commands;
    for (const std::string &location : locations) {
        const std::string end = " " + location + " /job_007";
        commands.push_back("mount -t nfs -o vers=3," + access + ",soft,intr,tcp" + end);
        commands.push_back("mount -t nfs -o vers=3," + access + ",soft,intr" + end);
        commands.push_back("mount -t nfs -o vers=4," + access + ",soft,intr" + end);
    }
    return commands;
}

std::vector<std::string> commands_in(const SystemCalls &calls) {
    std::vector<std::string> commands;
    for (const std::string &call : calls.made)
        if (call.starts_with("shell ")) commands.push_back(call.substr(6));
    return commands;
}

class NfsMount : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_APPLIANCE();
        remove_tree("/home/alice");
        make_folder("/home/alice");
        export_.emplace();
        ASSERT_FALSE(file_exists(kMountPoint)) << "left by an earlier test";
    }
    void TearDown() override {
        if (!in_appliance()) return;
        while (is_mounted(kMountPoint) && umount2(kMountPoint, MNT_DETACH) == 0) {
        }
        remove_tree(kMountPoint);
    }
    /// A path on the server's disk.
    std::string on_export(const std::string &name) const { return *export_ / name; }
    /// Only one location can be mounted, for reading alone when that is all that is asked for.
    void serve(const std::string &location) {
        tools_.answers("case \" $* \" in\n"
                       "*,ro,*\" " +
                       location + " \"*) " + MountTools::shows_read_only(export_->path()) +
                       " ;;\n"
                       "*\" " +
                       location + " \"*) " + MountTools::shows(export_->path()) +
                       " ;;\n"
                       "*) exit 32 ;;\n"
                       "esac");
    }

    MountTools tools_;
    LoggedRun run_;

  private:
    std::optional<TempFolder> export_;
};

// ---- the walk up -----------------------------------------------------------------------------------------------

struct WalkCase {
    const char *path;
    std::vector<std::string> locations;
};
const WalkCase kWalks[] = {
    {"host:/a/b/c", {"host:/a/b/c", "host:/a/b", "host:/a", "host:"}},
    {"host:/a", {"host:/a", "host:"}},
    {"host:/", {"host:/", "host:"}},
    {"host:/a/", {"host:/a/", "host:/a", "host:"}},
    {"host:/a//b", {"host:/a//b", "host:/a/", "host:/a", "host:"}},
    {"host://", {"host://", "host:/", "host:"}},
    {"host:/a:/b", {"host:/a:/b", "host:/a:", "host:"}},
    {":/a", {":/a", ":"}},
    {"x/y:/a", {"x/y:/a", "x/y:"}},
};

TEST_F(NfsMount, EveryFolderAboveIsTriedDownToTheBareHost) {
    for (const WalkCase &test : kWalks)
        for (const Side side : {Side::source, Side::destination}) {
            SCOPED_TRACE(test.path);
            LoggedRun run;
            SystemCalls calls;
            const bool is_source = side == Side::source;
            EXPECT_EQ(_mount_nfs(is_source ? download(test.path) : upload(test.path), run, side), std::nullopt);
            EXPECT_THAT(commands_in(calls), ElementsAreArray(commands_for(test.locations, is_source ? "ro" : "rw")));
            EXPECT_TRUE(run.recorded(is_source ? 1 : 2, std::string("Error mounting ") + test.path,
                                     std::string("Failed to mount nfs path ") + test.path + "!\n"));
            EXPECT_THAT(list_folder(kMountPoint), IsEmpty());
            EXPECT_TRUE(file_exists(kMountPoint)) << "the empty mount point stays";
            EXPECT_EQ(run.src_is_dir, 0);
        }
}

TEST_F(NfsMount, TwelveCommandsForThreeFoldersAndSixForTheRoot) {
    EXPECT_FALSE(_mount_nfs(download("host:/a/b/c"), run_, Side::source));
    EXPECT_THAT(tools_.commands(), SizeIs(12));
    MountTools others;
    EXPECT_FALSE(_mount_nfs(download("host:/"), run_, Side::source));
    EXPECT_THAT(others.commands(), SizeIs(6));
}

TEST_F(NfsMount, StopsAtTheFirstSuccess) {
    struct Case {
        int call;
        const char *location;
        const char *local;
    };
    const Case cases[] = {
        {1, "host:/a/b/c", "/job_007"}, {2, "host:/a/b/c", "/job_007"},  {3, "host:/a/b/c", "/job_007"},
        {4, "host:/a/b", "/job_007/c"}, {6, "host:/a/b", "/job_007/c"},  {7, "host:/a", "/job_007/b/c"},
        {9, "host:/a", "/job_007/b/c"}, {10, "host:", "/job_007/a/b/c"}, {12, "host:", "/job_007/a/b/c"},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(test.call);
        MountTools tools;
        tools.answers(test.call, "exit 0");
        LoggedRun run;
        EXPECT_EQ(_mount_nfs(download("host:/a/b/c"), run, Side::source), test.local);
        ASSERT_THAT(tools.commands(), SizeIs(test.call));
        EXPECT_EQ(tools.commands().back().words[5], test.location);
        EXPECT_TRUE(run.silent());
    }
}

TEST_F(NfsMount, WhatIsLeftOfThePathIsBelowTheMountPoint) {
    struct Case {
        const char *path;
        const char *mounted;
        const char *local;
    };
    const Case cases[] = {
        {"host:/a/b/c", "host:/a", "/job_007/b/c"}, {"host:/a/", "host:/a/", "/job_007"},
        {"host:/a/", "host:/a", "/job_007"},        {"host:/a//b", "host:/a", "/job_007/b"},
        {"host:/a//b", "host:/a/", "/job_007/b"},   {"host:/", "host:", "/job_007"},
        {"host:/a/./b", "host:/a", "/job_007/b"},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(std::string(test.path) + " from " + test.mounted);
        serve(test.mounted);
        LoggedRun run;
        EXPECT_EQ(_mount_nfs(download(test.path), run, Side::source), test.local);
        EXPECT_TRUE(run.silent());
        nfs_umount(download(test.path));
    }
}

TEST_F(NfsMount, EveryStatusButZeroIsAFailure) {
    tools_.answers(1, "exit 1").answers(2, "exit 255").answers(3, "kill -9 $$").answers(4, "exit 0");
    EXPECT_EQ(_mount_nfs(download("host:/a"), run_, Side::source), "/job_007/a");
    EXPECT_THAT(tools_.commands(), SizeIs(4));
}

TEST_F(NfsMount, AnInvalidPathIsReportedAndMakesNothing) {
    struct Case {
        JobText path;
        const char *shown;
    };
    const Case cases[] = {
        {std::nullopt, "(null)"},
        {"", ""},
        {"host", "host"},
        {"/a/b", "/a/b"},
        {"host:export", "host:export"},
        {"host:", "host:"},
        {"host:a:/b", "host:a:/b"},
        {"host::/a", "host::/a"},
        {"[fe80::1]:/a", "[fe80::1]:/a"},
        // Would be an option of the mount command.
        {"-a:/b", "-a:/b"},
        {"-obind:/etc", "-obind:/etc"},
    };
    for (const Case &test : cases)
        for (const Side side : {Side::source, Side::destination}) {
            SCOPED_TRACE(test.shown);
            LoggedRun run;
            const bool is_source = side == Side::source;
            EXPECT_EQ(_mount_nfs(is_source ? download(test.path) : upload(test.path), run, side), std::nullopt);
            EXPECT_TRUE(run.recorded(is_source ? 3 : 4, std::string("Error in nfs path '") + test.shown + "'",
                                     std::string("Invalid nfs path ") + test.shown + "!\n"));
            EXPECT_FALSE(file_exists(kMountPoint));
        }
    EXPECT_THAT(tools_.commands(), IsEmpty());
}

TEST_F(NfsMount, NamesThatAShellWouldActOnStayWords) {
    struct Case {
        const char *path;
        const char *text; ///< in the command
    };
    const Case cases[] = {
        {"host:/my folder", "host:/my\\ folder"},
        {"host:/it's \"x\"", "host:/it\\'s\\ \\\"x\\\""},
        {"host:/a;touch pwned", "host:/a\\;touch\\ pwned"},
        {"host:/$(touch pwned)`touch pwned`", "host:/\\$\\(touch\\ pwned\\)\\`touch\\ pwned\\`"},
        {"host:/a\ntouch pwned", "host:/a'\n'touch\\ pwned"},
        {"~root:/a", "\\~root:/a"},
        {"#host:/a", "\\#host:/a"},
        {"ho;touch pwned;st:/a", "ho\\;touch\\ pwned\\;st:/a"},
        {"192.168.1.5:/volume1/%s-x_y+z,1=2@3", "192.168.1.5:/volume1/%s-x_y+z,1=2@3"},
    };
    const TempFolder work;
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(work.path());
    for (const Case &test : cases) {
        SCOPED_TRACE(test.path);
        MountTools tools;
        LoggedRun run;
        SystemCalls calls;
        _mount_nfs(download(test.path), run, Side::source);
        EXPECT_EQ(tools.lines().front(),
                  std::string("mount|-t|nfs|-o|vers=3,ro,soft,intr,tcp|") + test.path + "|/job_007");
        EXPECT_EQ(commands_in(calls).front(), commands_for({test.text}).front());
    }
    EXPECT_THAT(list_folder(work.path()), IsEmpty());
    std::filesystem::current_path(before);
}

TEST_F(NfsMount, ACommandIsNeverCut) {
    // What is too long is not tried; a folder above it is.
    const std::string path = "host:/" + std::string(1000, 'a') + "/" + std::string(1000, 'b');
    tools_.answers("exit 0");
    EXPECT_EQ(_mount_nfs(download(path), run_, Side::source), "/job_007/" + std::string(1000, 'b'));
    ASSERT_THAT(tools_.commands(), SizeIs(1));
    EXPECT_EQ(tools_.commands().front().words[5], "host:/" + std::string(1000, 'a'));
}

// ---- the mount point -------------------------------------------------------------------------------------------

TEST_F(NfsMount, SetsUpInThisOrder) {
    serve("host:/a");
    SystemCalls calls;
    EXPECT_EQ(_mount_nfs(download("host:/a/b"), run_, Side::source), "/job_007/b");
    const std::vector<std::string> commands = commands_for({"host:/a/b", "host:/a"});
    // What is mounted is taken down before every location.
    EXPECT_THAT(calls.made,
                ElementsAre("mkdir /job_007 700", "umount /job_007", "shell " + commands[0], "shell " + commands[1],
                            "shell " + commands[2], "umount /job_007", "shell " + commands[3]));
}

TEST_F(NfsMount, WhatAnEarlierRunLeftMountedIsTakenDownFirst) {
    const TempFolder old;
    write_file(old / "old", "");
    write_file(on_export("new"), "");
    make_folder(kMountPoint);
    for (int mounts = 0; mounts < 2; ++mounts)
        ASSERT_EQ(mount(old.path().c_str(), kMountPoint, nullptr, MS_BIND, nullptr), 0);
    serve("host:/a");
    SystemCalls calls;
    ASSERT_EQ(_mount_nfs(download("host:/a"), run_, Side::source), kMountPoint);
    ASSERT_THAT(calls.made, SizeIs(4));
    EXPECT_EQ(calls.made[1], "umount /job_007");
    EXPECT_EQ(calls.made[2], "umount2 /job_007 1");
    EXPECT_EQ(list_folder(kMountPoint), std::vector<std::string>{"new"});
}

TEST_F(NfsMount, AMountPointThatCannotBeMadeIsNotReported) {
    for (const Side side : {Side::source, Side::destination}) {
        SystemCalls calls;
        calls.answer = [](const std::string &call) -> std::optional<int> {
            return call.starts_with("mkdir") ? std::optional(EROFS) : std::nullopt;
        };
        EXPECT_EQ(_mount_nfs(side == Side::source ? download("host:/a") : upload("host:/a"), run_, side), std::nullopt);
        EXPECT_THAT(calls.made, ElementsAre("mkdir /job_007 700"));
    }
    EXPECT_TRUE(run_.silent());
}

TEST_F(NfsMount, TakesDownInThisOrder) {
    serve("host:/a");
    ASSERT_TRUE(_mount_nfs(download("host:/a"), run_, Side::source));
    SystemCalls calls;
    nfs_umount(download("host:/a"));
    EXPECT_THAT(calls.made, ElementsAre("sync", "umount /job_007", "umount2 /job_007 1", "rmdir /job_007"));
    EXPECT_FALSE(file_exists(kMountPoint));
}

TEST_F(NfsMount, AFailedUnmountIsNotForced) {
    serve("host:/a");
    ASSERT_TRUE(_mount_nfs(download("host:/a"), run_, Side::source));
    SystemCalls calls;
    calls.answer = [](const std::string &call) -> std::optional<int> {
        return call.starts_with("umount") ? std::optional(EBUSY) : std::nullopt;
    };
    nfs_umount(download("host:/a"));
    EXPECT_THAT(calls.made, ElementsAre("sync", "umount /job_007", "rmdir /job_007"));
    EXPECT_TRUE(is_mounted(kMountPoint));
}

// ---- the folder ------------------------------------------------------------------------------------------------

TEST_F(NfsMount, ASourceIsExamined) {
    write_file(on_export("folder/file"), "content");
    struct Case {
        const char *path;
        const char *local;
        int is_dir;
    };
    const Case cases[] = {
        {"host:/a", "/job_007", 1},
        {"host:/a/folder", "/job_007/folder", 1},
        {"host:/a/folder/file", "/job_007/folder/file", 0},
        {"host:/a/missing", "/job_007/missing", 0},
        {"host:/a/folder/file/x", "/job_007/folder/file/x", 0},
    };
    serve("host:/a");
    for (const Case &test : cases) {
        SCOPED_TRACE(test.path);
        LoggedRun run;
        run.src_is_dir = 1 - test.is_dir;
        EXPECT_EQ(_mount_nfs(download(test.path), run, Side::source), test.local);
        EXPECT_EQ(run.src_is_dir, test.is_dir);
        EXPECT_NE(run.fsid, 0U);
        EXPECT_TRUE(run.silent());
        nfs_umount(download(test.path));
    }
}

TEST_F(NfsMount, ADestinationIsNeitherCreatedNorExamined) {
    write_file(on_export("file"), "content");
    serve("host:/a");
    for (const char *path : {"host:/a/missing/folder", "host:/a/file", "host:/a/file/below"}) {
        SCOPED_TRACE(path);
        EXPECT_EQ(_mount_nfs(upload(path), run_, Side::destination),
                  std::string(kMountPoint) + std::string(path).substr(7));
        EXPECT_EQ(run_.src_is_dir, 0);
        EXPECT_EQ(run_.fsid, 0U);
        EXPECT_EQ(list_folder(on_export("")), std::vector<std::string>{"file"});
        nfs_umount(upload(path));
    }
    EXPECT_TRUE(run_.silent());
}

TEST_F(NfsMount, ADestinationIsEmptiedWhenAFullRunIsAskedTo) {
    struct Case {
        int full;
        JobText remove;
        bool emptied;
    };
    const Case cases[] = {
        {1, "1", true}, {1, "2", true},           {1, "-1", true}, {1, "0", false},
        {1, "", false}, {1, std::nullopt, false}, {1, "x", false}, {0, "1", false},
    };
    serve("host:/a");
    for (const Case &test : cases) {
        SCOPED_TRACE(std::to_string(test.full) + " " + test.remove.value_or("(absent)"));
        write_file(on_export("folder/sub/file"), "content");
        write_file(on_export("beside/file"), "content");
        LoggedRun run;
        run.full = test.full;
        BackupJob job = upload("host:/a/folder");
        job.opt_remove_previous_backup = test.remove;
        EXPECT_EQ(_mount_nfs(job, run, Side::destination), "/job_007/folder");
        EXPECT_EQ(file_exists(on_export("folder/sub")), !test.emptied);
        EXPECT_TRUE(file_exists(on_export("folder"))) << "the folder itself stays";
        EXPECT_TRUE(file_exists(on_export("beside/file")));
        EXPECT_TRUE(run.silent());
        nfs_umount(job);
    }
}

TEST_F(NfsMount, TheWipeOfASourceMeetsAReadOnlyMount) {
    write_file(on_export("folder/file"), "content");
    BackupJob job = download("host:/a/folder");
    job.opt_remove_previous_backup = "1";
    run_.full = 1;
    serve("host:/a");
    {
        Diagnostics diagnostics(7);
        EXPECT_EQ(_mount_nfs(job, run_, Side::source), "/job_007/folder");
        EXPECT_THAT(diagnostics.without_places(), HasSubstr("(debug) do_rmtree(/job_007/folder)\n"));
        EXPECT_EQ(read_file(on_export("folder/file")), "content");
        nfs_umount(job);
    }
    // A mount that can be written all the same is left alone.
    tools_.answers(MountTools::shows(on_export("")));
    EXPECT_EQ(_mount_nfs(job, run_, Side::source), "/job_007");
    EXPECT_EQ(read_file(on_export("folder/file")), "content");
    EXPECT_TRUE(run_.silent());
}

TEST_F(NfsMount, AFolderOutsideOfTheExportIsRefused) {
    const TempFolder outside;
    write_file(outside / "folder/file", "content");
    std::filesystem::create_symlink(outside.path(), on_export("link"));
    std::filesystem::create_symlink(outside / "later", on_export("dangling"));
    serve("host:/a");
    for (const Side side : {Side::source, Side::destination}) {
        for (const std::string &below :
             {std::string("../home/alice"), std::string("b/../../home"), std::string("link"),
              std::string("link/folder"), std::string("link/new"), std::string("dangling")}) {
            SCOPED_TRACE(below);
            const std::string path = "host:/a/" + below;
            BackupJob job = side == Side::source ? download(path) : upload(path);
            job.opt_remove_previous_backup = "1";
            LoggedRun run;
            run.full = 1;
            EXPECT_EQ(_mount_nfs(job, run, side), std::nullopt);
            EXPECT_TRUE(run.recorded(side == Side::source ? 3 : 4, "Error in nfs path '" + path + "'",
                                     "Invalid nfs path " + path + "!\n"));
            EXPECT_FALSE(is_mounted(kMountPoint));
            EXPECT_FALSE(file_exists(kMountPoint));
        }
    }
    EXPECT_EQ(read_file(outside / "folder/file"), "content");
}

// ---- the drivers -----------------------------------------------------------------------------------------------

TEST_F(NfsMount, AnUploadCopiesAndLeavesNoMount) {
    write_file("/home/alice/a", "first");
    write_file("/home/alice/sub/b", "second");
    make_folder(on_export("parent"));
    serve("host:/x");
    backup_local_to_nfs(upload("host:/x/parent/folder"), run_);
    EXPECT_TRUE(run_.silent());
    EXPECT_EQ(read_file(on_export("parent/folder/a")), "first");
    EXPECT_EQ(read_file(on_export("parent/folder/sub/b")), "second");
    EXPECT_FALSE(file_exists(kMountPoint));
    EXPECT_EQ(run_.no_chown, 0);
}

TEST_F(NfsMount, AnUploadWithoutASourceMountsNothing) {
    BackupJob job = upload("host:/a");
    job.src_path = "missing/folder";
    backup_local_to_nfs(job, run_);
    EXPECT_TRUE(run_.recorded(5, "'/home/alice/missing/folder' not exists",
                              "Path /home/alice/missing/folder does not exist!\n"
                              "/alice/missing/folder does not exist!\n"));
    EXPECT_THAT(tools_.commands(), IsEmpty());
    EXPECT_FALSE(file_exists(kMountPoint));
}

TEST_F(NfsMount, ASourceThatIsMissingSilentlyIsReportedByTheUpload) {
    const SilentSource silent;
    BackupJob job = upload("host:/a");
    job.src_share_proto = SilentSource::user;
    job.src_path = "etc";
    backup_local_to_nfs(job, run_);
    EXPECT_TRUE(run_.recorded(5, "/relative/etc not exists", "/relative/etc does not exist!\n"));
}

TEST_F(NfsMount, AnUploadThatCannotBeMountedLeavesTheEmptyMountPoint) {
    write_file("/home/alice/a", "first");
    backup_local_to_nfs(upload("host:/a"), run_);
    EXPECT_EQ(run_.error_code, 2);
    EXPECT_THAT(list_folder(kMountPoint), IsEmpty());
    EXPECT_TRUE(file_exists(kMountPoint));
    EXPECT_EQ(run_.copies(), "");
}

TEST_F(NfsMount, ADownloadWithoutALocalEndTakesTheExportDown) {
    write_file(on_export("a"), "first");
    serve("host:/a");
    backup_nfs_to_local(download("host:/a"), run_);
    EXPECT_FALSE(is_mounted(kMountPoint));
    EXPECT_FALSE(file_exists(kMountPoint));
    EXPECT_EQ(run_.copies(), "");
}

} // namespace
} // namespace tsbackup::test
