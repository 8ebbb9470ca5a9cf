// Jobs against a real nginx, with the real wget.

#include "aftermath.h"
#include "job_runs.h"
#include "server.h"

#include <algorithm>
#include <filesystem>
#include <gmock/gmock.h>
#include <regex>
#include <sys/stat.h>
#include <unistd.h>

namespace tsbackup::test {
namespace {

using namespace std::chrono_literals;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAre;

constexpr int kJob = 7;
constexpr int kPort = 8080;
constexpr int kLinePort = 8081;
constexpr std::size_t kMebibyte = 1 << 20;
const std::string kSite = "/media/USB/www"; ///< what the server serves
const std::string kBackup = "/vault/Backup";
const std::string kAccessLog = "/srv/nginx/access";

/// nginx with lists of its folders; below "/auth/" and "/odd/" it asks for a log-in.
class WebServer : public Server {
  public:
    WebServer() : Server({"nginx", "-e", "/srv/nginx/errors", "-c", configuration(), "-g", "daemon off;"}, kPort) {}

  private:
    static std::string configuration() {
        // A password is stored as it is.
        write_file("/srv/nginx/users", "bob:{PLAIN}right\n");
        write_file("/srv/nginx/odd_users", "b\xc3\xb6"
                                           "b:{PLAIN}p w$(id)'\"\\%20#=;&\n");
        std::string scratch;
        for (const char *kind : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"})
            scratch += std::string(kind) + "_temp_path /srv/nginx/" + kind + "; ";
        write_file("/srv/nginx/conf",
                   "user nobody nogroup; worker_processes 1; pid /srv/nginx/pid;\n"
                   "events { worker_connections 64; }\n"
                   "http {\n"
                   "  log_format short '$status $request_uri'; access_log " +
                       kAccessLog + " short; " + scratch +
                       "\n"
                       "  types { text/html html; text/plain txt; }\n"
                       "  server { listen 127.0.0.1:" +
                       std::to_string(kPort) + "; root " + kSite +
                       "; autoindex on; charset utf-8;\n"
                       "    location /auth/ { auth_basic x; auth_basic_user_file /srv/nginx/users; }\n"
                       "    location /odd/ { auth_basic x; auth_basic_user_file /srv/nginx/odd_users; }\n"
                       "  }\n"
                       "}\n");
        return "/srv/nginx/conf";
    }
};

/// A page with links.
std::string page(const std::vector<std::string> &links) {
    std::string text = "<html><body>\n";
    for (const std::string &link : links)
        text += "<a href=\"" + link + "\">x</a>\n";
    return text + "</body></html>\n";
}

/// A job that fetches an address into the share "Backup".
Settings job_of(const std::string &url, const Settings &more = {}) {
    return Settings{{"name", "Web & site"},
                    {"opt_max_log_lines", "1000"},
                    {"opt_full_backup_freq", "NEVER"},
                    {"src_type", "remote"},
                    {"src_share_proto", "http"},
                    {"src_path", url},
                    {"src_port", std::to_string(kPort)}} +
           more;
}
Settings to_share(const std::string &path = "copy") { return destination_share("vault", "Backup", path); }
Settings login(const std::string &user, const std::string &password) {
    return {{"src_login", user}, {"src_password", password}};
}

Outcome run_job(const Settings &settings) {
    JobFile().job(kJob, settings).write();
    return run_program({"-v", "7", "-e", std::to_string(kJob)});
}

std::string error_log() { return read_file(error_log_path(kJob)); }
std::string copy_log() { return read_file(kept_copy_log_path(kJob)); }
std::string fetched(const std::string &path) { return read_file(kBackup + "/copy/" + path); }

/// The files below a folder.
std::vector<std::string> files_below(const std::string &folder) {
    std::vector<std::string> files;
    for (const auto &entry : std::filesystem::recursive_directory_iterator(folder))
        if (entry.is_regular_file()) files.push_back(entry.path().lexically_relative(folder));
    return files;
}

timespec time_of(const std::string &path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? status.st_mtim : timespec{-1, 0};
}

/// Command lines and environments of the processes of the appliance, and the names of the running programs.
std::vector<std::string> what_processes_show() {
    std::vector<std::string> shown;
    for (const std::string &name : list_folder("/proc")) {
        if (name.find_first_not_of("0123456789") != std::string::npos) continue;
        for (const char *file : {"/cmdline", "/environ"})
            shown.push_back(read_file("/proc/" + name + file));
    }
    return shown;
}

/// What a run leaves behind that it should not.
std::vector<std::string> leftovers() {
    std::vector<std::string> left;
    const auto wget_runs = [] {
        for (const std::string &name : list_folder("/proc"))
            if (read_file("/proc/" + name + "/comm") == "wget\n") return true;
        return false;
    };
    if (!wait_until([&] { return !wget_runs(); }, 5s)) left.emplace_back("a running wget");
    for (const std::string &name : list_folder("/tmp"))
        if (name.starts_with(".http")) left.push_back("/tmp/" + name);
    for (const std::string &name : list_folder(kWorkFolder))
        left.push_back(name);
    return left;
}

class HttpServers : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_VOLUMES();
        reset_appliance();
        make_folder(kSite);
        remove_tree("/srv/nginx");
    }
    void TearDown() override {
        if (!volumes()) return;
        EXPECT_THAT(leftovers(), IsEmpty());
    }
    /// Four pages, and a picture that one of them shows in two ways.
    static void make_site() {
        write_file(kSite + "/site/index.html", page({"p1.html", "sub%20dir/p2.html", "i.png?x=1", "i.png"}));
        write_file(kSite + "/site/p1.html", page({"p3.html"}));
        write_file(kSite + "/site/p3.html", page({"index.html"}));
        write_file(kSite + "/site/sub dir/p2.html", "text");
        write_file(kSite + "/site/i.png", "picture");
        write_file(kSite + "/site/unlinked.html", "x");
        write_file(kSite + "/beside.html", "x");
    }
};

// ---- what arrives ----------------------------------------------------------------------------------------------

TEST_F(HttpServers, ASiteArrivesWithItsBooks) {
    const WebServer server;
    make_site();
    EventReceiver events;
    StatusWatcher watcher(kJob);
    const Outcome outcome = run_job(job_of("http://127.0.0.1/site/index.html") + to_share());
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(last_result(kJob), 0) << outcome.err;

    EXPECT_THAT(files_below(kBackup + "/copy"),
                UnorderedElementsAre("site/index.html", "site/p1.html", "site/p3.html", "site/sub dir/p2.html",
                                     "site/i.png", "site/i.png?x=1"));
    for (const char *file : {"site/index.html", "site/p1.html", "site/p3.html", "site/sub dir/p2.html", "site/i.png"}) {
        EXPECT_EQ(fetched(file), read_file(kSite + "/" + file)) << file;
        EXPECT_EQ(time_of(kBackup + "/copy/" + file).tv_sec, time_of(kSite + "/" + file).tv_sec) << file;
    }
    EXPECT_EQ(copy_log(), "site/index.html --> site/index.html\n"
                          "site/p1.html --> site/p1.html\n"
                          "site/sub dir/p2.html --> site/sub dir/p2.html\n"
                          "site/i.png?x=1 --> site/i.png?x=1\n"
                          "site/i.png --> site/i.png\n"
                          "site/p3.html --> site/p3.html\n");
    EXPECT_FALSE(file_exists(error_log_path(kJob)));
    EXPECT_TRUE(
        same_text("name: Web & site\nfull: no\nproto: http\nsrc: [remote:http]/http://127.0.0.1/site/index.html\n"
                  "dst: [share:Backup]/copy\nstart: TIME\nfinish: TIME\nstatus: 0\nlog:\n",
                  with_placeholders(read_file(history_path(kJob)))));
    EXPECT_THAT(events.received(), ElementsAre(result_event(kJob, "Web &amp; site", 0)));
    EXPECT_THAT(states(watcher),
                ElementsAre("BACKUP_STATUS__IN_PROGRESS,0!!TIME!!OK", "BACKUP_STATUS__COMPLETED!!TIME!!OK"));
}

TEST_F(HttpServers, WhatIsThereAndNoOlderIsNotFetchedAgain) {
    const WebServer server;
    make_site();
    const Settings job = job_of("127.0.0.1/site/index.html") + to_share();
    run_job(job);
    ASSERT_EQ(last_result(kJob), 0);

    // wget does not look behind a first page that has not changed.
    write_file(kAccessLog, "");
    write_file(kSite + "/site/new.html", "new");
    run_job(job);
    EXPECT_EQ(last_result(kJob), 0);
    EXPECT_EQ(copy_log(), "");
    EXPECT_EQ(read_file(kAccessLog), "304 /site/index.html\n");

    // Behind one that has, what is newer or was lost here is fetched, and nothing else.
    write_file(kSite + "/site/index.html", page({"p1.html", "sub%20dir/p2.html", "i.png", "new.html"}));
    ASSERT_EQ(shell_output("touch -d '+1 hour' " + kSite + "/site/index.html"), "");
    remove_tree(kBackup + "/copy/site/sub dir");
    write_file(kAccessLog, "");
    run_job(job);
    EXPECT_EQ(last_result(kJob), 0);
    EXPECT_EQ(copy_log(), "site/index.html --> site/index.html\nsite/sub dir/p2.html --> site/sub dir/p2.html\n"
                          "site/new.html --> site/new.html\n");
    EXPECT_THAT(read_file(kAccessLog), AllOf(HasSubstr("304 /site/p1.html\n"), HasSubstr("304 /site/i.png\n")));
    EXPECT_EQ(fetched("site/new.html"), "new");
}

TEST_F(HttpServers, AListOfAFolderHasNoTimeAndIsFetchedAgain) {
    const WebServer server;
    write_file(kSite + "/a.txt", "a");
    write_file(kSite + "/b/c.txt", "c");
    const Settings job = job_of("http://127.0.0.1") + to_share();
    run_job(job);
    EXPECT_EQ(last_result(kJob), 0);
    EXPECT_EQ(copy_log(), " --> index.html\nb/ --> b/index.html\na.txt --> a.txt\nb/c.txt --> b/c.txt\n");
    run_job(job);
    EXPECT_EQ(last_result(kJob), 0);
    EXPECT_EQ(copy_log(), " --> index.html\nb/ --> b/index.html\n");
}

TEST_F(HttpServers, AFullRunEmptiesTheDestinationWhenTheJobSaysSo) {
    const WebServer server;
    make_site();
    write_file(kBackup + "/copy/old", "x");
    Settings job = job_of("127.0.0.1/site/p1.html") + to_share() + Settings{{"opt_remove_previous_backup", "1"}};
    run_job(job);
    EXPECT_TRUE(file_exists(kBackup + "/copy/old"));
    for (auto &[name, value] : job)
        if (name == "opt_full_backup_freq") value = "EVERY_TIME";
    run_job(job);
    EXPECT_FALSE(file_exists(kBackup + "/copy/old"));
    EXPECT_EQ(last_result(kJob), 0);
    EXPECT_THAT(copy_log(), HasSubstr("site/p1.html --> site/p1.html\n"));
}

TEST_F(HttpServers, ThreeLevelsOfLinksAreFollowed) {
    const WebServer server;
    for (int level = 0; level < 6; ++level)
        write_file(kSite + "/" + std::to_string(level) + ".html", page({std::to_string(level + 1) + ".html"}));
    run_job(job_of("127.0.0.1/0.html") + to_share());
    EXPECT_EQ(last_result(kJob), 0);
    EXPECT_EQ(copy_log(), "0.html --> 0.html\n1.html --> 1.html\n2.html --> 2.html\n3.html --> 3.html\n");
}

TEST_F(HttpServers, LinksThatLeadOutAreNotFollowed) {
    const WebServer server;
    write_file(kSite + "/a/b/index.html",
               page({"../up.html", "/root.html", "http://localhost:8080/a/b/other.html", "in.html"}));
    for (const char *file : {"a/up.html", "root.html", "a/b/other.html", "a/b/in.html"})
        write_file(kSite + "/" + file, "x");
    run_job(job_of("127.0.0.1/a/b/index.html") + to_share());
    EXPECT_EQ(last_result(kJob), 0);
    EXPECT_THAT(files_below(kBackup + "/copy"), UnorderedElementsAre("a/b/index.html", "a/b/in.html"));
}

TEST_F(HttpServers, AwkwardNamesArriveAsTheyAre) {
    const WebServer server;
    const std::string folder = "it's \"my\" [site] {1} b\xc3\xa4r";
    const char *const names[] = {
        "with blank",  "quote'd \"twice\"", "$(id) & `id`", "B\xc3\xa4r",   "a;b", "br[ab]", "{a,b}",
        "a -> b",      "100% done",         "hash#x",       "what?",        "a+b", "a=b",    "a,b",
        "!important!", "(round)",           "tilde~",       "\xe2\x98\x83", "|",   "*star*"};
    for (const char *name : names)
        write_file(kSite + "/" + folder + "/" + name + ".txt", name);
    const Settings job = job_of("http://127.0.0.1/" + folder + "/with blank.txt") + to_share("to here; $(id) 'x'");
    run_job(job);
    EXPECT_EQ(last_result(kJob), 0) << error_log();
    EXPECT_EQ(read_file(kBackup + "/to here; $(id) 'x'/" + folder + "/with blank.txt"), "with blank");
    EXPECT_EQ(copy_log(), folder + "/with blank.txt --> " + folder + "/with blank.txt\n");

    // By a page that links to all of them, as a browser would have them written.
    std::vector<std::string> links;
    for (const char *name : names) {
        std::string link;
        for (const char *at = name; *at != '\0'; ++at) {
            char code[4];
            std::snprintf(code, sizeof code, "%%%02X", static_cast<unsigned char>(*at));
            link += code;
        }
        links.push_back(link + ".txt");
    }
    write_file(kSite + "/" + folder + "/all.html", page(links));
    run_job(job_of("http://127.0.0.1/" + folder + "/all.html") + to_share());
    EXPECT_EQ(last_result(kJob), 0) << error_log();
    for (const char *name : names) {
        EXPECT_EQ(fetched(folder + "/" + name + ".txt"), name);
        EXPECT_THAT(copy_log(), HasSubstr(folder + "/" + name + ".txt --> " + folder + "/" + name + ".txt\n"));
    }
}

TEST_F(HttpServers, ThePortOfTheAddressCountsMore) {
    const WebServer server;
    write_file(kSite + "/a.txt", "a");
    const struct {
        const char *url;
        const char *port;
        bool arrives;
    } cases[] = {
        {"http://127.0.0.1:8080/a.txt", "1", true}, {"http://127.0.0.1:8080/a.txt", "", true},
        {"http://127.0.0.1/a.txt", "8080", true},   {"http://127.0.0.1/a.txt", "", false},
        {"http://127.0.0.1/a.txt", "-8080", false}, {"http://127.0.0.1:1/a.txt", "8080", false},
        {"localhost/a.txt", "8080", true},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(std::string(test.url) + ", port " + test.port);
        remove_tree(kBackup + "/copy");
        Settings job = job_of(test.url) + to_share();
        for (auto &[name, value] : job)
            if (name == "src_port") value = test.port;
        run_job(job);
        EXPECT_EQ(last_result(kJob), test.arrives ? 0 : 6);
        EXPECT_EQ(fetched("a.txt"), test.arrives ? "a" : "");
    }
}

// ---- log-ins ---------------------------------------------------------------------------------------------------

TEST_F(HttpServers, LogIns) {
    const WebServer server;
    write_file(kSite + "/auth/s.txt", "secret");
    write_file(kSite + "/odd/s.txt", "secret");
    const struct {
        const char *name;
        const char *url;
        Settings login;
        bool accepted;
    } cases[] = {
        {"the right password", "127.0.0.1/auth/s.txt", login("bob", "right"), true},
        {"a wrong one", "127.0.0.1/auth/s.txt", login("bob", "wrong"), false},
        {"a wrong user", "127.0.0.1/auth/s.txt", login("eve", "right"), false},
        {"no password", "127.0.0.1/auth/s.txt", login("bob", ""), false},
        {"no login", "127.0.0.1/auth/s.txt", login("", "right"), false},
        {"nothing", "127.0.0.1/auth/s.txt", {}, false},
        {"characters of any kind", "127.0.0.1/odd/s.txt",
         login("b\xc3\xb6"
               "b",
               "p w$(id)'\"\\%20#=;&"),
         true},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.name);
        remove_tree(kBackup + "/copy");
        const Outcome outcome = run_job(job_of(test.url) + test.login + to_share());
        EXPECT_EQ(last_result(kJob), test.accepted ? 0 : 6);
        EXPECT_EQ(file_exists(error_log_path(kJob)), !test.accepted);
        EXPECT_EQ(error_log(), "");
        EXPECT_THAT(leftovers(), IsEmpty());
        EXPECT_EQ(outcome.err.find("wget returns 1536 (600)") != std::string::npos, !test.accepted);
        EXPECT_THAT(outcome.err, Not(HasSubstr("right")));
        EXPECT_EQ(fetched(std::string(test.url).substr(10)), test.accepted ? "secret" : "");
    }
}

