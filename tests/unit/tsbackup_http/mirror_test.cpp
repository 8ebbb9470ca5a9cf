// The driver: which command it runs where, who may read the password, what a failure leaves behind. A recording
// stand-in takes the place of the program that starts wget.

#include "tsbackup_http.h"

#include "support.h"
#include "tsbackup/paths.h"
#include "tsbackup_error.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <gmock/gmock.h>
#include <optional>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace tsbackup::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;

constexpr int kJob = 7;
constexpr char kDisk[] = "/media/DISK";
const std::string kDestination = "/media/DISK/copy";
const std::vector<std::string> kOptions = {"-n",           "10",        "wget",
                                           "--no-verbose", "--tries=3", "--timestamping",
                                           "--recursive",  "--level=3", "--no-host-directories",
                                           "--no-parent"};

std::vector<std::string> texts_of(const std::string &path) {
    const std::string content = read_file(path);
    std::vector<std::string> texts;
    for (std::size_t start = 0; start < content.size(); start += texts.back().size() + 1)
        texts.emplace_back(content.c_str() + start);
    return texts;
}

/// Is first on the search path for as long as it lives, in place of the program that starts wget.
class StandIn {
  public:
    StandIn() : path_before_(std::getenv("PATH")) {
        write_file(folder_ / "nice",
                   "#!/bin/sh\n"
                   "at='" +
                       folder_.path() +
                       "'\n"
                       "pwd >$at/folder\n"
                       "printf '%s\\0' \"$@\" >$at/words\n"
                       "env >$at/environment\n"
                       "grep SigIgn /proc/self/status >$at/ignored\n"
                       "echo $$ >$at/pid\n"
                       "for word; do case $word in --config=*) "
                       "    cat ${word#*=} >$at/config; stat -c '%a %u' ${word#*=} >$at/mode ;; esac; done\n"
                       "[ ! -e $at/script ] || . $at/script\n",
                   0755);
        setenv("PATH", (folder_.path() + ":" + path_before_).c_str(), 1);
    }
    ~StandIn() { setenv("PATH", path_before_.c_str(), 1); }
    StandIn(const StandIn &) = delete;
    StandIn &operator=(const StandIn &) = delete;

    /// What it does after it has noted how it was started, in the shell's language.
    void plays(const std::string &script) const { write_file(folder_ / "script", script + "\n"); }
    bool started() const { return file_exists(folder_ / "words"); }
    std::vector<std::string> words() const { return texts_of(folder_ / "words"); }
    /// The words behind the options that are always the same.
    std::vector<std::string> last_words() const {
        std::vector<std::string> all = words();
        EXPECT_GT(all.size(), kOptions.size());
        EXPECT_TRUE(std::equal(kOptions.begin(), kOptions.end(), all.begin()));
        return {all.begin() + static_cast<std::ptrdiff_t>(std::min(all.size(), kOptions.size())), all.end()};
    }
    std::string noted(const std::string &what) const { return read_file(folder_ / what); }

  private:
    TempFolder folder_;
    std::string path_before_;
};

/// The credentials files that exist.
std::vector<std::string> credentials_files() {
    std::vector<std::string> found;
    for (const std::string &name : list_folder("/tmp"))
        if (name.starts_with(".http_passwd")) found.push_back(name);
    return found;
}

BackupJob job_for(const JobText &url) {
    BackupJob job;
    job.job_id = kJob;
    job.src_type = "remote";
    job.src_share_proto = "http";
    job.src_path = url;
    job.dst_type = "share";
    job.dst_share_vol = "media";
    job.dst_share_proto = "DISK";
    job.dst_path = "copy";
    return job;
}

