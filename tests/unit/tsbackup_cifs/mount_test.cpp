// Mounting a share: the commands, the password, the dialects, the folder on the share, taking it down again. The
// commands are stand-ins that show a local folder in the share's place.

#include "mount.h"

#include "mount_tools.h"
#include "remote_run.h"
#include "tsbackup/log.h"
#include "tsbackup_cifs.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tsbackup::test {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

constexpr char kMountPoint[] = "/job_007";

/// A download from "//server/Public".
BackupJob download(const std::string &path = "//server/Public") {
    BackupJob job;
    job.job_id = 7;
    job.src_type = "remote";
    job.src_share_proto = "cifs";
    job.src_path = path;
    job.dst_type = "usb";
    job.dst_share_proto = "none";
    // The other end's log-in is there to be mistaken for this one's.
    job.dst_login = "wrong";
    job.dst_password = "wrong";
    return job;
}

BackupJob upload(const std::string &path = "//server/Public") {
    BackupJob job;
    job.job_id = 7;
    job.src_type = "home";
    job.src_share_proto = "alice";
    job.dst_type = "remote";
    job.dst_share_proto = "cifs";
    job.dst_path = path;
    job.src_login = "wrong";
    job.src_password = "wrong";
    return job;
}

/// The eight commands for a share, each dialect twice.
std::vector<std::string> eight_commands(const std::string &share, const std::string &options) {
    std::vector<std::string> commands;
    for (const char *version : {"3.0", "2.1", "2.0", "1.0"}) {
        std::string command = "mount.cifs " + share + " /job_007 -o " + options + ",vers=" + version;
        if (std::string(version) != "1.0") command = "timeout -k7 5 " + command;
        commands.insert(commands.end(), 2, command);
    }
    return commands;
}

/// The commands among the calls.
std::vector<std::string> commands_in(const SystemCalls &calls) {
    std::vector<std::string> commands;
    for (const std::string &call : calls.made)
        if (call.starts_with("shell ")) commands.push_back(call.substr(6));
    return commands;
}

class CifsMount : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_APPLIANCE();
        remove_tree("/home/alice");
        make_folder("/home/alice");
        share_.emplace();
        ASSERT_FALSE(file_exists(kMountPoint)) << "left by an earlier test";
    }
    void TearDown() override {
        if (!in_appliance()) return;
        EXPECT_EQ(std::getenv("PASSWD"), nullptr);
        while (is_mounted(kMountPoint) && umount2(kMountPoint, MNT_DETACH) == 0) {
        }
        remove_tree(kMountPoint);
    }
    /// A path on the server's disk.
    std::string on_share(const std::string &name) const { return *share_ / name; }
    /// The share can be mounted from command number `call` on.
    void serve(int call = 1) {
        if (call == 1)
            tools_.answers(MountTools::shows(share_->path()));
        else
            tools_.answers(call, MountTools::shows(share_->path()));
    }

    MountTools tools_;
    LoggedRun run_;

  private:
    std::optional<TempFolder> share_;
};

// ---- the commands ----------------------------------------------------------------------------------------------

TEST_F(CifsMount, TriesEveryDialectTwiceBeforeItGivesUp) {
    SystemCalls calls;
    Diagnostics diagnostics(6);
    EXPECT_EQ(cifs_mount(download("//server/Public/folder"), run_, Side::source), std::nullopt);
    EXPECT_THAT(commands_in(calls), ElementsAreArray(eight_commands("//server/Public", "guest,iocharset=utf8")));
    EXPECT_THAT(tools_.commands(), SizeIs(8));
    EXPECT_TRUE(
        run_.recorded(1, "Error mount //server/Public", "Failed to mount remote path //server/Public/folder!\n"));
    EXPECT_EQ(diagnostics.without_places(), "(info) mount.cifs is trying version 3.0\n"
                                            "(info) mount.cifs is trying version 2.1\n"
                                            "(info) mount.cifs is trying version 2.0\n"
                                            "(info) mount.cifs is trying version 1.0\n");
    EXPECT_FALSE(file_exists(kMountPoint));
    EXPECT_EQ(run_.cifs_ext_changed, 0);
}

TEST_F(CifsMount, ADestinationThatCannotBeMountedIsNotAvailable) {
    EXPECT_EQ(cifs_mount(upload("\\\\server\\Public\\folder"), run_, Side::destination), std::nullopt);
    EXPECT_TRUE(
        run_.recorded(2, "Error mount //server/Public", "Failed to mount remote path \\\\server\\Public\\folder!\n"));
    EXPECT_FALSE(file_exists(kMountPoint));
}

