// wget's log: which of its lines tell of a file, which of a failure, and what becomes of the run's logs.

#include "log_parser.h"

#include "support.h"
#include "tsbackup/paths.h"

#include <algorithm>
#include <optional>
#include <sys/mount.h>
#include <unistd.h>

namespace tsbackup::test {
namespace {

constexpr int kJob = 7;
constexpr int kUrlStart = 3; ///< "http:", nothing, the host

std::string fixture(const std::string &name) { return read_file(std::string(FIXTURES) + "/wget/" + name); }

/// A line about a file.
std::string fetched(const std::string &url, const std::string &target) {
    return "2026-11-21 00:33:58 URL:" + url + " [2/2] -> " + target + "\n";
}

// ---- lines -----------------------------------------------------------------------------------------------------

TEST(LogEntry, lines) {
    const std::string name_1010(1010, 'n');
    const struct {
        const char *name;
        std::string line;
        std::optional<std::string> entry;
    } cases[] = {
        {"a file", fetched("http://host/a/b.txt", "\"a/b.txt\" [1]"), "a/b.txt --> a/b.txt\n"},
        {"a size that the server did not tell", "d t URL:http://host/a [2592] -> \"a\" [1]\n", "a --> a\n"},
        {"the root", fetched("http://host/", "\"index.html\" [1]"), " --> index.html\n"},
        {"a port", fetched("http://127.0.0.1:8080/a", "\"a\" [1]"), "a --> a\n"},
        {"two slashes in the path", fetched("http://host//a", "\"a\" [1]"), "/a --> a\n"},
        {"a host alone", fetched("http://host", "\"index.html\" [1]"), std::nullopt},
        {"no URL", fetched("host/a", "\"a\" [1]"), std::nullopt},
        {"a blank in the name", fetched("http://h/a%20b", "\"a b\" [1]"), "a b --> a b\n"},
        {"a name that looks like the arrow", fetched("http://h/a%20-%3e%20b", "\"a -> b\" [1]"), "a -> b --> a -> b\n"},
        {"a quotation mark in the name", fetched("http://h/a%22b", "\"a\"b\" [1]"), "a\"b --> a\"b\n"},
        {"capitals in the codes", fetched("http://h/%C3%A9%c3%A9", "\"\xc3\xa9\" [1]"),
         "\xc3\xa9\xc3\xa9 --> \xc3\xa9\n"},
        {"a code that is cut", fetched("http://h/a%2", "\"a\" [1]"), "a%2 --> a\n"},
        {"digits that are none give a zero, which ends the text", fetched("http://h/%zz%41", "\"a\" [1]"), " --> a\n"},
        {"a code of a code", fetched("http://h/pct%2541", "\"pctA\" [1]"), "pct%41 --> pctA\n"},
        {"a plus stays", fetched("http://h/a+b", "\"a+b\" [1]"), "a+b --> a+b\n"},
        {"a query", fetched("http://h/i.png?x=1", "\"i.png?x=1\" [1]"), "i.png?x=1 --> i.png?x=1\n"},
        {"no quotation marks", fetched("http://h/a", "a [1]"), "a --> a\n"},
        {"one at the start alone", fetched("http://h/a", "\"a [1]"), "a --> \"a\n"},
        {"one at the end alone", fetched("http://h/a", "a\" [1]"), "a --> a\"\n"},
        {"one that is both", fetched("http://h/a", "\" [1]"), "a --> \"\n"},
        {"nothing between them", fetched("http://h/a", "\"\" [1]"), "a --> \n"},
        {"two counters", fetched("http://h/a", "\"a\" [1] [2]"), "a --> \"a\" [1]\n"},
        {"no counter", fetched("http://h/a", "\"a\""), std::nullopt},
        {"the last blank is the line's last character", fetched("http://h/a", "\"a\" "), "a --> a\n"},
        {"blanks before the target do not count", fetched("http://h/a", "   a"), std::nullopt},
        {"tabs are no blanks", fetched("http://h/a", "\"a\"\t[1]"), std::nullopt},
        {"no line end", "d t URL:http://h/a [1/1] -> \"a\" [1]", "a --> a\n"},
        {"more blanks between the fields", "  d   t   URL:http://h/a  [1/1]  ->  \"a\" [1]\n", "a --> a\n"},
        {"one word before the URL", "d URL:http://h/a [1/1] -> \"a\" [1]\n", std::nullopt},
        {"three words before the URL", "d t z URL:http://h/a [1/1] -> \"a\" [1]\n", std::nullopt},
        {"a size that is no number", "d t URL:http://h/a [?/2] -> \"a\" [1]\n", std::nullopt},
        {"an empty size", "d t URL:http://h/a [] -> \"a\" [1]\n", std::nullopt},
        {"no size", "d t URL:http://h/a -> \"a\" [1]\n", std::nullopt},
        {"no target", "d t URL:http://h/a [1/1] ->\n", std::nullopt},
        {"small letters", "d t url:http://h/a [1/1] -> \"a\" [1]\n", std::nullopt},
        {"an error", "2026-11-21 00:33:58 ERROR 404: Not Found.\n", std::nullopt},
        {"a URL of its own", "http://127.0.0.1:8080/site/missing.html:\n", std::nullopt},
        {"the end", "FINISHED --2026-11-21 00:34:30--\n", std::nullopt},
        {"nothing", "", std::nullopt},
        {"an empty line", "\n", std::nullopt},
        {"the longest URL", fetched("http://h/x/" + name_1010 + "yz", "\"a\" [1]"), "x/" + name_1010 + "yz --> a\n"},
        {"a longer URL", fetched("http://h/x/" + name_1010 + "xyz", "\"a\" [1]"), std::nullopt},
        {"a target that is cut is cut at its last blank",
         fetched("http://h/a", "\"" + name_1010 + " " + std::string(50, 'm') + "\" [1]"),
         "a --> \"" + name_1010 + "\n"},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.name);
        EXPECT_EQ(wget_log_entry(test.line.c_str(), kUrlStart), test.entry);
    }
}

TEST(LogEntry, components) {
    const std::string line = fetched("http://host/one/two/three.txt", "\"f\" [1]");
    const struct {
        int components;
        std::optional<std::string> entry;
    } cases[] = {
        {0, "http://host/one/two/three.txt --> f\n"},
        {1, "/host/one/two/three.txt --> f\n"},
        {2, "host/one/two/three.txt --> f\n"},
        {3, "one/two/three.txt --> f\n"},
        {4, "two/three.txt --> f\n"},
        {5, "three.txt --> f\n"},
        {6, std::nullopt},
        {-1, "http://host/one/two/three.txt --> f\n"},
    };
    for (const auto &test : cases)
        EXPECT_EQ(wget_log_entry(line.c_str(), test.components), test.entry) << test.components;
}

TEST(LogEntry, folders_are_counted_before_names_are_decoded) {
    EXPECT_EQ(wget_log_entry(fetched("http://h/a%2fb/c", "\"c\" [1]").c_str(), kUrlStart + 1), "c --> c\n");
    EXPECT_EQ(wget_log_entry(fetched("http:%2f/h/a/b", "\"b\" [1]").c_str(), kUrlStart), "b --> b\n");
}

// ---- whole logs ------------------------------------------------------------------------------------------------

class HttpLog : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_APPLIANCE();
        clean();
        run_.job_id = kJob;
    }
    void TearDown() override {
        if (in_appliance()) clean();
    }
    static void clean() {
        remove_tree(paths::work_folder);
        remove_tree(paths::log_folder);
        make_folder(paths::work_folder);
        make_folder(paths::log_folder);
    }
    static std::string copy_log() { return read_file(paths::copy_log(kJob)); }
    static std::string error_log() { return read_file(paths::error_log(kJob)); }
    static bool has_error_log() { return file_exists(paths::error_log(kJob)); }
    static std::string parsed_path() { return paths::copy_log(kJob) + "." + std::to_string(getpid()); }

    BackupRun run_;
};