bool wait_for(const std::function<bool()> &condition) {
    for (int step = 0; step < 3000; ++step) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

class Mirror : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_APPLIANCE();
        make_folder(kDisk);
        // A file system that is neither the root's nor a tmpfs.
        if (mount("none", kDisk, "ramfs", 0, nullptr) != 0) GTEST_SKIP() << "cannot mount";
        for (const char *folder : {paths::work_folder, paths::log_folder}) {
            remove_tree(folder);
            make_folder(folder);
        }
        stand_in_.emplace();
        start_over();
    }
    void TearDown() override {
        if (!in_appliance()) return;
        umount2(kDisk, MNT_DETACH);
        remove_tree(kDisk);
        EXPECT_THAT(credentials_files(), IsEmpty());
    }
    void start_over() {
        run_ = BackupRun();
        run_.job_id = kJob;
        struct statfs statistics {};
        ASSERT_EQ(statfs("/", &statistics), 0);
        std::memcpy(run_.root_fsid.data(), &statistics.f_fsid, sizeof run_.root_fsid);
        stand_in_.reset();
        stand_in_.emplace();
    }
    /// Runs the driver; what it has logged.
    std::string mirror(const BackupJob &job) {
        const Diagnostics diagnostics;
        backup_http_to_local(job, run_);
        return diagnostics.without_places();
    }
    const StandIn &stand_in() const { return *stand_in_; }
    static std::string copy_log() { return read_file(paths::copy_log(kJob)); }

    BackupRun run_;

  private:
    std::optional<StandIn> stand_in_;
};

// ---- the command -----------------------------------------------------------------------------------------------

TEST_F(Mirror, TheCommand) {
    const std::string logged = mirror(job_for("http://host/path"));
    EXPECT_THAT(logged, HasSubstr("(debug) cmd=cd /media/DISK/copy; nice -n 10 wget --no-verbose --tries=3 "
                                  "--timestamping --recursive --level=3 --no-host-directories --no-parent  "
                                  "http://host/path >/apps/.backup/backup_007_copy.log 2>&1\n"));
    EXPECT_THAT(stand_in().last_words(), ElementsAre("http://host/path"));
    EXPECT_EQ(stand_in().noted("folder"), kDestination + "\n");
    EXPECT_EQ(run_.error_code, 0);
    EXPECT_FALSE(file_exists(paths::error_log(kJob)));
}

TEST_F(Mirror, TheCommandWithALogin) {
    BackupJob job = job_for("http://host/path");
    job.src_login = "bob";
    job.src_password = "secret";
    const std::string logged = mirror(job);
    EXPECT_THAT(logged,
                testing::ContainsRegex("--no-parent --config=/tmp/.http_passwd[A-Za-z0-9]{6} http://host/path >"));
    EXPECT_THAT(logged, Not(HasSubstr("secret")));
    EXPECT_THAT(stand_in().last_words(),
                ElementsAre(MatchesRegex("--config=/tmp/.http_passwd[A-Za-z0-9]{6}"), "http://host/path"));
    EXPECT_THAT(stand_in().noted("environment"), Not(HasSubstr("secret")));
    EXPECT_EQ(stand_in().noted("config"), "http_user=bob\nhttp_password=secret\n");
    EXPECT_EQ(stand_in().noted("mode"), "600 0\n");
    EXPECT_THAT(credentials_files(), IsEmpty());
}