TEST_F(CifsMount, StopsAtTheFirstSuccess) {
    struct Case {
        const char *version;
        const char *how;
    };
    const Case cases[] = {
        {"3.0", "without setting cifs linux extention"}, {"3.0", "with setting cifs linux extention to 0"},
        {"2.1", "without setting cifs linux extention"}, {"2.1", "with setting cifs linux extention to 0"},
        {"2.0", "without setting cifs linux extention"}, {"2.0", "with setting cifs linux extention to 0"},
        {"1.0", "without setting cifs linux extention"}, {"1.0", "with setting cifs linux extention to 0"},
    };
    for (int call = 1; call <= 8; ++call) {
        const Case &expected = cases[call - 1];
        SCOPED_TRACE(call);
        MountTools tools;
        tools.answers(call, "exit 0");
        LoggedRun run;
        SystemCalls calls;
        Diagnostics diagnostics(6);
        EXPECT_EQ(cifs_mount(download(), run, Side::source), kMountPoint);
        std::vector<std::string> commands = eight_commands("//server/Public", "guest,iocharset=utf8");
        commands.resize(static_cast<std::size_t>(call));
        EXPECT_EQ(commands_in(calls), commands);
        const std::string last =
            diagnostics.without_places().substr(diagnostics.without_places().rfind("\n(", std::string::npos - 1) + 1);
        EXPECT_EQ(last, std::string("(info) mount.cifs mount successfully ") + expected.how +
                            ", mount_cifs_version = " + expected.version + "\n");
        EXPECT_EQ(run.cifs_ext_changed, call % 2 == 0 ? 1 : 0);
        EXPECT_TRUE(run.silent());
        cifs_umount(download());
    }
}

TEST_F(CifsMount, EveryStatusButZeroIsAFailure) {
    tools_.answers(1, "exit 1").answers(2, "exit 32").answers(3, "exit 124").answers(4, "kill -9 $$");
    tools_.answers(5, "exit 0");
    EXPECT_EQ(cifs_mount(download(), run_, Side::source), kMountPoint);
    EXPECT_THAT(tools_.commands(), SizeIs(5));
}

struct OptionCase {
    const char *name;
    JobText login;
    std::string options;
};
const OptionCase kOptions[] = {
    {"no login", std::nullopt, "guest,iocharset=utf8"},
    {"an empty login", "", "guest,iocharset=utf8"},
    {"a user", "alice", "username=alice,iocharset=utf8"},
    {"domain and user", "HOME\\alice", "username=alice,domain=HOME,iocharset=utf8"},
    {"domain and user with two backslashes", "HOME\\\\alice", "username=alice,domain=HOME,iocharset=utf8"},
    {"domain and user with a slash", "HOME/alice", "username=alice,domain=HOME,iocharset=utf8"},
    {"user and domain", "alice@home.example", "username=alice,domain=home.example,iocharset=utf8"},
    {"an at sign and a backslash", "HOME\\alice@x", "username=alice@x,domain=HOME,iocharset=utf8"},
    {"an empty user", "HOME\\", "username=,domain=HOME,iocharset=utf8"},
    {"an empty domain", "alice@", "username=alice,iocharset=utf8"},
    {"a user that a shell would act on", "al ice$(x)", "username=al\\ ice\\$\\(x\\),iocharset=utf8"},
    {"a user with a semicolon", "a;b", "username=a\\;b,iocharset=utf8"},
    {"a domain that a shell would act on", "H M;x\\alice", "username=alice,domain=H\\ M\\;x,iocharset=utf8"},
    {"a user with a tilde", "~root", "username=~root,iocharset=utf8"},
    {"54 characters", std::string(54, 'u'), "username=" + std::string(54, 'u') + ",iocharset=utf8"},
    {"55 characters", std::string(55, 'u'), ",iocharset=utf8"},
    {"60 characters", std::string(60, 'u'), ",iocharset=utf8"},
    {"500 characters", std::string(500, 'u'), ",iocharset=utf8"},
    {"escapes count", std::string(27, ' '),
     "username=" +
         [] {
             std::string blanks;
             for (int count = 0; count < 27; ++count)
                 blanks += "\\ ";
             return blanks;
         }() +
         ",iocharset=utf8"},
    {"one escape too many", std::string(27, ' ') + "u", ",iocharset=utf8"},
    {"a domain of 55 characters", std::string(55, 'd') + "\\u",
     "username=u,domain=" + std::string(55, 'd') + ",iocharset=utf8"},
    {"a domain of 56 characters", std::string(56, 'd') + "\\u", "username=u,iocharset=utf8"},
    {"a long user with a domain", "d\\" + std::string(60, 'u'), ",domain=d,iocharset=utf8"},
    {"both too long", std::string(60, 'd') + "\\" + std::string(60, 'u'), ",iocharset=utf8"},
    {"a domain is measured as it stands", std::string(55, '$') + "\\u",
     "username=u,domain=" +
         [] {
             std::string signs;
             for (int count = 0; count < 55; ++count)
                 signs += "\\$";
             return signs;
         }() +
         ",iocharset=utf8"},
};

TEST_F(CifsMount, OptionsSayWhoLogsIn) {
    for (const OptionCase &test : kOptions) {
        SCOPED_TRACE(test.name);
        EXPECT_EQ(cifs_mount_options(test.login), test.options);
    }
}

TEST_F(CifsMount, EachSideHasItsOwnLogIn) {
    BackupJob job = download();
    job.src_login = "HOME\\alice";
    SystemCalls calls;
    cifs_mount(job, run_, Side::source);
    EXPECT_THAT(commands_in(calls),
                ElementsAreArray(eight_commands("//server/Public", "username=alice,domain=HOME,iocharset=utf8")));
    calls.made.clear();
    job = upload("//other/Backup/x");
    job.dst_login = "bob";
    cifs_mount(job, run_, Side::destination);
    EXPECT_THAT(commands_in(calls), ElementsAreArray(eight_commands("//other/Backup", "username=bob,iocharset=utf8")));
}