TEST_F(HttpLog, LinesOfRealLogs) {
    const struct {
        const char *name;
        int status;
        int code;
        const char *message;
        const char *error_log;
    } cases[] = {
        {"ap_pub", 2048, 6, "'wget' command returns rc=2048", ""},
        {"ng_pub", 2048, 6, "'wget' command returns rc=2048", ""},
        {"ng_root", 2048, 6, "'wget' command returns rc=2048", ""},
        {"ng_site", 2048, 6, "'wget' command returns rc=2048", ""},
        {"robots_present", 2048, 6, "'wget' command returns rc=2048", ""},
        {"start404", 2048, 6, "'wget' command returns rc=2048", ""},
        {"auth_bad", 1536, 6, "'wget' command returns rc=1536", ""},
        {"auth_ok", 0, 0, "", ""},
        {"locale_C", 0, 0, "", ""},
        {"refused", 1024, 6, "'wget' command returns rc=1024", ""},
        {"nohost", 1024, 6, "'wget' command returns rc=1024", ""},
        {"full", 768, 8, "Cannot write to \u2018pub/big.bin\u2019 (No space left on device).\n",
         "Cannot write to \u2018pub/big.bin\u2019 (No space left on device).\n"},
        {"full0", 768, 8, "Cannot write to \u2018site/index.html\u2019 (No space left on device).\n",
         "Cannot write to \u2018site/index.html\u2019 (No space left on device).\n"},
        {"perm", 768, 7, "site: Permission denied\n", "site: Permission denied\n"},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.name);
        const std::string log = fixture(std::string(test.name) + ".log");
        ASSERT_NE(log, "");
        clean();
        write_file(paths::copy_log(kJob), log);
        BackupRun run;
        run.job_id = kJob;
        http_parse_log(run, test.status, 0);
        EXPECT_EQ(copy_log(), fixture(std::string(test.name) + ".copied"));
        EXPECT_EQ(run.error_code, test.code);
        EXPECT_EQ(run.error_message.value_or(""), test.message);
        EXPECT_EQ(error_log(), test.error_log);
        EXPECT_EQ(has_error_log(), test.status != 0);
        EXPECT_FALSE(file_exists(parsed_path()));
    }
}