TEST_F(Mirror, AddressesAndPorts) {
    const std::string host_63(63, 'h');
    const struct {
        const char *name;
        JobText url;
        JobText port;
        std::string word;
    } cases[] = {
        {"without a scheme", "host/path", "", "http://host/path"},
        {"with its scheme", "http://host/path", "", "http://host/path"},
        {"the scheme is stripped once", "http://http://host/path", "", "http://http://host/path"},
        {"capitals are no scheme", "HTTP://host/path", "", "http://HTTP://host/path"},
        {"nor is one with a capital", "Http://host/path", "80", "http://Http://host/path"},
        {"another scheme stays part of the host", "https://host/path", "8080", "http://https://host/path"},
        {"a bare host", "host", "", "http://host/"},
        {"a host and a slash", "http://host/", "", "http://host/"},
        {"a host and slashes", "http://host///", "", "http://host/"},
        {"slashes at the end go", "host/a/b///", "", "http://host/a/b"},
        {"slashes elsewhere stay", "host//a//b", "", "http://host//a//b"},
        {"no host", "/path", "", "http:///path"},
        {"no host, with a port", "/path", "8080", "http://:8080/path"},
        {"nothing", "", "", "http:///"},
        {"nothing at all", std::nullopt, std::nullopt, "http:///"},
        {"the scheme alone", "http://", "", "http:///"},
        {"a port", "host/path", "8080", "http://host:8080/path"},
        {"a port for a bare host", "host", "8080", "http://host:8080/"},
        {"a port with words behind it", "host/path", " 8080 or so", "http://host:8080/path"},
        {"no port", "host/path", std::nullopt, "http://host/path"},
        {"port 0", "host/path", "0", "http://host/path"},
        {"a negative port", "host/path", "-80", "http://host/path"},
        {"a port in words", "host/path", "http", "http://host/path"},
        {"any positive number is a port", "host/path", "70000", "http://host:70000/path"},
        {"the host's own port counts", "host:81/path", "8080", "http://host:81/path"},
        {"also an empty one", "host:/path", "8080", "http://host:/path"},
        {"a colon in the path is no port", "host/a:b", "8080", "http://host:8080/a%3ab"},
        {"63 characters of a host", host_63 + "/path", "", "http://" + host_63 + "/path"},
        {"no room for a port", host_63 + "/path", "8080", "http://" + host_63 + "/path"},
        {"room for half a port", host_63.substr(3) + "/path", "8080", "http://" + host_63.substr(3) + ":80/path"},
        {"room for a whole one", host_63.substr(5) + "/path", "8080", "http://" + host_63.substr(5) + ":8080/path"},
        {"a host that is cut loses one more", host_63 + "XYZ/path", "", "http://" + host_63 + "/YZ/path"},
        {"a host of 64", host_63 + "X/path", "", "http://" + host_63 + "//path"},
        {"a long host without a path", host_63 + "XY", "", "http://" + host_63 + "/Y"},
        {"a host of 64 without a path", host_63 + "X", "", "http://" + host_63 + "/"},
        {"a port that is cut off", std::string(60, 'h') + ":8080/path", "",
         "http://" + std::string(60, 'h') + ":80/0/path"},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.name);
        start_over();
        BackupJob job = job_for(test.url);
        job.src_port = test.port;
        mirror(job);
        EXPECT_THAT(stand_in().last_words(), ElementsAre(test.word));
        EXPECT_EQ(run_.error_code, 0);
    }
}

TEST_F(Mirror, NamesInAnAddressAreEscapedAndOneWord) {
    const struct {
        const char *path;
        const char *word;
    } cases[] = {
        {"a b", "a%20b"},         {"caf\xc3\xa9", "caf%c3%a9"},
        {"it's", "it%27s"},       {"a;touch x", "a%3btouch%20x"},
        {"$(id)", "%24%28id%29"}, {"a&b", "a%26b"},
        {"a%20b", "a%2520b"},     {"q?x=1#y", "q%3fx%3d1%23y"},
        {"a[b]", "a%5bb%5d"},     {"`id`", "`id`"},
        {"a|b>c<d", "a|b>c<d"},   {"a\"b", "a\"b"},
        {"a\\b", "a\\b"},         {"{a,b}", "{a%2cb}"},
        {"a\tb", "a\tb"},         {"a\nid\n", "a\nid\n"},
        {"~root", "~root"},       {"-x", "-x"},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.path);
        start_over();
        mirror(job_for(std::string("host/") + test.path));
        EXPECT_THAT(stand_in().last_words(), ElementsAre(std::string("http://host/") + test.word));
    }
    for (const char *host : {"a b", "$(id)", "`id`", "a;id", "a\nid", "a&b", "#x", "-O x", "[::1]", "it's", "*"}) {
        SCOPED_TRACE(host);
        start_over();
        mirror(job_for(std::string(host) + "/path"));
        EXPECT_THAT(stand_in().last_words(), ElementsAre(std::string("http://") + host + "/path"));
    }
}

TEST_F(Mirror, TheDestinationIsOneWord) {
    for (const char *name :
         {"two words", "a;id", "$(id)", "`id`", "it's", "line\nend", "-", "#x", "~", "gr\u00f6\u00dfe", "*"}) {
        SCOPED_TRACE(name);
        start_over();
        BackupJob job = job_for("host/path");
        job.dst_path = name;
        mirror(job);
        EXPECT_EQ(stand_in().noted("folder"), std::string(kDisk) + "/" + name + "\n");
    }
}

TEST_F(Mirror, ALongCommandIsNotCut) {
    BackupJob job = job_for("host/" + std::string(3000, 'p'));
    std::string folder = "copy";
    for (int level = 0; level < 10; ++level)
        folder += "/" + std::string(200, static_cast<char>('a' + level));
    job.dst_path = folder;
    mirror(job);
    EXPECT_EQ(stand_in().noted("folder"), std::string(kDisk) + "/" + folder + "\n");
    EXPECT_THAT(stand_in().last_words(), ElementsAre("http://host/" + std::string(3000, 'p')));
}

