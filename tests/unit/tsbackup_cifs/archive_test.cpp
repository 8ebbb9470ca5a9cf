// The driver of archives: the pipeline, the login in its environment, what it refuses. Recording stand-ins take the
// place of the programs that start smbclient and tar.

#include "tsbackup_cifs.h"

#include "remote_run.h"
#include "tsbackup/paths.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <sys/mount.h>
#include <unistd.h>

namespace tsbackup::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

constexpr int kJob = 7;
constexpr char kDisk[] = "/media/DISK";
const std::string kDestination = "/media/DISK/copy";

/// While it is not null, an entry of this name cannot be put into the environment.
const char *refused_entry = nullptr;

std::vector<std::string> texts_of(const std::string &path) {
    const std::string content = read_file(path);
    std::vector<std::string> texts;
    for (std::size_t start = 0; start < content.size(); start += texts.back().size() + 1)
        texts.emplace_back(content.c_str() + start);
    return texts;
}

/// Is first on the search path for as long as it lives, in place of the program that starts smbclient and of tar.
class Pipeline {
  public:
    Pipeline() : path_before_(std::getenv("PATH")) {
        for (const char *name : {"nice", "tar"})
            write_file(folder_ / name,
                       std::string("#!/bin/sh\n") + "at='" + folder_.path() + "/" + name +
                           "'\n"
                           "printf '%s\\0' \"$@\" >$at.words\n"
                           "env | grep -E '^(USER|PASSWD)=' >$at.login\n"
                           "[ ! -e $at.script ] || . $at.script\n",
                       0755);
        setenv("PATH", (folder_.path() + ":" + path_before_).c_str(), 1);
    }
    ~Pipeline() { setenv("PATH", path_before_.c_str(), 1); }
    Pipeline(const Pipeline &) = delete;
    Pipeline &operator=(const Pipeline &) = delete;

    /// What "nice" or "tar" does after it has noted how it was started, in the shell's language.
    void plays(const std::string &program, const std::string &script) const {
        write_file(folder_ / (program + ".script"), script + "\n");
    }
    bool started() const { return file_exists(folder_ / "nice.words"); }
    std::vector<std::string> words(const std::string &program) const {
        return texts_of(folder_ / (program + ".words"));
    }
    /// The environment's entries USER and PASSWD, one a line.
    std::string login() const { return read_file(folder_ / "nice.login"); }

  private:
    TempFolder folder_;
    std::string path_before_;
};

BackupJob job_for(const JobText &path) {
    BackupJob job;
    job.job_id = kJob;
    job.src_type = "remote";
    job.src_share_proto = "cifs-ab";
    job.src_path = path;
    job.dst_type = "share";
    job.dst_share_vol = "media";
    job.dst_share_proto = "DISK";
    job.dst_path = "copy";
    return job;
}

class Archive : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_APPLIANCE();
        make_folder(kDisk);
        // A file system that is neither the root's nor a tmpfs.
        if (mount("none", kDisk, "ramfs", 0, nullptr) != 0) GTEST_SKIP() << "cannot mount";
        remove_tree(paths::work_folder);
        make_folder(paths::work_folder);
        unsetenv("USER");
        unsetenv("PASSWD");
        start_over();
    }
    void TearDown() override {
        if (!in_appliance()) return;
        umount2(kDisk, MNT_DETACH);
        remove_tree(kDisk);
        EXPECT_EQ(std::getenv("USER"), nullptr);
        EXPECT_EQ(std::getenv("PASSWD"), nullptr);
    }
    void start_over() {
        run_.emplace();
        pipeline_.reset();
        pipeline_.emplace();
    }
    /// Runs the driver; the command that it started.
    std::string fetch(const BackupJob &job) {
        const SystemCalls calls;
        backup_cifsab_to_local(job, *run_);
        for (const std::string &call : calls.made)
            if (call.starts_with("shell ")) return call.substr(6);
        return "";
    }
    /// The argument for smbclient's folder, and that of tar which tells how much to strip.
    void expect_folder(const std::string &folder, int depth) const {
        std::vector<std::string> words = pipeline_->words("nice");
        const std::vector<std::string> expected_end =
            folder.empty() ? std::vector<std::string>{"-Tagc", "-"} : std::vector<std::string>{"-Tagc", "-", folder};
        EXPECT_TRUE(words.size() >= expected_end.size() &&
                    std::equal(expected_end.rbegin(), expected_end.rend(), words.rbegin()))
            << testing::PrintToString(words);
        EXPECT_THAT(pipeline_->words("tar"),
                    ElementsAre("-xv", "--strip-components=" + std::to_string(depth), "-C", kDestination));
    }
    static std::string copy_log() { return read_file(paths::copy_log(kJob)); }

    std::optional<LoggedRun> run_;
    std::optional<Pipeline> pipeline_;
};