TEST_F(HttpServers, ThePasswordIsSeenByNobody) {
    const WebServer server;
    const Line line(kLinePort, kPort, kMebibyte);
    write_filler(kSite + "/auth/big", 2 * kMebibyte);
    Settings job = job_of("127.0.0.1:8081/auth/big") + login("bob", "right") + to_share();
    JobFile().job(kJob, job).write();
    Program program({"-v", "7", "-e", "7"});
    ASSERT_TRUE(wait_until([&] { return line.passed() > kMebibyte / 2; }));
    std::string credentials;
    for (const std::string &name : list_folder("/tmp"))
        if (name.starts_with(".http_passwd")) credentials = "/tmp/" + name;
    struct stat status {};
    ASSERT_EQ(stat(credentials.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
    EXPECT_EQ(read_file(credentials), "http_user=bob\nhttp_password=right\n");
    for (const std::string &shown : what_processes_show())
        EXPECT_THAT(shown, Not(HasSubstr("right")));
    const Outcome outcome = program.wait();
    EXPECT_EQ(last_result(kJob), 0);
    EXPECT_THAT(outcome.err, Not(HasSubstr("right")));
    EXPECT_FALSE(file_exists(credentials));
}

// ---- what goes wrong -------------------------------------------------------------------------------------------

TEST_F(HttpServers, WhatTheServerRefuses) {
    const WebServer server;
    write_file(kSite + "/index.html", page({"missing.html", "closed.txt", "open.txt"}));
    write_file(kSite + "/closed.txt", "x", 0600);
    write_file(kSite + "/open.txt", "open");
    const struct {
        const char *name;
        const char *url;
        const char *port;
        int status;
        const char *copied;
    } cases[] = {
        {"a page that is not there", "127.0.0.1/nope.html", "8080", 2048, ""},
        {"a page that may not be read", "127.0.0.1/closed.txt", "8080", 2048, ""},
        {"links to such pages", "127.0.0.1/index.html", "8080", 2048,
         "index.html --> index.html\nopen.txt --> open.txt\n"},
        {"nobody at the port", "127.0.0.1/index.html", "8099", 1024, ""},
        {"an unknown host", "nosuch.invalid/index.html", "8080", 1024, ""},
        {"no host", "/index.html", "8080", 256, ""},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.name);
        remove_tree(kBackup + "/copy");
        EventReceiver events;
        StatusWatcher watcher(kJob);
        Settings job = job_of(test.url) + to_share();
        for (auto &[name, value] : job)
            if (name == "src_port") value = test.port;
        const Outcome outcome = run_job(job);
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(last_result(kJob), 6);
        char message[64];
        std::snprintf(message, sizeof message, "wget returns %d (%x)", test.status, static_cast<unsigned>(test.status));
        EXPECT_THAT(outcome.err, HasSubstr(message));
        EXPECT_EQ(copy_log(), test.copied);
        EXPECT_TRUE(file_exists(error_log_path(kJob)));
        EXPECT_EQ(error_log(), "");
        EXPECT_THAT(events.received(), ElementsAre(result_event(kJob, "Web &amp; site", 6)));
        EXPECT_EQ(states(watcher).back(), "BACKUP_STATUS__FAILED!!TIME!!warn");
    }
}

TEST_F(HttpServers, AFullDisk) {
    const WebServer server;
    write_filler(kSite + "/big", 40 * kMebibyte);
    const Outcome outcome = run_job(job_of("127.0.0.1/big") + destination_usb("2"));
    EXPECT_EQ(last_result(kJob), 6);
    EXPECT_THAT(outcome.err, HasSubstr("wget returns 768 (300)"));
    EXPECT_THAT(error_log(), testing::ContainsRegex("^Cannot write to .*big.* \\(No space left on device\\)\\.\n$"));
    EXPECT_EQ(copy_log(), "");
}

TEST_F(HttpServers, ADestinationThatCannotBeWritten) {
    const WebServer server;
    make_site();
    ASSERT_EQ(shell_output("mount -o remount,ro /media/STICK"), "");
    const Outcome outcome = run_job(job_of("127.0.0.1/site/index.html") + destination_usb("2"));
    EXPECT_EQ(shell_output("mount -o remount,rw /media/STICK"), "");
    EXPECT_EQ(last_result(kJob), 6);
    EXPECT_THAT(outcome.err, HasSubstr("wget returns 768 (300)"));
    EXPECT_EQ(copy_log(), "");
}

TEST_F(HttpServers, ADestinationThatIsAFile) {
    const WebServer server;
    make_site();
    write_file(kBackup + "/copy", "a file");
    const std::string root = shell_output("ls -a / /root");
    run_job(job_of("127.0.0.1/site/index.html") + to_share());
    EXPECT_EQ(last_result(kJob), 6);
    EXPECT_EQ(read_file(kBackup + "/copy"), "a file");
    EXPECT_EQ(shell_output("ls -a / /root"), root);
}

TEST_F(HttpServers, AServerThatGoesDownInTheMiddleOfAFile) {
    write_filler(kSite + "/big", 8 * kMebibyte);
    WebServer server;
    Line line(kLinePort, kPort, 2 * kMebibyte);
    JobFile().job(kJob, job_of("127.0.0.1:8081/big") + to_share()).write();
    Program program({"-v", "7", "-e", "7"});
    ASSERT_TRUE(wait_until([&] { return line.passed() > kMebibyte; }));
    line.refuse();
    server.stop();
    const Outcome outcome = program.wait();
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(last_result(kJob), 6);
    EXPECT_THAT(outcome.err, HasSubstr("wget returns 1024 (400)"));
    EXPECT_EQ(copy_log(), "");
}

TEST_F(HttpServers, ALineThatBreaksOnceIsTakenUpAgain) {
    write_filler(kSite + "/big", 12 * kMebibyte);
    const WebServer server;
    Line line(kLinePort, kPort, 16 * kMebibyte);
    line.break_after(kMebibyte);
    JobFile().job(kJob, job_of("127.0.0.1:8081/big") + to_share()).write();
    Program program({"-e", "7"});
    // A request is logged when its connection has ended, which is before wget begins another one.
    ASSERT_TRUE(wait_until([&] { return !read_file(kAccessLog).empty(); }));
    line.break_after(UINT64_MAX);
    EXPECT_EQ(program.wait().status, 0);
    EXPECT_EQ(last_result(kJob), 0) << error_log();
    EXPECT_THAT(read_file(kAccessLog), HasSubstr("206 /big\n"));
    EXPECT_TRUE(fetched("big") == read_file(kSite + "/big"));
    EXPECT_EQ(copy_log(), "big --> big\n");
}

// ---- cancelling ------------------------------------------------------------------------------------------------

TEST_F(HttpServers, ACancelledTransferLeavesNothingBehind) {
    const WebServer server;
    // Many pages, so that wget has something to say at any moment.
    std::vector<std::string> links;
    for (int number = 0; number < 200; ++number) {
        links.push_back(std::to_string(number) + ".bin");
        write_filler(kSite + "/auth/" + links.back(), kMebibyte / 16);
    }
    write_file(kSite + "/auth/index.html", page(links));
    for (const char *scanner : {"0", "1"}) {
        SCOPED_TRACE(std::string("scanner ") + scanner);
        remove_tree(kBackup + "/copy");
        set_service("ANTIVIRUS", scanner);
        const Line line(kLinePort, kPort, 2 * kMebibyte);
        JobFile().job(kJob, job_of("127.0.0.1:8081/auth/index.html") + login("bob", "right") + to_share()).write();
        EventReceiver events;
        Program job({"-e", "7"});
        ASSERT_TRUE(wait_until([&] { return line.passed() > kMebibyte; }));
        EXPECT_EQ(run_program({"-k", "7"}, {.environment = {}, .preload = {kShortWaits}}).status, 0);
        EXPECT_EQ(job.wait().status, 0);
        EXPECT_EQ(with_placeholders(read_file(status_path(kJob))), "BACKUP_STATUS__CANCELLED!!TIME!!notice\n");
        EXPECT_EQ(last_result(kJob), 11);
        EXPECT_THAT(events.received(), ElementsAre(result_event(kJob, "Web &amp; site", 11)));
        EXPECT_THAT(leftovers(), IsEmpty());
        EXPECT_THAT(list_folder(kBackup + "/copy"), ElementsAre("auth")) << "wget opened a log of its own";
    }
}

} // namespace
} // namespace tsbackup::test