// ---- credentials -----------------------------------------------------------------------------------------------

TEST_F(Mirror, TheCredentialsFile) {
    const struct {
        const char *name;
        JobText login;
        JobText password;
        const char *content; ///< null: there is no file
    } cases[] = {
        {"both", "bob", "secret", "http_user=bob\nhttp_password=secret\n"},
        {"an empty password", "bob", "", "http_user=bob\n"},
        {"no password", "bob", std::nullopt, "http_user=bob\n"},
        {"an empty login", "", "secret", nullptr},
        {"no login", std::nullopt, "secret", nullptr},
        {"neither", std::nullopt, std::nullopt, nullptr},
        {"characters of any kind",
         "b\xc3\xb6"
         "b $(id) 'x",
         " #a\"b\\c%20=d ",
         "http_user=b\xc3\xb6"
         "b $(id) 'x\nhttp_password= #a\"b\\c%20=d \n"},
        {"nothing is a format", "%s%n", "%s%n", "http_user=%s%n\nhttp_password=%s%n\n"},
        {"no second setting in a login", "bob\nuse_askpass=/bin/evil", "secret",
         "http_user=bob\nhttp_password=secret\n"},
        {"nor in a password", "bob", "secret\r\nuse_askpass=/bin/evil\n", "http_user=bob\nhttp_password=secret\n"},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.name);
        start_over();
        BackupJob job = job_for("host/path");
        job.src_login = test.login;
        job.src_password = test.password;
        job.dst_login = "wrong";
        job.dst_password = "wrong";
        mirror(job);
        EXPECT_EQ(stand_in().last_words().size(), test.content != nullptr ? 2U : 1U);
        EXPECT_EQ(stand_in().noted("config"), test.content != nullptr ? test.content : "");
        EXPECT_THAT(credentials_files(), IsEmpty());
    }
}

TEST_F(Mirror, TheCredentialsFileGoesAfterAFailureToo) {
    BackupJob job = job_for("host/path");
    job.src_login = "bob";
    stand_in().plays("exit 6");
    mirror(job);
    EXPECT_THAT(credentials_files(), IsEmpty());
    EXPECT_EQ(run_.error_code, 6);
}

TEST_F(Mirror, WithoutACredentialsFileWgetRunsAllTheSame) {
    if (mount("none", "/tmp", "tmpfs", MS_RDONLY, nullptr) != 0) GTEST_SKIP() << "cannot mount";
    BackupJob job = job_for("host/path");
    job.src_login = "bob";
    job.src_password = "secret";
    const std::string logged = mirror(job);
    umount("/tmp");
    // The stand-in lies below /tmp, so that the true program is started; the command tells.
    EXPECT_THAT(logged, HasSubstr("--no-parent  http://host/path >"));
    EXPECT_THAT(logged, HasSubstr("(error) Cannot create /tmp/.http_passwd"));
}

TEST_F(Mirror, ACredentialsFileThatCannotBeWrittenIsNotUsed) {
    if (mount("none", "/tmp", "tmpfs", 0, "size=4k") != 0) GTEST_SKIP() << "cannot mount";
    write_file("/tmp/filler", std::string(4096, 'x'));
    BackupJob job = job_for("host/path");
    job.src_login = "bob";
    job.src_password = "secret";
    const std::string logged = mirror(job);
    EXPECT_THAT(list_folder("/tmp"), ElementsAre("filler"));
    umount("/tmp");
    EXPECT_THAT(logged, HasSubstr("--no-parent  http://host/path >"));
    EXPECT_THAT(logged, HasSubstr("(error) Cannot write /tmp/.http_passwd"));
}

// ---- results ---------------------------------------------------------------------------------------------------

TEST_F(Mirror, Results) {
    const struct {
        const char *script;
        const char *message;
    } cases[] = {
        {"exit 1", "wget returns 256 (100)"},      {"exit 4", "wget returns 1024 (400)"},
        {"exit 6", "wget returns 1536 (600)"},     {"exit 8", "wget returns 2048 (800)"},
        {"exit 255", "wget returns 65280 (ff00)"},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.script);
        start_over();
        stand_in().plays(test.script);
        mirror(job_for("host/path"));
        EXPECT_EQ(run_.error_code, 6);
        EXPECT_EQ(run_.error_message, test.message);
        EXPECT_EQ(copy_log(), "");
        EXPECT_TRUE(file_exists(paths::error_log(kJob)));
    }
}