// ---- the pipeline ----------------------------------------------------------------------------------------------

TEST_F(Archive, ThePipeline) {
    EXPECT_EQ(fetch(job_for("//server/Public")),
              "{ nice -n 10 smbclient -N //server/Public -mSMB3 -E -d0 -Tagc -  | tar -xv --strip-components=0 -C "
              "/media/DISK/copy; } > /apps/.backup/backup_007_copy.log 2>&1");
    EXPECT_THAT(pipeline_->words("nice"),
                ElementsAre("-n", "10", "smbclient", "-N", "//server/Public", "-mSMB3", "-E", "-d0", "-Tagc", "-"));
    EXPECT_THAT(pipeline_->words("tar"), ElementsAre("-xv", "--strip-components=0", "-C", kDestination));
    EXPECT_TRUE(run_->silent());
}

TEST_F(Archive, ThePipelineWithALoginAFolderAndAFullRun) {
    BackupJob job = job_for("\\\\server\\Public\\a b\\c");
    job.src_login = "DOMAIN\\bob";
    job.src_password = "pass word";
    run_->full = 1;
    const Diagnostics diagnostics;
    const std::string command = fetch(job);
    EXPECT_EQ(command, "{ nice -n 10 smbclient  //server/Public -mSMB3 -E -d0 -Tac - a\\ b\\\\c | tar -xv "
                       "--strip-components=3 -C /media/DISK/copy; } > /apps/.backup/backup_007_copy.log 2>&1");
    EXPECT_THAT(pipeline_->words("nice"),
                ElementsAre("-n", "10", "smbclient", "//server/Public", "-mSMB3", "-E", "-d0", "-Tac", "-", "a b\\c"));
    EXPECT_EQ(pipeline_->login(), "USER=DOMAIN\\bob\nPASSWD=pass word\n");
    EXPECT_THAT(diagnostics.without_places(), HasSubstr("(debug) cmd=" + command + "\n"));
    EXPECT_THAT(diagnostics.text(), Not(HasSubstr("pass word")));
}

TEST_F(Archive, TheModeFollowsTheRun) {
    for (const auto &[full, mode] : {std::pair<int, const char *>{0, "-Tagc"}, {1, "-Tac"}, {-1, "-Tac"}}) {
        start_over();
        run_->full = full;
        fetch(job_for("//server/Public"));
        EXPECT_THAT(pipeline_->words("nice"), testing::Contains(mode)) << full;
    }
}

TEST_F(Archive, FoldersAndTheirDepth) {
    const struct {
        const char *path;
        const char *folder;
        int depth;
    } cases[] = {
        {"//server/Public", "", 0},
        {"//server/Public/", "", 0},
        {"//server/Public//", "", 0},
        {"//server/Public/a", "a", 2},
        {"//server/Public/a/", "a/", 2},
        {"//server/Public/a/b", "a/b", 3},
        {"//server/Public/a//b", "a//b", 3},
        {"//server/Public//a/b/c", "a/b/c", 4},
        {"\\\\server\\Public\\a\\b", "a\\b", 3},
        {"//server/Public/a\\b", "a\\b", 2},
        {"\\\\server\\Public\\a/b", "a/b", 2},
        {"//server/Public/it's [1]", "it's [1]", 2},
        {"//server/Public/$(id)`id`;id&|<>\"*?{}!", "$(id)`id`;id&|<>\"*?{}!", 2},
        {"//server/Public/line\nend", "line\nend", 2},
        {"//server/Public/#x", "#x", 2},
        {"//server/Public/~x", "~x", 2},
        // What begins like an option would be one, and an option of smbclient's names commands to run.
        {"//server/Public/-dash", "/-dash", 2},
        {"//server/Public/--command=del x", "/--command=del x", 2},
        {"\\\\server\\Public\\-c\\d", "/-c\\d", 3},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.path);
        start_over();
        fetch(job_for(test.path));
        expect_folder(test.folder, test.depth);
    }
}