TEST_F(CifsMount, NamesThatAShellWouldActOnStayWords) {
    struct Case {
        const char *path;
        const char *word;
        const char *text; ///< in the command
    };
    const Case cases[] = {
        {"//server/Public", "//server/Public", "//server/Public"},
        {"//server/My Share", "//server/My Share", "//server/My\\ Share"},
        {"//192.168.1.5/Public$", "//192.168.1.5/Public$", "//192.168.1.5/Public\\$"},
        {"//server/a'b", "//server/a'b", "//server/a\\'b"},
        {"//server/~x", "//server/~x", "//server/~x"},
        {"//server/#x", "//server/#x", "//server/#x"},
        {"//server/a;touch pwned", "//server/a;touch pwned", "//server/a\\;touch\\ pwned"},
        {"//ho st;touch pwned/x", "//ho st;touch pwned/x", "//ho\\ st\\;touch\\ pwned/x"},
        {"//$(touch pwned)/`touch pwned`", "//$(touch pwned)/`touch pwned`",
         "//\\$\\(touch\\ pwned\\)/\\`touch\\ pwned\\`"},
        {"//a\ntouch pwned/b\ntouch pwned", "//a\ntouch pwned/b\ntouch pwned",
         "//a'\n'touch\\ pwned/b'\n'touch\\ pwned"},
        {"\\\\server\\My Share\\x", "//server/My Share", "//server/My\\ Share"},
    };
    const TempFolder work;
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(work.path());
    for (const Case &test : cases) {
        SCOPED_TRACE(test.path);
        MountTools tools;
        LoggedRun run;
        SystemCalls calls;
        BackupJob job = download(test.path);
        job.src_login = "do;main$(touch pwned)\\us;er`touch pwned`";
        cifs_mount(job, run, Side::source);
        ASSERT_THAT(tools.commands(), SizeIs(8));
        EXPECT_EQ(tools.lines().front(), std::string("timeout|-k7|5|mount.cifs|") + test.word +
                                             "|/job_007|-o|username=us;er`touch pwned`,domain=do;main$(touch pwned),"
                                             "iocharset=utf8,vers=3.0");
        EXPECT_THAT(commands_in(calls).front(), HasSubstr(std::string("mount.cifs ") + test.text + " /job_007 -o "));
        EXPECT_EQ(tools.lines().back().substr(0, 11), "mount.cifs|");
    }
    EXPECT_THAT(list_folder(work.path()), IsEmpty());
    std::filesystem::current_path(before);
}

TEST_F(CifsMount, LongHostAndShareNamesAreCut) {
    const std::string host(70, 'h');
    const std::string share(70, 's');
    cifs_mount(download("//" + host + "/" + share + "/x"), run_, Side::source);
    const std::string cut = "//" + host.substr(0, 63) + "/" + share.substr(0, 63);
    EXPECT_EQ(tools_.commands().front().words[4], cut);
    EXPECT_TRUE(
        run_.recorded(1, "Error mount " + cut, "Failed to mount remote path //" + host + "/" + share + "/x!\n"));
}

TEST_F(CifsMount, JobNumbersHaveAtLeastThreeDigits) {
    for (const auto &[number, mount_point] :
         {std::pair{1, "/job_001"}, {42, "/job_042"}, {999, "/job_999"}, {12345, "/job_12345"}}) {
        MountTools tools;
        BackupJob job = download();
        job.job_id = number;
        LoggedRun run;
        EXPECT_EQ(cifs_mount(job, run, Side::source), std::nullopt);
        EXPECT_EQ(tools.commands().front().words[5], mount_point);
        EXPECT_FALSE(file_exists(mount_point));
    }
}

// ---- the password ----------------------------------------------------------------------------------------------

TEST_F(CifsMount, ThePasswordIsInTheEnvironmentOfTheMountCommandsAlone) {
    struct Case {
        const char *name;
        std::string password;
        std::string seen;
    };
    const Case cases[] = {
        {"plain", "secret", "secret"},
        {"everything", " a'b\"c$d`e\\f;g\nh=i%s,j", " a'b\"c$d`e\\f;g\nh=i%s,j"},
        {"248 characters", std::string(248, 'p'), std::string(248, 'p')},
        {"249 characters", std::string(248, 'p') + "q", std::string(248, 'p')},
        {"1000 characters", std::string(1000, 'p'), std::string(248, 'p')},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(test.name);
        for (const bool fails : {true, false}) {
            MountTools tools;
            if (!fails) tools.answers(3, "exit 0");
            LoggedRun run;
            SystemCalls calls;
            std::vector<std::string> without_password;
            calls.answer = [&](const std::string &call) -> std::optional<int> {
                if (!call.starts_with("shell ") && std::getenv("PASSWD") == nullptr) without_password.push_back(call);
                return std::nullopt;
            };
            Diagnostics diagnostics(7);
            BackupJob job = download();
            job.src_login = "alice";
            job.src_password = test.password;
            EXPECT_EQ(cifs_mount(job, run, Side::source).has_value(), !fails);
            EXPECT_EQ(std::getenv("PASSWD"), nullptr);
            ASSERT_THAT(tools.commands(), SizeIs(fails ? 8 : 3));
            for (const MountCommand &command : tools.commands()) {
                EXPECT_EQ(command.password, test.seen);
                EXPECT_THAT(command.line(), Not(HasSubstr(test.seen)));
            }
            EXPECT_THAT(diagnostics.text(), Not(HasSubstr(test.seen)));
            EXPECT_THAT(run.errors(), Not(HasSubstr(test.seen)));
            // What comes before and after the commands does not see it.
            std::vector<std::string> expected = {"mkdir /job_007 700", "umount /job_007"};
            if (fails) expected.emplace_back("rmdir /job_007");
            EXPECT_EQ(without_password, expected);
            cifs_umount(job);
        }
    }
}

