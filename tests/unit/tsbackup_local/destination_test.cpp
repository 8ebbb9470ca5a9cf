// Which path the fields of a destination mean, and when it is fit to be written.

#include "local_ends.h"
#include "tsbackup_local.h"
#include "tsbackup_utils.h"
#include "user_lookup.h"

#include <sys/mount.h>
#include <sys/stat.h>

namespace tsbackup::test {

namespace {

using testing::HasSubstr;

struct Destination {
    const char *name;
    JobText type, share_proto, share_vol, path;
};

BackupJob job_of(const Destination &destination) {
    return job_to(destination.type, destination.share_proto, destination.share_vol, destination.path);
}

JobText resolve(const BackupJob &job, BackupRun &run) { return local_path_resolve(job, run, Side::destination); }

class LocalDestination : public LocalEndsOnVolumes {
  protected:
    void SetUp() override {
        LocalEndsOnVolumes::SetUp();
        if (IsSkipped()) return;
        make_share("share");
        write_file("/etc/passwd", "alice:x:1000:1000::/data/homes/alice:/bin/sh\n"
                                  "untidy:x:1001:1001:://data//homes/./alice//:/bin/sh\n"
                                  "relative:x:1002:1002::relative/home:/bin/sh\n");
        write_storage_table(storage_line("USB", "sdc1", "2") + storage_line("GONE", "sdd1", "3"));
    }
};

// ---- which path ------------------------------------------------------------------------------------------------

struct Resolved {
    Destination destination;
    const char *expected;
};

const Resolved kResolved[] = {
    {{"share", "share", "share", "data", {}}, "/data/share"},
    {{"share with an empty path", "share", "share", "data", ""}, "/data/share"},
    {{"share with a path", "share", "share", "data", "backup"}, "/data/share/backup"},
    {{"share: normalised", "share", "share", "data", "//backup/.//deep/./"}, "/data/share/backup/deep"},
    {{"share on a disk", "share", "USB", "media", "backup"}, "/media/USB/backup"},
    {{"share without a name", "share", {}, "data", "share"}, "/data/share"},
    {{"tilde and a letter in the name", "share", "share/~a", "data", {}}, "/data/share/~a"},
    {{"two tildes: only the first one counts", "share", "a~b~1", "data", {}}, "/data/a~b~1"},
    {{"volume: three parts like a share", "volume", "share", "data", "backup"}, "/data/share/backup"},
    {{"timemachine: three parts like a share", "timemachine", "share", "data", "backup"}, "/data/share/backup"},
    {{"unknown type: three parts like a share", "floppy", "share", "data", {}}, "/data/share"},
    {{"no type: three parts like a share", {}, "share", "data", {}}, "/data/share"},
    {{"types are compared exactly", "homes", "alice", "data", {}}, "/data/alice"},

    {{"home", "home", "alice", {}, {}}, "/data/homes/alice"},
    {{"home with an empty path", "home", "alice", {}, ""}, "/data/homes/alice"},
    {{"home with a path", "home", "alice", "ignored", "docs/old"}, "/data/homes/alice/docs/old"},
    {{"home: normalised", "home", "untidy", {}, "/docs/"}, "/data/homes/alice/docs"},

    {{"usb", "usb", "usb_port_2", {}, {}}, "/media/USB"},
    {{"usb with an empty path", "usb", "usb_port_2", {}, ""}, "/media/USB"},
    {{"usb with a path", "usb", "usb_port_2", "ignored", "a/b"}, "/media/USB/a/b"},
};

TEST_F(LocalDestination, IsThePathOfItsFieldsAndIsCreated) {
    for (const Resolved &resolved : kResolved) {
        SCOPED_TRACE(resolved.destination.name);
        LoggedRun run;
        EXPECT_EQ(resolve(job_of(resolved.destination), run), resolved.expected);
        EXPECT_TRUE(run.silent());
        struct stat status {};
        EXPECT_EQ(stat(resolved.expected, &status), 0);
        EXPECT_TRUE(S_ISDIR(status.st_mode));
        EXPECT_EQ(run.fsid, 0U) << "the source's";
        EXPECT_EQ(run.src_is_dir, 0);
    }
}

const Destination kRefusedSilently[] = {
    {"short name", "share", "abc~1", "data", {}},
    {"short name on a disk", "share", "abc~1", "media", {}},
    {"short name, another type", "volume", "~0", "data", {}},
    {"usb without a name", "usb", {}, {}, {}},
    {"usb with an empty name", "usb", "", {}, {}},
    {"usb with the name of a disk", "usb", "USB", {}, {}},
    {"usb with a shorter start", "usb", "usb_port2", {}, {}},
};

TEST_F(LocalDestination, IsRefusedSilently) {
    for (const Destination &refused : kRefusedSilently) {
        SCOPED_TRACE(refused.name);
        const Diagnostics diagnostics;
        LoggedRun run;
        EXPECT_EQ(resolve(job_of(refused), run), std::nullopt);
        EXPECT_TRUE(run.silent());
        EXPECT_EQ(diagnostics.text(), "");
    }
    EXPECT_FALSE(file_exists("/data/abc~1"));
}

TEST_F(LocalDestination, AtAPortWithoutADiskIsReported) {
    for (const char *port : {"usb_port_9", "usb_port_", "usb_port_22"}) {
        SCOPED_TRACE(port);
        LoggedRun run;
        EXPECT_EQ(resolve(job_to("usb", port, {}, "a"), run), std::nullopt);
        EXPECT_TRUE(run.recorded(4, std::string("No USB storage device at ") + port,
                                 std::string("No USB storage was found at ") + port + "!\n"));
    }
    remove_tree("/etc/tessera");
    LoggedRun run;
    EXPECT_EQ(resolve(job_to("usb", "usb_port_2", {}, "a"), run), std::nullopt);
    EXPECT_TRUE(run.recorded(4, "No USB storage device at usb_port_2", "No USB storage was found at usb_port_2!\n"));
}

TEST_F(LocalDestination, OfAnUnknownUserIsReported) {
    struct {
        JobText user;
        const char *shown;
    } const cases[] = {{"nobody-knows", "nobody-knows"}, {"*", "*"}, {"", ""}, {std::nullopt, ""}};
    for (const auto &unknown : cases) {
        SCOPED_TRACE(unknown.shown);
        LoggedRun run;
        EXPECT_EQ(resolve(job_to("home", unknown.user, {}, {}), run), std::nullopt);
        EXPECT_TRUE(run.recorded(4, "error from getpwnam(). errno=0",
                                 "Can't find username " + std::string(unknown.shown) + " in password database!\n"));
    }
}

TEST_F(LocalDestination, ShowsTheErrorNumberOfAFailedUserLookup) {
    const UserLookup lookup({.reported_size = {}, .failure = EIO});
    LoggedRun run;
    EXPECT_EQ(resolve(job_to("home", "alice", {}, {}), run), std::nullopt);
    EXPECT_TRUE(run.recorded(4, "error from getpwnam(). errno=5", "Can't find username alice in password database!\n"));
}

// ---- mounted data file systems ---------------------------------------------------------------------------------

struct NotMounted {
    Destination destination;
    const char *shown;
};

const NotMounted kNotMounted[] = {
    {{"missing volume", "share", "share", "missing", {}}, "/missing/share/"},
    {{"missing volume with a path", "share", "share", "missing", "a/b"}, "/missing/share/a/b"},
    {{"folder in memory", "share", "share", "volume", {}}, "/volume/share/"},
    {{"missing folder in memory", "share", "share", "volume", "a"}, "/volume/share/a"},
    {{"disk that is not mounted", "usb", "usb_port_3", {}, {}}, "/media/GONE"},
    {{"disk that is not mounted, with a path", "usb", "usb_port_3", {}, "a"}, "/media/GONE/a"},
    {{"no fields", {}, {}, {}, {}}, "///"},
    {{"relative home", "home", "relative", {}, {}}, "relative/home"},
};

TEST_F(LocalDestination, OutsideMountedDataFileSystemsIsRefused) {
    make_folder("/volume/share");
    // The id of "/" is not what gives a file system in memory away.
    for (const bool root_id_known : {true, false}) {
        for (const NotMounted &refused : kNotMounted) {
            SCOPED_TRACE(refused.destination.name);
            const Diagnostics diagnostics;
            LoggedRun run;
            if (!root_id_known) run.root_fsid = {};
            EXPECT_EQ(resolve(job_of(refused.destination), run), std::nullopt);
            const std::string shown = refused.shown;
            EXPECT_TRUE(run.recorded(2, "'" + shown + "' is not mounted", ""));
            EXPECT_THAT(diagnostics.without_places(), HasSubstr("(debug) '" + shown + "' is root file system.\n"));
        }
    }
    EXPECT_FALSE(file_exists("/missing"));
    EXPECT_FALSE(file_exists("/media/GONE"));
    EXPECT_EQ(list_folder("/volume/share"), std::vector<std::string>());
}

TEST_F(LocalDestination, SharingHalfOfTheRootsIdCountsAsTheRoot) {
    const std::int32_t first = file_system_id_half("/media/USB", 0);
    const std::int32_t second = file_system_id_half("/media/USB", 1);
    struct {
        const char *name;
        std::array<std::int32_t, 2> root;
        bool accepted;
    } const cases[] = {
        {"both halves", {first, second}, false},
        {"first half", {first, second ^ 1}, false},
        {"second half", {first ^ 1, second}, false},
        {"neither", {first ^ 1, second ^ 1}, true},
        {"halves in each other's place", {second, first}, true},
    };
    ASSERT_NE(first, second);
    for (const auto &root : cases) {
        SCOPED_TRACE(root.name);
        LoggedRun run;
        run.root_fsid = root.root;
        const auto path = resolve(job_to("usb", "usb_port_2", {}, "a/b"), run);
        if (root.accepted) {
            EXPECT_EQ(path, "/media/USB/a/b");
            EXPECT_TRUE(run.silent());
        } else {
            EXPECT_EQ(path, std::nullopt);
            EXPECT_TRUE(run.recorded(2, "'/media/USB/a/b' is not mounted", ""));
            EXPECT_FALSE(file_exists("/media/USB/a"));
        }
    }
}

TEST_F(LocalDestination, OnASubvolumeOfTheRootsOwnVolumeIsRefused) {
    LoggedRun run;
    run.root_fsid = {file_system_id_half("/data", 0), file_system_id_half("/data", 1)};
    EXPECT_EQ(resolve(job_to("share", "share", "data", {}), run), std::nullopt);
    EXPECT_TRUE(run.recorded(2, "'/data/share/' is not mounted", ""));
}

TEST_F(LocalDestination, IsJudgedByTheNearestFolderThatExists) {
    LoggedRun run;
    EXPECT_EQ(resolve(job_to("share", "USB", "media", "a/b/c/d/e"), run), "/media/USB/a/b/c/d/e");
    EXPECT_TRUE(file_exists("/media/USB/a/b/c/d/e"));
}

// ---- creation --------------------------------------------------------------------------------------------------

TEST_F(LocalDestination, IsCreatedWithEveryPermissionThatTheMaskLeaves) {
    struct {
        mode_t mask, expected;
    } const cases[] = {{022, 0755}, {0, 0777}, {027, 0750}, {077, 0700}};
    for (const auto &masked : cases) {
        const Umask umask(masked.mask);
        LoggedRun run;
        EXPECT_EQ(resolve(job_to("usb", "usb_port_2", {}, "outer/inner"), run), "/media/USB/outer/inner");
        EXPECT_EQ(mode_of("/media/USB/outer"), masked.expected);
        EXPECT_EQ(mode_of("/media/USB/outer/inner"), masked.expected);
        remove_tree("/media/USB/outer");
    }
}

TEST_F(LocalDestination, ThatExistsStaysAsItIs) {
    write_file("/media/USB/outer/inner/file", "text");
    chmod("/media/USB/outer/inner", 0711);
    LoggedRun run;
    EXPECT_EQ(resolve(job_to("usb", "usb_port_2", {}, "outer/inner"), run), "/media/USB/outer/inner");
    EXPECT_EQ(mode_of("/media/USB/outer/inner"), 0711U);
    EXPECT_EQ(read_file("/media/USB/outer/inner/file"), "text");
}

TEST_F(LocalDestination, MayBeAnExistingFile) {
    write_file("/media/USB/file", "text");
    LoggedRun run;
    EXPECT_EQ(resolve(job_to("usb", "usb_port_2", {}, "file"), run), "/media/USB/file");
    EXPECT_TRUE(run.silent());
    EXPECT_EQ(read_file("/media/USB/file"), "text");
}

TEST_F(LocalDestination, ThatExistsMayBeReadOnly) {
    make_folder("/media/USB/outer");
    const ReadOnlyDisk disk;
    LoggedRun run;
    EXPECT_EQ(resolve(job_to("usb", "usb_port_2", {}, "outer"), run), "/media/USB/outer");
    EXPECT_TRUE(run.silent());
}

TEST_F(LocalDestination, ThatCannotBeCreatedIsReported) {
    write_file("/media/USB/file", "text");
    const struct {
        const char *name;
        bool read_only;
        JobText type, share_proto, share_vol, path;
        const char *shown, *message;
    } cases[] = {
        {"read-only disk",
         true,
         "usb",
         "usb_port_2",
         {},
         "new",
         "/media/USB/new",
         "Backup destination [/media/USB/new] is read only: usb/usb_port_2/new"},
        {"read-only disk, deeper", true, "share", "USB", "media", "a/b/", "/media/USB/a/b/",
         "Backup destination [/media/USB/a/b/] is read only: share/USB/a/b/"},
        {"without a type",
         true,
         {},
         "USB/new",
         "media",
         {},
         "/media/USB/new/",
         "Backup destination [/media/USB/new/] is read only: /USB/new/"},
        {"file in the middle",
         false,
         "usb",
         "usb_port_2",
         {},
         "file/new",
         "/media/USB/file/new",
         "Backup destination [/media/USB/file/new] is read only: usb/usb_port_2/file/new"},
        {"file in the middle, deeper", false, "share", "USB", "media", "file/a/b", "/media/USB/file/a/b",
         "Backup destination [/media/USB/file/a/b] is read only: share/USB/file/a/b"},
    };
    for (const auto &refused : cases) {
        SCOPED_TRACE(refused.name);
        std::optional<ReadOnlyDisk> disk;
        if (refused.read_only) disk.emplace();
        LoggedRun run;
        EXPECT_EQ(resolve(job_to(refused.type, refused.share_proto, refused.share_vol, refused.path), run),
                  std::nullopt);
        EXPECT_TRUE(run.recorded(4, refused.message, std::string("Cannot create directory ") + refused.shown + "!\n"));
    }
    EXPECT_EQ(read_file("/media/USB/file"), "text");
}

// ---- emptying --------------------------------------------------------------------------------------------------

struct Emptying {
    const char *name;
    std::int32_t full;
    JobText option;
    bool emptied;
};

const Emptying kEmptying[] = {
    {"asked for", 1, "1", true},
    {"any other number", 1, "2", true},
    {"blank before the number", 1, " 2", true},
    {"negative number", 1, "-1", true},
    {"number and text", 1, "1abc", true},
    {"leading zero", 1, "01", true},
    {"incremental run", 0, "1", false},
    {"zero", 1, "0", false},
    {"zeros", 1, "00", false},
    {"empty", 1, "", false},
    {"text", 1, "abc", false},
    {"text and number", 1, "a1", false},
    {"absent", 1, std::nullopt, false},
    {"incremental, absent", 0, std::nullopt, false},
};

TEST_F(LocalDestination, IsEmptiedForAFullRunThatAsksForIt) {
    for (const char *volume : {"media", "data"}) {
        const std::string share = volume == std::string("media") ? "USB" : "share";
        const std::string root = std::string("/") + volume + "/" + share;
        for (const Emptying &emptying : kEmptying) {
            SCOPED_TRACE(root + ": " + emptying.name);
            write_file(root + "/backup/old/deep/file", "old");
            write_file(root + "/backup/.hidden", "old");
            write_file(root + "/beside", "stays");
            chmod((root + "/backup").c_str(), 0751);
            struct stat before {};
            struct stat after {};
            ASSERT_EQ(stat((root + "/backup").c_str(), &before), 0);

            LoggedRun run;
            run.full = emptying.full;
            BackupJob job = job_to("share", share, volume, "backup/");
            job.opt_remove_previous_backup = emptying.option;
            EXPECT_EQ(resolve(job, run), root + "/backup");

            ASSERT_EQ(stat((root + "/backup").c_str(), &after), 0);
            EXPECT_EQ(after.st_ino, before.st_ino) << "the folder itself stays";
            EXPECT_EQ(after.st_mode, before.st_mode);
            EXPECT_EQ(list_folder(root + "/backup").empty(), emptying.emptied);
            EXPECT_EQ(read_file(root + "/beside"), "stays");
            EXPECT_TRUE(run.silent());
        }
    }
}

TEST_F(LocalDestination, ThatIsAWholeShareIsEmptiedAndStaysAShare) {
    write_file("/data/share/old/file", "old");
    struct stat before {};
    struct stat after {};
    ASSERT_EQ(stat("/data/share", &before), 0);
    LoggedRun run;
    run.full = 1;
    BackupJob job = job_to("share", "share", "data", {});
    job.opt_remove_previous_backup = "1";
    EXPECT_EQ(resolve(job, run), "/data/share");
    EXPECT_EQ(list_folder("/data/share"), std::vector<std::string>());
    ASSERT_EQ(stat("/data/share", &after), 0);
    EXPECT_EQ(after.st_dev, before.st_dev);
    EXPECT_EQ(after.st_ino, before.st_ino);
}

TEST_F(LocalDestination, ThatIsRefusedIsNotEmptied) {
    write_file("/volume/share/old", "old");
    write_file("/media/USB/abc~1/old", "old");
    for (const BackupJob &destination :
         {job_to("share", "share", "volume", {}), job_to("share", "USB/abc~1", "media", {})}) {
        LoggedRun run;
        run.full = 1;
        BackupJob job = destination;
        job.opt_remove_previous_backup = "1";
        EXPECT_EQ(resolve(job, run), std::nullopt);
    }
    EXPECT_EQ(read_file("/volume/share/old"), "old");
    EXPECT_EQ(read_file("/media/USB/abc~1/old"), "old");
}

TEST_F(LocalDestination, ThatIsAFileIsNotEmptied) {
    write_file("/media/USB/file", "text");
    LoggedRun run;
    run.full = 1;
    BackupJob job = job_to("usb", "usb_port_2", {}, "file");
    job.opt_remove_previous_backup = "1";
    EXPECT_EQ(resolve(job, run), "/media/USB/file");
    EXPECT_EQ(read_file("/media/USB/file"), "text");
}

TEST_F(LocalDestination, IsEmptiedWithoutFollowingLinks) {
    write_file("/data/share/kept", "kept");
    write_file("/media/USB/backup/old", "old");
    ASSERT_EQ(symlink("/data/share", "/media/USB/backup/link"), 0);
    LoggedRun run;
    run.full = 1;
    BackupJob job = job_to("usb", "usb_port_2", {}, "backup");
    job.opt_remove_previous_backup = "1";
    EXPECT_EQ(resolve(job, run), "/media/USB/backup");
    EXPECT_EQ(list_folder("/media/USB/backup"), std::vector<std::string>());
    EXPECT_EQ(read_file("/data/share/kept"), "kept");
}

} // namespace

} // namespace tsbackup::test