TEST_F(Archive, HostsAndSharesAreOneWord) {
    const std::string long_name(70, 'n');
    const struct {
        std::string path;
        std::string word;
    } cases[] = {
        {"//server/sp ace", "//server/sp ace"},
        {"//server/it's$", "//server/it's$"},
        {"//server/a;id", "//server/a;id"},
        {"//$(id)`id`/x", "//$(id)`id`/x"},
        {"//-c/-c", "//-c/-c"},
        {"//127.0.0.1//x", "//127.0.0.1/x"},
        {"//server", "//server/"},
        {"//", "///"},
        {"//" + long_name + "/" + long_name, "//" + long_name.substr(0, 63) + "/" + long_name.substr(0, 63)},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.path);
        start_over();
        fetch(job_for(test.path));
        ASSERT_GE(pipeline_->words("nice").size(), 5U);
        EXPECT_EQ(pipeline_->words("nice")[4], test.word);
    }
}

TEST_F(Archive, TheDestinationIsOneWord) {
    for (const char *name : {"two words", "a;id", "$(id)", "it's", "line\nend", "-", "#x", "*"}) {
        SCOPED_TRACE(name);
        start_over();
        BackupJob job = job_for("//server/Public");
        job.dst_path = name;
        fetch(job);
        EXPECT_EQ(pipeline_->words("tar").back(), std::string(kDisk) + "/" + name);
    }
}

TEST_F(Archive, ALongCommandIsNotCut) {
    const std::string folder(3000, 'f');
    fetch(job_for("//server/Public/" + folder));
    expect_folder(folder, 2);
}

// ---- the login -------------------------------------------------------------------------------------------------

TEST_F(Archive, Logins) {
    const std::string long_password(1000, 'p');
    const struct {
        const char *name;
        JobText login;
        JobText password;
        std::string environment;
    } cases[] = {
        {"both", "bob", "secret", "USER=bob\nPASSWD=secret\n"},
        {"an empty password", "bob", "", "USER=bob\n"},
        {"no password", "bob", std::nullopt, "USER=bob\n"},
        {"an empty login", "", "secret", ""},
        {"no login", std::nullopt, "secret", ""},
        {"a password of any kind", "b%b", " $(id)'\"\\=", "USER=b%b\nPASSWD= $(id)'\"\\=\n"},
        {"a long one", "bob", long_password, "USER=bob\nPASSWD=" + long_password + "\n"},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.name);
        start_over();
        BackupJob job = job_for("//server/Public");
        job.src_login = test.login;
        job.src_password = test.password;
        job.dst_login = "wrong";
        job.dst_password = "wrong";
        const std::string command = fetch(job);
        EXPECT_EQ(command.find("smbclient -N //") != std::string::npos, test.environment.empty());
        EXPECT_EQ(pipeline_->login(), test.environment);
        EXPECT_EQ(std::getenv("USER"), nullptr);
        EXPECT_EQ(std::getenv("PASSWD"), nullptr);
    }
}

TEST_F(Archive, APasswordOfTheProcessIsNotTheJobs) {
    setenv("PASSWD", "of the process", 1);
    BackupJob job = job_for("//server/Public");
    job.src_login = "bob";
    fetch(job);
    EXPECT_EQ(pipeline_->login(), "USER=bob\n");
}