TEST_F(CifsMount, WithoutAPasswordNoneIsInTheEnvironment) {
    for (const JobText &password : {JobText(), JobText("")}) {
        MountTools tools;
        // Whoever started this process may have had one of his own.
        setenv("PASSWD", "somebody else's", 1);
        BackupJob job = download();
        job.src_login = "alice";
        job.src_password = password;
        cifs_mount(job, run_, Side::source);
        ASSERT_THAT(tools.commands(), SizeIs(8));
        for (const MountCommand &command : tools.commands())
            EXPECT_EQ(command.password, std::nullopt);
    }
}

TEST_F(CifsMount, TheLocalEndIsTouchedOnlyAfterThePasswordIsGone) {
    serve();
    write_file("/home/alice/file", "content");
    BackupJob job = upload();
    job.dst_login = "bob";
    job.dst_password = "secret";
    SystemCalls calls;
    bool seen = false;
    calls.answer = [&seen](const std::string &call) -> std::optional<int> {
        if (!call.starts_with("shell ") && std::getenv("PASSWD") != nullptr) seen = true;
        return std::nullopt;
    };
    backup_local_to_cifs(job, run_);
    EXPECT_FALSE(seen);
    EXPECT_EQ(read_file(on_share("file")), "content");
}

// ---- the mount point -------------------------------------------------------------------------------------------

TEST_F(CifsMount, SetsUpInThisOrder) {
    serve();
    SystemCalls calls;
    EXPECT_EQ(cifs_mount(download(), run_, Side::source), kMountPoint);
    EXPECT_THAT(calls.made, ElementsAre("mkdir /job_007 700", "umount /job_007",
                                        "shell " + eight_commands("//server/Public", "guest,iocharset=utf8").front()));
    EXPECT_TRUE(is_mounted(kMountPoint));
}

TEST_F(CifsMount, WhatAnEarlierRunLeftMountedIsTakenDownFirst) {
    const TempFolder old;
    write_file(old / "old", "");
    write_file(on_share("new"), "");
    make_folder(kMountPoint);
    for (int mounts = 0; mounts < 2; ++mounts)
        ASSERT_EQ(mount(old.path().c_str(), kMountPoint, nullptr, MS_BIND, nullptr), 0);
    serve();
    SystemCalls calls;
    ASSERT_EQ(cifs_mount(download(), run_, Side::source), kMountPoint);
    ASSERT_THAT(calls.made, SizeIs(4));
    EXPECT_EQ(calls.made[1], "umount /job_007");
    EXPECT_EQ(calls.made[2], "umount2 /job_007 1");
    EXPECT_EQ(list_folder(kMountPoint), std::vector<std::string>{"new"});
    cifs_umount(download());
    EXPECT_FALSE(file_exists(kMountPoint)) << "both were taken down";
    EXPECT_TRUE(file_exists(old / "old"));
}

TEST_F(CifsMount, AMountPointThatIsThereAlreadyWillDo) {
    make_folder(kMountPoint);
    serve();
    EXPECT_EQ(cifs_mount(download(), run_, Side::source), kMountPoint);
    EXPECT_TRUE(run_.silent());
}

TEST_F(CifsMount, AMountPointThatCannotBeMadeIsReported) {
    for (const Side side : {Side::source, Side::destination}) {
        LoggedRun run;
        SystemCalls calls;
        calls.answer = [](const std::string &call) -> std::optional<int> {
            return call.starts_with("mkdir") ? std::optional(ENOSPC) : std::nullopt;
        };
        EXPECT_EQ(cifs_mount(side == Side::source ? download("bad") : upload("bad"), run, side), std::nullopt);
        EXPECT_TRUE(run.recorded(1, "Failed to call mkdir /job_007!\n", "Failed to make mount directory /job_007!\n"));
        EXPECT_THAT(calls.made, ElementsAre("mkdir /job_007 700"));
    }
}

TEST_F(CifsMount, AMalformedPathIsReportedAndLeavesNoMountPoint) {
    for (const JobText &path : {JobText("/server/Public"), JobText("\\/server/Public"), JobText("/\\server"),
                                JobText("server"), JobText(""), JobText()})
        for (const Side side : {Side::source, Side::destination}) {
            LoggedRun run;
            BackupJob job = side == Side::source ? download() : upload();
            (side == Side::source ? job.src_path : job.dst_path) = path;
            EXPECT_EQ(cifs_mount(job, run, side), std::nullopt);
            EXPECT_TRUE(run.recorded(1, "Malformed path=" + path.value_or("") + "\n",
                                     "Path " + path.value_or("") + " is in a wrong format!\n"));
            EXPECT_FALSE(file_exists(kMountPoint));
        }
    EXPECT_THAT(tools_.commands(), IsEmpty());
}

