// Which path the fields of a source mean. Snapshots of shares: snapshot_test.cpp.

#include "local_ends.h"
#include "tsbackup_local.h"
#include "user_lookup.h"

namespace tsbackup::test {

namespace {

struct Source {
    const char *name;
    JobText type, share_proto, share_vol, path;
};

BackupJob job_of(const Source &source) {
    return job_from(source.type, source.share_proto, source.share_vol, source.path);
}

class LocalSource : public LocalEnds {
  protected:
    void SetUp() override {
        LocalEnds::SetUp();
        if (IsSkipped()) return;
        for (const char *folder : {"/volume/share", "/volume/.timemachine", "/home/alice/docs/letters", "/home/bob",
                                   "/media/DISK/photos", "/media/DISK/~a", "/media/DISK/.hidden"})
            make_folder(folder);
        write_file("/media/DISK/file.txt", "text");
    }
};

struct Resolved {
    Source source;
    const char *expected;
};

const Resolved kResolved[] = {
    {{"volume", "volume", "volume", {}, {}}, "/volume"},
    {{"volume: the path does not count", "volume", "volume", "other", "share"}, "/volume"},
    {{"volume: normalised", "volume", "volume//./", {}, {}}, "/volume"},

    {{"home without a path", "home", "alice", {}, {}}, "/home/alice"},
    {{"home with an empty path", "home", "alice", {}, ""}, "/home/alice"},
    {{"home with a path", "home", "alice", {}, "docs/letters"}, "/home/alice/docs/letters"},
    {{"home: normalised", "home", "alice", {}, "//docs/.///./letters/./"}, "/home/alice/docs/letters"},
    {{"home: the user's folder is normalised too", "home", "untidy", {}, {}}, "/home/alice"},
    {{"home: the user's folder with a path", "home", "untidy", {}, "docs"}, "/home/alice/docs"},
    {{"all homes", "home", "*", {}, {}}, "/home"},
    {{"all homes: the path does not count", "home", "*", {}, "alice"}, "/home"},
    {{"all homes: only the first character counts", "home", "*nobody", {}, {}}, "/home"},

    {{"timemachine", "timemachine", {}, "volume", {}}, "/volume/.timemachine"},
    {{"timemachine: name and path do not count", "timemachine", "x", "volume", "y"}, "/volume/.timemachine"},

    {{"usb without a path", "usb", "usb_port_1", {}, {}}, "/media/DISK"},
    {{"usb with an empty path", "usb", "usb_port_1", {}, ""}, "/media/DISK"},
    {{"usb with a path", "usb", "usb_port_1", "ignored", "photos"}, "/media/DISK/photos"},
    {{"usb: normalised", "usb", "usb_port_1", {}, "/photos/"}, "/media/DISK/photos"},
    {{"usb: one file", "usb", "usb_port_1", {}, "file.txt"}, "/media/DISK/file.txt"},

    {{"share on a disk", "share", "DISK", "media", {}}, "/media/DISK"},
    {{"share on a disk with a path", "share", "DISK", "media", "photos"}, "/media/DISK/photos"},
    {{"tilde and a letter in the name", "share", "DISK/~a", "media", {}}, "/media/DISK/~a"},
    {{"dots that are no folder of their own stay", "share", "DISK", "media", ".hidden"}, "/media/DISK/.hidden"},
};

TEST_F(LocalSource, IsThePathOfItsFields) {
    for (const Resolved &resolved : kResolved) {
        SCOPED_TRACE(resolved.source.name);
        LoggedRun run;
        EXPECT_EQ(local_path_resolve(job_of(resolved.source), run, Side::source), resolved.expected);
        EXPECT_TRUE(run.silent());
        EXPECT_FALSE(run.snapshot_path);
        EXPECT_FALSE(run.snapshot_skip_path);
    }
}

struct Missing {
    Source source;
    const char *shown;
};

const Missing kMissing[] = {
    {{"unknown type", "floppy", "a", "b", "c"}, "(null)"},
    {{"no type", {}, "a", "b", "c"}, "(null)"},
    {{"empty type", "", "a", "b", "c"}, "(null)"},
    {{"types are compared exactly: capitals", "Volume", "volume", {}, {}}, "(null)"},
    {{"types are compared exactly: longer", "volumes", "volume", {}, {}}, "(null)"},
    {{"types are compared exactly: shorter", "vol", "volume", {}, {}}, "(null)"},
    {{"types are compared exactly: blank", "home ", "alice", {}, {}}, "(null)"},

    {{"volume that is not there", "volume", "missing", {}, {}}, "/missing"},
    {{"volume without a name is not the whole system", "volume", {}, {}, {}}, "(null)"},
    {{"home: missing path", "home", "alice", {}, "missing"}, "/home/alice/missing"},
    {{"home: shown as it was put together", "home", "untidy", {}, "missing/"}, "//home/./alice///missing/"},
    {{"missing home without a path", "home", "gone", {}, {}}, "/home/gone"},
    {{"missing home with an empty path", "home", "gone", {}, ""}, "/home/gone"},
    {{"home of a user without one", "home", "homeless", {}, {}}, ""},
    {{"timemachine: missing", "timemachine", {}, "missing", {}}, "/missing/.timemachine"},
    {{"timemachine without a volume", "timemachine", {}, {}, {}}, "//.timemachine"},

    {{"usb without a name", "usb", {}, {}, {}}, "(null)"},
    {{"usb with an empty name", "usb", "", {}, {}}, "(null)"},
    {{"usb with the name of a disk", "usb", "DISK", {}, {}}, "(null)"},
    {{"usb with a shorter start", "usb", "usb_port1", {}, {}}, "(null)"},
    {{"usb with capitals", "usb", "USB_PORT_1", {}, {}}, "(null)"},
    {{"usb with something in front", "usb", " usb_port_1", {}, {}}, "(null)"},
    {{"usb: missing path", "usb", "usb_port_1", {}, "missing"}, "/media/DISK/missing"},

    {{"share: missing path on a disk", "share", "DISK", "media", "missing"}, "/media/DISK/missing"},
    {{"share: missing disk", "share", "OTHER", "media", {}}, "/media/OTHER/"},
    {{"share without a name on media", "share", {}, "media", "missing"}, "/media//missing"},
    {{"share: missing volume", "share", "share", "missing", {}}, "/missing/share/"},
    {{"share: missing share", "share", "missing", "volume", {}}, "/volume/missing/"},
    {{"share: missing path on a volume", "share", "share", "volume", "missing/path"}, "/volume/share/missing/path"},
    {{"share without a volume", "share", "share", {}, {}}, "//share/"},
    {{"media is compared exactly", "share", "DISK", "Media", {}}, "/Media/DISK/"},

    {{"short name", "share", "abc~1", "volume", {}}, "(null)"},
    {{"short name on a disk", "share", "abc~1", "media", {}}, "(null)"},
    {{"short name: digit and more", "share", "abc~0def", "volume", {}}, "(null)"},
    {{"short name: nothing but", "share", "~9", "volume", {}}, "(null)"},
    {{"tilde and a letter", "share", "abc~d", "volume", {}}, "/volume/abc~d/"},
    {{"tilde at the end", "share", "abc~", "volume", {}}, "/volume/abc~/"},
    {{"two tildes: only the first one counts", "share", "a~b~1", "volume", {}}, "/volume/a~b~1/"},
    {{"two tildes in a row", "share", "a~~1", "volume", {}}, "/volume/a~~1/"},
    {{"a tilde in the volume counts for nothing", "share", "share", "vol~1", {}}, "/vol~1/share/"},
};

TEST_F(LocalSource, ThatIsMissingIsReported) {
    // A path that holds an empty component or a short name must not be found by accident.
    make_folder("/volume/abc~1");
    make_folder("/media/abc~1");
    for (const Missing &missing : kMissing) {
        SCOPED_TRACE(missing.source.name);
        LoggedRun run;
        EXPECT_EQ(local_path_resolve(job_of(missing.source), run, Side::source), std::nullopt);
        const std::string shown = missing.shown;
        EXPECT_TRUE(run.recorded(5, "'" + shown + "' not exists", "Path " + shown + " does not exist!\n"));
        EXPECT_FALSE(run.snapshot_path);
    }
    remove_tree("/media/abc~1");
}

TEST_F(LocalSource, AtAPortWithoutADiskIsReported) {
    for (const char *port : {"usb_port_9", "usb_port_", "usb_port_11", "usb_port_1 ", "usb_port_DISK"}) {
        SCOPED_TRACE(port);
        LoggedRun run;
        EXPECT_EQ(local_path_resolve(job_from("usb", port, {}, {}), run, Side::source), std::nullopt);
        EXPECT_TRUE(run.recorded(3, std::string("No USB storage device at ") + port,
                                 std::string("No USB storage was found at ") + port + "!\n"));
    }
}

TEST_F(LocalSource, AtAPortWithoutATableIsReported) {
    remove_tree("/etc/tessera");
    LoggedRun run;
    EXPECT_EQ(local_path_resolve(job_from("usb", "usb_port_1", {}, "photos"), run, Side::source), std::nullopt);
    EXPECT_TRUE(run.recorded(3, "No USB storage device at usb_port_1", "No USB storage was found at usb_port_1!\n"));
}

TEST_F(LocalSource, OfAnUnknownUserIsReported) {
    struct {
        JobText user;
        const char *shown;
    } const cases[] = {
        {"nobody-knows", "nobody-knows"}, {"Alice", "Alice"}, {"", ""}, {std::nullopt, ""}, {" *", " *"}};
    for (const auto &unknown : cases) {
        SCOPED_TRACE(unknown.shown);
        LoggedRun run;
        EXPECT_EQ(local_path_resolve(job_from("home", unknown.user, {}, "docs"), run, Side::source), std::nullopt);
        EXPECT_TRUE(run.recorded(4, "error from getpwnam(). errno=0",
                                 "Can't find username " + std::string(unknown.shown) + " in password database!\n"));
    }
}

TEST_F(LocalSource, ShowsTheErrorNumberOfAFailedUserLookup) {
    const UserLookup lookup({.reported_size = {}, .failure = EIO});
    LoggedRun run;
    EXPECT_EQ(local_path_resolve(job_from("home", "alice", {}, {}), run, Side::source), std::nullopt);
    EXPECT_TRUE(run.recorded(4, "error from getpwnam(). errno=5", "Can't find username alice in password database!\n"));
}

TEST_F(LocalSource, LooksUsersUpInABufferOfTheReportedSize) {
    UserLookup lookup({.reported_size = 3000, .failure = 0});
    LoggedRun run;
    EXPECT_EQ(local_path_resolve(job_from("home", "alice", {}, {}), run, Side::source), "/home/alice");
    EXPECT_EQ(lookup.sizes(), (std::vector<std::size_t>{3000}));
}

TEST_F(LocalSource, FindsAUserWhoseEntryIsLargerThanTheReportedSize) {
    UserLookup lookup({.reported_size = 4, .failure = 0});
    LoggedRun run;
    EXPECT_EQ(local_path_resolve(job_from("home", "alice", {}, "docs"), run, Side::source), "/home/alice/docs");
    EXPECT_TRUE(run.silent());
    EXPECT_GT(lookup.sizes().size(), 1U);
}

TEST_F(LocalSource, FindsAUserWhereNoSizeIsReported) {
    const UserLookup lookup({.reported_size = -1, .failure = 0});
    LoggedRun run;
    EXPECT_EQ(local_path_resolve(job_from("home", "alice", {}, {}), run, Side::source), "/home/alice");
}

TEST_F(LocalSource, ReportsThatNoMemoryIsLeftForAUserLookup) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer's allocator ends the process instead of refusing";
#else
    const UserLookup lookup({.reported_size = PTRDIFF_MAX, .failure = 0});
    LoggedRun run;
    EXPECT_EQ(local_path_resolve(job_from("home", "alice", {}, {}), run, Side::source), std::nullopt);
    EXPECT_TRUE(run.recorded(4, "OOM", ""));
#endif
}

TEST_F(LocalSource, WithARelativePathIsNoPathAndSilent) {
    const TempFolder root;
    make_folder(root / "relative/home");
    ASSERT_EQ(chdir(root.path().c_str()), 0);
    LoggedRun run;
    EXPECT_EQ(local_path_resolve(job_from("home", "relative", {}, {}), run, Side::source), std::nullopt);
    EXPECT_TRUE(run.silent());
}

TEST_F(LocalSource, NotesWhatItIs) {
    for (const bool is_folder : {true, false}) {
        LoggedRun run;
        run.src_is_dir = is_folder ? 0 : 1;
        run.fsid = 1;
        const BackupJob job = job_from("usb", "usb_port_1", {}, is_folder ? "photos" : "file.txt");
        const auto path = local_path_resolve(job, run, Side::source);
        ASSERT_TRUE(path);
        EXPECT_EQ(run.src_is_dir, is_folder ? 1 : 0);
        EXPECT_EQ(run.fsid, file_system_id(*path));
    }
}

TEST_F(LocalSource, ThatIsMissingLeavesWhatTheRunKnew) {
    LoggedRun run;
    run.src_is_dir = 1;
    run.fsid = 17;
    EXPECT_EQ(local_path_resolve(job_from("volume", "missing", {}, {}), run, Side::source), std::nullopt);
    EXPECT_EQ(run.src_is_dir, 1);
    EXPECT_EQ(run.fsid, 17U);
}

TEST_F(LocalSource, KeepsTheFirstErrorOfTheRun) {
    LoggedRun run;
    run.error_code = 6;
    run.error_message = "earlier";
    EXPECT_EQ(local_path_resolve(job_from("volume", "missing", {}, {}), run, Side::source), std::nullopt);
    EXPECT_TRUE(run.recorded(6, "earlier", "Path /missing does not exist!\n"));
}

} // namespace

} // namespace tsbackup::test