TEST_F(Mirror, TheLogBecomesTheCopyLog) {
    stand_in().plays("echo 'd t URL:http://host/path/a%20b [1/1] -> \"path/a b\" [1]'\n"
                     "echo 'path: Permission denied' >&2; exit 3");
    mirror(job_for("host/path"));
    EXPECT_EQ(copy_log(), "path/a b --> path/a b\n");
    EXPECT_EQ(read_file(paths::error_log(kJob)), "path: Permission denied\n");
    EXPECT_EQ(run_.error_message, "wget returns 768 (300)");
    EXPECT_THAT(list_folder(paths::work_folder), ElementsAre("backup_007_copy.log"));

    // After a success the line is in the record alone.
    start_over();
    stand_in().plays("echo 'path: Permission denied'");
    mirror(job_for("host/path"));
    EXPECT_EQ(run_.error_code, 7);
    EXPECT_EQ(run_.error_message, "path: Permission denied\n");
    EXPECT_FALSE(file_exists(paths::error_log(kJob)));
}

TEST_F(Mirror, AnUnresolvedDestinationStartsNothing) {
    BackupJob job = job_for("host/path");
    job.dst_type = "usb";
    job.dst_share_proto = "usb_port_9";
    job.src_login = "bob";
    mirror(job);
    EXPECT_EQ(run_.error_code, 4);
    EXPECT_FALSE(stand_in().started());
}

TEST_F(Mirror, NothingIsFetchedIntoAnotherFolderThanTheDestination) {
    // The shell would say that it cannot enter it, and go on where it stands.
    write_file(kDestination, "a file");
    const std::string logged = mirror(job_for("host/path"));
    EXPECT_FALSE(stand_in().started());
    EXPECT_EQ(run_.error_code, 6);
    EXPECT_EQ(run_.error_message, "wget returns -1 (ffffffff)");
    EXPECT_THAT(logged, HasSubstr("(error) Cannot enter /media/DISK/copy [Not a directory]\n"));
    EXPECT_EQ(read_file(kDestination), "a file");
}

TEST_F(Mirror, TheWorkingFolderIsWhatItWas) {
    const auto before = std::filesystem::current_path();
    mirror(job_for("host/path"));
    EXPECT_EQ(std::filesystem::current_path(), before);
    EXPECT_EQ(umount(kDisk), 0) << "something still stands in the destination";
}

// ---- cancelling ------------------------------------------------------------------------------------------------

TEST_F(Mirror, ACancelEndsWgetAndRemovesTheCredentials) {
    BackupJob job = job_for("host/path");
    job.src_login = "bob";
    job.src_password = "secret";
    // The real program would open a log of its own when a hang-up reaches it.
    stand_in().plays("trap 'touch /media/DISK/copy/hung-up' HUP; for i in 1 2 3 4 5 6; do sleep 10; done");
    const pid_t worker = fork();
    ASSERT_GE(worker, 0);
    if (worker == 0) {
        setpgid(0, 0);
        std::signal(SIGHUP, [](int) {
            backup_abort_request();
            _exit(0);
        });
        backup_http_to_local(job, run_);
        _exit(1);
    }
    EXPECT_TRUE(wait_for([&] { return stand_in().noted("mode").ends_with("\n"); }));
    EXPECT_THAT(credentials_files(), testing::SizeIs(1));
    const pid_t wget = std::stoi(stand_in().noted("pid"));
    ASSERT_GT(wget, 1);
    EXPECT_EQ(kill(wget, 0), 0);
    killpg(worker, SIGHUP);
    int status = -1;
    EXPECT_EQ(waitpid(worker, &status, 0), worker);
    EXPECT_EQ(status, 0);
    EXPECT_THAT(credentials_files(), IsEmpty());
    EXPECT_TRUE(wait_for([wget] { return kill(wget, 0) != 0; }));
    EXPECT_FALSE(file_exists(kDestination + "/hung-up"));
}

} // namespace
} // namespace tsbackup::test