TEST_F(CifsMount, TakesDownInThisOrder) {
    serve();
    ASSERT_TRUE(cifs_mount(download(), run_, Side::source));
    SystemCalls calls;
    cifs_umount(download());
    EXPECT_THAT(calls.made, ElementsAre("sync_fs /job_007", "umount /job_007", "umount2 /job_007 1", "rmdir /job_007"));
    EXPECT_FALSE(file_exists(kMountPoint));
}

TEST_F(CifsMount, AFailedUnmountIsNotForced) {
    serve();
    ASSERT_TRUE(cifs_mount(download(), run_, Side::source));
    SystemCalls calls;
    calls.answer = [](const std::string &call) -> std::optional<int> {
        return call.starts_with("umount") ? std::optional(EBUSY) : std::nullopt;
    };
    cifs_umount(download());
    EXPECT_THAT(calls.made, ElementsAre("sync_fs /job_007", "umount /job_007", "rmdir /job_007"));
    EXPECT_TRUE(is_mounted(kMountPoint));
}

// ---- the source folder -----------------------------------------------------------------------------------------

TEST_F(CifsMount, ASourceIsExamined) {
    write_file(on_share("folder/sub/file"), "content");
    struct Case {
        const char *path;
        const char *local;
        int is_dir;
    };
    const Case cases[] = {
        {"//server/Public", "/job_007", 1},
        {"//server/Public/", "/job_007", 1},
        {"//server/Public/folder", "/job_007/folder", 1},
        {"//server/Public/folder/sub/", "/job_007/folder/sub", 1},
        {"//server/Public//folder///sub", "/job_007/folder/sub", 1},
        {"//server/Public/folder/./sub", "/job_007/folder/sub", 1},
        {"//server/Public/folder/../folder", "/job_007/folder/../folder", 1},
        {"\\\\server\\Public\\folder\\sub", "/job_007/folder/sub", 1},
        {"//server/Public/folder/sub/file", "/job_007/folder/sub/file", 0},
    };
    serve();
    for (const Case &test : cases) {
        SCOPED_TRACE(test.path);
        LoggedRun run;
        run.src_is_dir = 1 - test.is_dir;
        EXPECT_EQ(cifs_mount(download(test.path), run, Side::source), test.local);
        EXPECT_EQ(run.src_is_dir, test.is_dir);
        EXPECT_NE(run.fsid, 0U);
        EXPECT_TRUE(run.silent());
        EXPECT_TRUE(is_mounted(kMountPoint));
        cifs_umount(download());
    }
    EXPECT_TRUE(file_exists(on_share("folder/sub/file")));
}

TEST_F(CifsMount, ASourceThatIsNotThereIsNotReported) {
    serve();
    SystemCalls calls;
    EXPECT_EQ(cifs_mount(download("//server/Public/missing"), run_, Side::source), std::nullopt);
    EXPECT_TRUE(run_.silent());
    EXPECT_FALSE(file_exists(kMountPoint));
    EXPECT_FALSE(is_mounted(kMountPoint));
    EXPECT_EQ(calls.made.back(), "rmdir /job_007");
    EXPECT_THAT(list_folder(on_share("")), IsEmpty());
}

TEST_F(CifsMount, AFullRunNeverEmptiesItsSource) {
    write_file(on_share("folder/file"), "content");
    serve();
    BackupJob job = download("//server/Public/folder");
    job.opt_remove_previous_backup = "1";
    run_.full = 1;
    EXPECT_EQ(cifs_mount(job, run_, Side::source), "/job_007/folder");
    EXPECT_EQ(read_file(on_share("folder/file")), "content");
}

// ---- the destination folder ------------------------------------------------------------------------------------

TEST_F(CifsMount, ADestinationIsCreatedWithItsParents) {
    serve();
    const mode_t mask = umask(0);
    EXPECT_EQ(cifs_mount(upload("\\\\server\\Public\\a\\b c\\d\\"), run_, Side::destination), "/job_007/a/b c/d");
    umask(mask);
    for (const char *folder : {"a", "a/b c", "a/b c/d"}) {
        struct stat status {};
        ASSERT_EQ(stat(on_share(folder).c_str(), &status), 0) << folder;
        EXPECT_EQ(status.st_mode, mode_t{S_IFDIR | 0777}) << folder;
    }
    EXPECT_TRUE(run_.silent());
    EXPECT_EQ(run_.src_is_dir, 0);
    EXPECT_EQ(run_.fsid, 0U);
}

TEST_F(CifsMount, ADestinationThatIsThereIsTakenAsItIs) {
    write_file(on_share("folder/file"), "content");
    serve();
    EXPECT_EQ(cifs_mount(upload("//server/Public/folder"), run_, Side::destination), "/job_007/folder");
    EXPECT_EQ(read_file(on_share("folder/file")), "content");
    EXPECT_TRUE(run_.silent());
}