TEST_F(HttpLog, Rules) {
    const std::string a = fetched("http://h/a", "\"a\" [1]");
    const std::string robots = "http://h/robots.txt:\n";
    const std::string not_found = "2026-11-21 00:33:58 ERROR 404: Not Found.\n";
    const std::string full_line = fetched("http://h/No%20space%20left", "\"No space left\" [1]");
    const std::string long_text(5000, 'x');
    const struct {
        const char *name;
        std::string log;
        std::string copied;
        int code;
        std::string message;
        std::string errors;
    } cases[] = {
        {"nothing", "", "", 0, "", ""},
        {"a full disk", "x: No space left on device\n", "", 8, "x: No space left on device\n",
         "x: No space left on device\n"},
        {"a permission", "x: Permission denied\n", "", 7, "x: Permission denied\n", "x: Permission denied\n"},
        {"a full disk goes before a permission", "No space left, Permission denied\n", "", 8,
         "No space left, Permission denied\n", "No space left, Permission denied\n"},
        {"the first is recorded, all are logged",
         "a Permission denied\nb No space left\n" + a + "c Permission denied\n", "a --> a\n", 7,
         "a Permission denied\n", "a Permission denied\nb No space left\nc Permission denied\n"},
        {"letters decide", "no space left, permission denied\n", "", 0, "", ""},
        {"nothing is a format", "%s%n No space left\n", "", 8, "%s%n No space left\n", "%s%n No space left\n"},
        {"without a line end", "No space left", "", 8, "No space left", "No space left"},
        // Kept as it is: so it has always been for a file of such a name.
        {"a file that is named like a failure", full_line, "No space left --> No space left\n", 8, full_line,
         full_line},
        {"robots.txt is left out", fetched("http://h/robots.txt", "\"robots.txt\" [1]") + a, "a --> a\n", 0, "", ""},
        {"so is a file that begins so", fetched("http://h/robots.txt.old", "\"robots.txt.old\" [1]"), "", 0, "", ""},
        {"a missing robots.txt", robots + not_found + a, "a --> a\n", 0, "", ""},
        {"a line behind robots.txt that is another", robots + a + not_found, "a --> a\n", 0, "", ""},
        {"robots.txt twice", robots + robots + not_found + a, "a --> a\n", 0, "", ""},
        {"any line with those words is left out behind robots.txt",
         robots + fetched("http://h/a", "\"404: Not Found\" [1]") + a, "a --> a\n", 0, "", ""},
        {"and nowhere else", a + fetched("http://h/b", "\"404: Not Found\" [1]"), "a --> a\nb --> 404: Not Found\n", 0,
         "", ""},
        {"only directly behind it", robots + "\n" + fetched("http://h/b", "\"404: Not Found\" [1]"),
         "b --> 404: Not Found\n", 0, "", ""},
        {"a failure in the line of robots.txt", "robots.txt: Permission denied\n" + not_found + a, "a --> a\n", 7,
         "robots.txt: Permission denied\n", "robots.txt: Permission denied\n"},
        {"a failure in the line behind it", robots + "404: Not Found, No space left\n", "", 8,
         "404: Not Found, No space left\n", "404: Not Found, No space left\n"},
        {"a long line is read in pieces", long_text + " No space left\n" + a, "a --> a\n", 8,
         long_text.substr(4095) + " No space left\n", long_text.substr(4095) + " No space left\n"},
        {"a piece can look like a line", std::string(4095, 'x') + a, "a --> a\n", 0, "", ""},
    };
    for (const auto &test : cases)
        for (const int status : {0, 2048}) {
            SCOPED_TRACE(std::string(test.name) + ", status " + std::to_string(status));
            clean();
            write_file(paths::copy_log(kJob), test.log);
            write_file(paths::error_log(kJob), "of the run's beginning\n");
            BackupRun run;
            run.job_id = kJob;
            http_parse_log(run, status, 0);
            EXPECT_EQ(copy_log(), test.copied);
            if (test.code == 0 && status != 0) {
                EXPECT_EQ(run.error_code, 6);
                EXPECT_EQ(run.error_message, "'wget' command returns rc=2048");
            } else {
                EXPECT_EQ(run.error_code, test.code);
                EXPECT_EQ(run.error_message.value_or(""), test.message.substr(0, 511));
            }
            EXPECT_EQ(has_error_log(), status != 0);
            EXPECT_EQ(error_log(), status != 0 ? test.errors : "");
        }
}