TEST_F(Archive, AnEntryThatCannotBeMade) {
    BackupJob job = job_for("//server/Public");
    job.src_login = "bob";
    job.src_password = "secret";
    for (const auto &[entry, environment] :
         {std::pair<const char *, const char *>{"USER=", ""}, {"PASSWD=", "USER=bob\n"}}) {
        SCOPED_TRACE(entry);
        start_over();
        const Diagnostics diagnostics(3);
        refused_entry = entry;
        const std::string command = fetch(job);
        refused_entry = nullptr;
        EXPECT_EQ(command.find("smbclient -N //") != std::string::npos, std::string(environment).empty());
        EXPECT_EQ(pipeline_->login(), environment);
        EXPECT_EQ(diagnostics.without_places(), "(error) backup_cifsab_to_local Failed to call putenv\n");
        EXPECT_EQ(run_->error_code, 0);
    }
}

// ---- what it refuses, and results ------------------------------------------------------------------------------

TEST_F(Archive, MalformedPathsStartNothing) {
    for (const JobText &path : {JobText("server/Public"), JobText("/server/Public"), JobText("\\/server/Public"),
                                JobText("smb://server/Public"), JobText(""), JobText()}) {
        const std::string shown = path.value_or("");
        SCOPED_TRACE(shown);
        start_over();
        BackupJob job = job_for(path);
        job.dst_path = "not made";
        EXPECT_EQ(fetch(job), "");
        EXPECT_TRUE(run_->recorded(1, "Mulformed path=" + shown + "\n", "Path " + shown + " is in a wrong format!\n"));
        EXPECT_FALSE(file_exists(std::string(kDisk) + "/not made"));
    }
}

TEST_F(Archive, AnUnresolvedDestinationStartsNothing) {
    BackupJob job = job_for("//server/Public");
    job.dst_type = "usb";
    job.dst_share_proto = "usb_port_9";
    EXPECT_EQ(fetch(job), "");
    EXPECT_EQ(run_->error_code, 4);
}

TEST_F(Archive, ADestinationThatIsNoFolderStartsNothing) {
    // smbclient would reset the archive bits of files that nobody unpacks.
    write_file(kDestination, "a file");
    write_file(paths::copy_log(kJob), "");
    EXPECT_EQ(fetch(job_for("//server/Public")), "");
    EXPECT_TRUE(run_->recorded(6, "'cp' command returns rc=-1", ""));
}

TEST_F(Archive, TheStatusIsThatOfTar) {
    pipeline_->plays("nice", "echo 'tar: dumped 1 files and 0 directories' >&2; exit 1");
    pipeline_->plays("tar", "cat >/dev/null; echo ./a");
    fetch(job_for("//server/Public"));
    EXPECT_TRUE(run_->silent());
    EXPECT_EQ(copy_log(), "\nCopied 1 files and 0 directories\n./a\n\nCopied 1 file and directory\n");
    EXPECT_THAT(list_folder(paths::work_folder), ElementsAre("backup_007_copy.log"));

    start_over();
    pipeline_->plays("tar", "cat >/dev/null; echo 'tar: x: Cannot write: No space left on device' >&2; exit 2");
    fetch(job_for("//server/Public"));
    const std::string line = "tar: x: Cannot write: No space left on device\n";
    EXPECT_TRUE(run_->recorded(8, line, line));
    EXPECT_EQ(copy_log(), "");

    start_over();
    pipeline_->plays("tar", "cat >/dev/null; exit 2");
    fetch(job_for("//server/Public"));
    EXPECT_TRUE(run_->recorded(6, "'cp' command returns rc=512", ""));
}

} // namespace
} // namespace tsbackup::test

extern "C" int putenv(char *entry) noexcept {
    const char *refused = tsbackup::test::refused_entry;
    if (refused != nullptr && std::strncmp(entry, refused, std::strlen(refused)) == 0) {
        errno = ENOMEM;
        return -1;
    }
    return reinterpret_cast<int (*)(char *)>(dlsym(RTLD_NEXT, "putenv"))(entry);
}