TEST_F(CifsMount, ADestinationIsEmptiedWhenAFullRunIsAskedTo) {
    struct Case {
        int full;
        JobText remove;
        bool emptied;
    };
    const Case cases[] = {
        {1, "1", true}, {1, "2", true},           {1, "-1", true}, {1, "0", false},
        {1, "", false}, {1, std::nullopt, false}, {1, "x", false}, {0, "1", false},
    };
    serve();
    for (const Case &test : cases) {
        SCOPED_TRACE(std::to_string(test.full) + " " + test.remove.value_or("(absent)"));
        write_file(on_share("folder/sub/file"), "content");
        write_file(on_share("beside/file"), "content");
        LoggedRun run;
        run.full = test.full;
        BackupJob job = upload("//server/Public/folder");
        job.opt_remove_previous_backup = test.remove;
        EXPECT_EQ(cifs_mount(job, run, Side::destination), "/job_007/folder");
        EXPECT_EQ(file_exists(on_share("folder/sub")), !test.emptied);
        EXPECT_TRUE(file_exists(on_share("folder"))) << "the folder itself stays";
        EXPECT_TRUE(file_exists(on_share("beside/file")));
        EXPECT_TRUE(run.silent());
        cifs_umount(job);
    }
}

TEST_F(CifsMount, ADestinationThatIsAFileIsRefusedAndTheShareStaysMounted) {
    write_file(on_share("folder/file"), "content");
    serve();
    BackupJob job = upload("//server/Public/folder/file");
    job.opt_remove_previous_backup = "1";
    run_.full = 1;
    EXPECT_EQ(cifs_mount(job, run_, Side::destination), std::nullopt);
    EXPECT_TRUE(run_.recorded(4, "Backup destination [folder/file] is a file: remote/cifs///server/Public/folder/file",
                              "Destination cifs///server/Public/folder/file is a file. Cannot backup to a file!\n"));
    EXPECT_TRUE(is_mounted(kMountPoint));
    EXPECT_EQ(read_file(on_share("folder/file")), "content");

    // The next run takes it down.
    LoggedRun next;
    EXPECT_EQ(cifs_mount(upload("//server/Public/folder"), next, Side::destination), "/job_007/folder");
    EXPECT_TRUE(next.silent());
    cifs_umount(job);
    EXPECT_FALSE(is_mounted(kMountPoint));
}

TEST_F(CifsMount, ADestinationThatCannotBeCreatedIsReadOnlyAndTheShareStaysMounted) {
    write_file(on_share("file"), "content");
    struct Case {
        const char *path;
        const char *remainder;
        const char *local;
        bool read_only;
    };
    const Case cases[] = {
        {"//server/Public/a/b", "a/b", "/job_007/a/b", true},
        {"//server/Public/file/b", "file/b", "/job_007/file/b", false},
        {"//server/Public/file/b/c", "file/b/c", "/job_007/file/b/c", false},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(test.path);
        MountTools tools;
        tools.answers(test.read_only ? MountTools::shows_read_only(on_share("")) : MountTools::shows(on_share("")));
        LoggedRun run;
        run.full = 1;
        BackupJob job = upload(test.path);
        job.opt_remove_previous_backup = "1";
        EXPECT_EQ(cifs_mount(job, run, Side::destination), std::nullopt);
        EXPECT_TRUE(run.recorded(
            4, std::string("Backup destination [") + test.remainder + "] is read only: remote/cifs/" + test.path,
            std::string("Failed to create destination directory ") + test.local + "!\n"));
        EXPECT_TRUE(is_mounted(kMountPoint));
        cifs_umount(job);
    }
    EXPECT_EQ(read_file(on_share("file")), "content");
}

TEST_F(CifsMount, AFolderOutsideOfTheShareIsRefused) {
    const TempFolder outside;
    write_file(outside / "folder/file", "content");
    std::filesystem::create_symlink(outside.path(), on_share("link"));
    std::filesystem::create_symlink(outside / "later", on_share("dangling"));
    serve();
    for (const Side side : {Side::source, Side::destination}) {
        for (const std::string &below :
             {std::string("../home/alice"), std::string("a/../../home"), std::string(".."), std::string("link"),
              std::string("link/folder"), std::string("link/new"), std::string("dangling")}) {
            SCOPED_TRACE(below);
            const std::string path = "//server/Public/" + below;
            BackupJob job = side == Side::source ? download(path) : upload(path);
            job.opt_remove_previous_backup = "1";
            LoggedRun run;
            run.full = 1;
            EXPECT_EQ(cifs_mount(job, run, side), std::nullopt);
            EXPECT_TRUE(run.recorded(1, "Malformed path=" + path + "\n", "Path " + path + " is in a wrong format!\n"));
            EXPECT_FALSE(is_mounted(kMountPoint));
            EXPECT_FALSE(file_exists(kMountPoint));
        }
    }
    EXPECT_EQ(read_file(outside / "folder/file"), "content");
    EXPECT_EQ(list_folder(outside.path()), std::vector<std::string>{"folder"});
}

// ---- the extensions switch -------------------------------------------------------------------------------------

/// Something else than the kernel's own files below "/proc/fs" for as long as the object lives.
class ExtensionsSwitch {
  public:
    explicit ExtensionsSwitch(const std::string &content) {
        made_ = mount("switch", "/proc/fs", "tmpfs", 0, nullptr) == 0;
        if (made_) write_file(path, content);
    }
    ~ExtensionsSwitch() {
        if (made_) umount2("/proc/fs", MNT_DETACH);
    }
    ExtensionsSwitch(const ExtensionsSwitch &) = delete;
    ExtensionsSwitch &operator=(const ExtensionsSwitch &) = delete;
    bool made() const { return made_; }
    static constexpr char path[] = "/proc/fs/cifs/LinuxExtensionsEnabled";