TEST_F(HttpLog, FoldersCanBeLeftOut) {
    write_file(paths::copy_log(kJob), fetched("http://h/a/b/c", "\"c\" [1]") + fetched("http://h/a", "\"a\" [1]"));
    http_parse_log(run_, 0, 2);
    EXPECT_EQ(copy_log(), "c --> c\n");
}

TEST_F(HttpLog, AnEarlierErrorStays) {
    write_file(paths::copy_log(kJob), "No space left\n");
    run_.error_code = 6;
    run_.error_message = "wget returns 768 (300)";
    http_parse_log(run_, 768, 0);
    EXPECT_EQ(run_.error_code, 6);
    EXPECT_EQ(run_.error_message, "wget returns 768 (300)");
    EXPECT_EQ(error_log(), "No space left\n");
}

TEST_F(HttpLog, WithoutALogNothingIsRecordedAndTheErrorLogStays) {
    write_file(paths::error_log(kJob), "earlier\n");
    for (const int status : {0, 768}) {
        http_parse_log(run_, status, 0);
        EXPECT_EQ(run_.error_code, 0);
        EXPECT_EQ(error_log(), "earlier\n");
        EXPECT_TRUE(list_folder(paths::work_folder).empty());
    }
}

TEST_F(HttpLog, WithoutRoomForTheListTheLogStays) {
    write_file(paths::copy_log(kJob), "No space left\n");
    make_folder(parsed_path());
    http_parse_log(run_, 768, 0);
    EXPECT_EQ(run_.error_code, 0);
    EXPECT_EQ(copy_log(), "No space left\n");
    EXPECT_TRUE(has_error_log());
    http_parse_log(run_, 0, 0);
    EXPECT_FALSE(has_error_log());
    EXPECT_EQ(copy_log(), "No space left\n");
}

TEST_F(HttpLog, WithoutAnErrorLogTheLogStays) {
    write_file(paths::copy_log(kJob), "No space left\n");
    make_folder(paths::error_log(kJob));
    for (const int status : {0, 768}) {
        http_parse_log(run_, status, 0);
        EXPECT_EQ(run_.error_code, 0);
        EXPECT_EQ(copy_log(), "No space left\n");
        EXPECT_FALSE(file_exists(parsed_path()));
        EXPECT_TRUE(file_exists(paths::error_log(kJob)));
    }
}

TEST_F(HttpLog, AListThatCannotBeCompletedReplacesNothing) {
    if (mount("none", paths::work_folder, "tmpfs", 0, "size=64k") != 0) GTEST_SKIP() << "cannot mount";
    std::string log;
    while (log.size() < 40000)
        log += fetched("http://h/" + std::string(900, 'a'), "\"" + std::string(900, 'a') + "\" [1]");
    write_file(paths::copy_log(kJob), log);
    http_parse_log(run_, 768, 0);
    EXPECT_EQ(run_.error_code, 6);
    EXPECT_EQ(copy_log(), log);
    EXPECT_FALSE(file_exists(parsed_path()));
    umount(paths::work_folder);
}

} // namespace
} // namespace tsbackup::test