  private:
    bool made_ = false;
};

TEST_F(CifsMount, TheExtensionsSwitchIsReadAndNeverWritten) {
    struct Case {
        const char *content;
        int value;
    };
    const Case cases[] = {{"1\n", 1},  {"0\n", 0}, {"1", 1},  {" 1\n", 1}, {"12\n", 12}, {"123\n", 12},
                          {"7x\n", 7}, {"x\n", 0}, {"\n", 0}, {"", 0},     {"-1\n", -1}};
    for (const Case &test : cases) {
        SCOPED_TRACE(test.content);
        const ExtensionsSwitch extensions(test.content);
        if (!extensions.made()) GTEST_SKIP() << "needs to mount on /proc/fs";
        for (const int wanted : {0, 1, 7}) {
            EXPECT_EQ(cifs_set_linux_extensions(wanted), test.value);
            EXPECT_EQ(read_file(ExtensionsSwitch::path), test.content);
        }
    }
    EXPECT_EQ(cifs_set_linux_extensions(1), 0) << "no switch, no value";
}

TEST_F(CifsMount, TheRunKnowsTheSwitch) {
    const ExtensionsSwitch extensions("1\n");
    if (!extensions.made()) GTEST_SKIP() << "needs to mount on /proc/fs";
    struct Case {
        int successful_call;
        int changed;
        int saved;
    };
    for (const Case &test : {Case{1, 0, 0}, Case{2, 1, 1}, Case{3, 0, 1}, Case{4, 1, 1}, Case{0, 0, 1}}) {
        SCOPED_TRACE(test.successful_call);
        MountTools tools;
        if (test.successful_call > 0) tools.answers(test.successful_call, "exit 0");
        LoggedRun run;
        cifs_mount(download(), run, Side::source);
        EXPECT_EQ(run.cifs_ext_changed, test.changed);
        EXPECT_EQ(run.cifs_ext_saved, test.saved);
        EXPECT_EQ(read_file(ExtensionsSwitch::path), "1\n");
        cifs_umount(download());
    }
}

// ---- the ownership probe ---------------------------------------------------------------------------------------

class CifsProbe : public CifsMount {
  protected:
    void SetUp() override {
        CifsMount::SetUp();
        if (IsSkipped()) return;
        make_folder(kMountPoint);
        name_ = "__foo__." + std::to_string(getpid());
    }
    void TearDown() override {
        if (in_appliance()) remove_tree(local());
        CifsMount::TearDown();
    }
    std::string local() const { return "/tmp/" + name_; }
    std::string remote() const { return std::string(kMountPoint) + "/" + name_; }

    std::string name_;
};

TEST_F(CifsProbe, SucceedsWhereFilesCanBeGivenAway) {
    SystemCalls calls;
    struct stat given {};
    calls.answer = [&](const std::string &call) -> std::optional<int> {
        if (call.starts_with("chown")) stat(remote().c_str(), &given);
        return call.starts_with("chown") ? std::optional(0) : std::nullopt;
    };
    EXPECT_EQ(cifs_probe_chown(kMountPoint, run_), 0);
    EXPECT_THAT(calls.made, ElementsAre("chown " + remote() + " 98 98", "sync"));
    EXPECT_TRUE(S_ISREG(given.st_mode));
    EXPECT_EQ(given.st_size, 0);
    EXPECT_FALSE(file_exists(local()));
    EXPECT_THAT(list_folder(kMountPoint), IsEmpty());
    EXPECT_TRUE(run_.silent());
}

TEST_F(CifsProbe, FailsWhereTheyCannotAndLeavesNoFileEither) {
    SystemCalls calls;
    calls.answer = [](const std::string &call) -> std::optional<int> {
        return call.starts_with("chown") ? std::optional(EPERM) : std::nullopt;
    };
    Diagnostics diagnostics(7);
    EXPECT_EQ(cifs_probe_chown(kMountPoint, run_), -1);
    EXPECT_THAT(diagnostics.without_places(), HasSubstr("(debug) Cannot chown() on CIFS volume.\n"));
    EXPECT_EQ(calls.made.back(), "sync");
    EXPECT_FALSE(file_exists(local()));
    EXPECT_THAT(list_folder(kMountPoint), IsEmpty());
    EXPECT_TRUE(run_.silent());
}

TEST_F(CifsProbe, AFailedCopyIsTheResultAndTheLocalFileStays) {
    const std::string missing = std::string(kMountPoint) + "/missing";
    SystemCalls calls;
    EXPECT_EQ(cifs_probe_chown(missing, run_), ENOENT);
    EXPECT_THAT(calls.made, ElementsAre("sync"));
    EXPECT_TRUE(file_exists(local()));
    EXPECT_EQ(run_.error_code, 13);
}

TEST_F(CifsProbe, AnOldLocalFileIsReplaced) {
    write_file(local(), "old");
    std::filesystem::permissions(local(), std::filesystem::perms::none);
    EXPECT_EQ(cifs_probe_chown(kMountPoint, run_) == 0, is_real_root());
    EXPECT_FALSE(file_exists(local()));

    // A link is replaced, too, and not followed.
    const TempFolder other;
    write_file(other / "precious", "content");
    std::filesystem::create_symlink(other / "precious", local());
    cifs_probe_chown(kMountPoint, run_);
    EXPECT_EQ(read_file(other / "precious"), "content");
    EXPECT_FALSE(file_exists(local()));
}

TEST_F(CifsProbe, WithoutALocalFileItFailsAtOnce) {
    make_folder(local());
    SystemCalls calls;
    EXPECT_EQ(cifs_probe_chown(kMountPoint, run_), -1);
    EXPECT_THAT(calls.made, IsEmpty());
    EXPECT_THAT(list_folder(kMountPoint), IsEmpty());
}

// ---- the drivers -----------------------------------------------------------------------------------------------

TEST_F(CifsMount, AnUploadCopiesAndLeavesNoMount) {
    write_file("/home/alice/a", "first");
    write_file("/home/alice/sub/b", "second");
    serve();
    SystemCalls calls;
    bool probed_before_copy = false;
    calls.answer = [&](const std::string &call) -> std::optional<int> {
        if (call.starts_with("chown /job_007/folder/__foo__.")) probed_before_copy = !file_exists(on_share("folder/a"));
        return std::nullopt;
    };
    backup_local_to_cifs(upload("//server/Public/folder"), run_);
    EXPECT_TRUE(run_.silent());
    EXPECT_TRUE(probed_before_copy);
    EXPECT_EQ(read_file(on_share("folder/a")), "first");
    EXPECT_EQ(read_file(on_share("folder/sub/b")), "second");
    EXPECT_EQ(list_folder(on_share("folder")), (std::vector<std::string>{"a", "sub"}));
    EXPECT_FALSE(file_exists(kMountPoint));
    EXPECT_EQ(run_.no_chown, is_real_root() ? 0 : 1);
}

TEST_F(CifsMount, AShareWithoutOwnersIsCopiedToWithoutThem) {
    write_file("/home/alice/a", "first", 0600);
    serve();
    SystemCalls calls;
    calls.answer = [](const std::string &call) -> std::optional<int> {
        return call.starts_with("chown") ? std::optional(EACCES) : std::nullopt;
    };
    backup_local_to_cifs(upload(), run_);
    EXPECT_TRUE(run_.silent());
    EXPECT_EQ(run_.no_chown, 1);
    EXPECT_EQ(read_file(on_share("a")), "first");
    struct stat status {};
    ASSERT_EQ(stat(on_share("a").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, mode_t{0644}) << "the mode of a new file, not the source's";
}

TEST_F(CifsMount, AnUploadWithoutASourceMountsNothing) {
    BackupJob job = upload();
    job.src_path = "missing/folder";
    backup_local_to_cifs(job, run_);
    EXPECT_TRUE(run_.recorded(5, "'/home/alice/missing/folder' not exists",
                              "Path /home/alice/missing/folder does not exist!\n"));
    EXPECT_THAT(tools_.commands(), IsEmpty());
    EXPECT_FALSE(file_exists(kMountPoint));
}

TEST_F(CifsMount, ASourceThatIsMissingSilentlyIsReportedByTheUpload) {
    const SilentSource silent;
    for (const auto &[path, message] : {std::pair{JobText("etc"), "/relative/etc not exists"},
                                        {JobText(""), "/relative/ not exists"},
                                        {JobText(), "/relative/ not exists"}}) {
        BackupJob job = upload();
        job.src_share_proto = SilentSource::user;
        job.src_path = path;
        LoggedRun run;
        backup_local_to_cifs(job, run);
        EXPECT_TRUE(run.recorded(5, message, ""));
    }
    EXPECT_THAT(tools_.commands(), IsEmpty());
}

TEST_F(CifsMount, AnUploadWhoseDestinationFailsLeavesTheShareMounted) {
    write_file("/home/alice/a", "first");
    write_file(on_share("file"), "content");
    serve();
    backup_local_to_cifs(upload("//server/Public/file"), run_);
    EXPECT_EQ(run_.error_code, 4);
    EXPECT_TRUE(is_mounted(kMountPoint));
    EXPECT_EQ(read_file(on_share("file")), "content");
    EXPECT_EQ(run_.copies(), "");
}

TEST_F(CifsMount, ADownloadWithoutALocalEndTakesTheShareDown) {
    write_file(on_share("a"), "first");
    serve();
    SystemCalls calls;
    backup_cifs_to_local(download(), run_);
    EXPECT_FALSE(is_mounted(kMountPoint));
    EXPECT_FALSE(file_exists(kMountPoint));
    EXPECT_EQ(run_.copies(), "");
    EXPECT_THAT(calls.made, ElementsAre("mkdir /job_007 700", "umount /job_007", testing::StartsWith("shell "),
                                        "sync_fs /job_007", "umount /job_007", "umount2 /job_007 1", "rmdir /job_007"));
}

TEST_F(CifsMount, ADownloadOfAMissingFolderReportsNothing) {
    serve();
    backup_cifs_to_local(download("//server/Public/missing"), run_);
    EXPECT_TRUE(run_.silent());
    EXPECT_FALSE(is_mounted(kMountPoint));
}

} // namespace
} // namespace tsbackup::test
