// Files of the system with any content but the expected: the job file, the tables, the PID file, and folders where
// files should be. The program says at most a line or two, exits with 0 and goes on where it can.

#include "aftermath.h"
#include "appliance_support.h"
#include "job_runs.h"

#include <arpa/inet.h>
#include <array>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <random>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tsbackup::test {

namespace {

constexpr int kJob = 7;
constexpr char kJobFile[] = "/etc/tessera/backup_jobs.conf";
constexpr char kStorageTable[] = "/etc/tessera/usb/storage.conf";
constexpr char kServices[] = "/etc/default/services";
constexpr char kNotFound[] = "(error) Job_id 7 is not found\n";
constexpr std::size_t kMebibyte = 1024UL * 1024;

std::string random_bytes(std::size_t size) {
    std::mt19937_64 engine(size);
    std::string bytes(size, '\0');
    for (char &byte : bytes)
        byte = static_cast<char>(engine());
    return bytes;
}

class BrokenFiles : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_VOLUMES();
        reset_appliance();
        write_file("/data/Pictures/file", "content");
    }
    void TearDown() override {
        if (volumes()) reset_appliance();
    }
};

void write_good_job() {
    JobFile()
        .job(kJob, Settings{{"opt_full_backup_freq", "NEVER"}} + source_share("data", "Pictures") +
                       destination_usb("1", "copy"))
        .write();
}

void expect_good_run(const std::string &diagnostics = "") {
    const Outcome outcome = run_program({"-e", "7"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(plain_diagnostics(outcome.err), diagnostics);
    EXPECT_EQ(read_file("/media/USB/copy/file"), "content");
}

/// Job 7 cannot be found in what stands at the job file's path now.
void expect_not_found(const std::string &line_before = "") {
    for (const char *role : {"-e", "-k"}) {
        const Outcome outcome = run_program({role, "7"});
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(outcome.out, "");
        if (role[1] == 'e') {
            EXPECT_EQ(plain_diagnostics(outcome.err), line_before + kNotFound);
            EXPECT_FALSE(file_exists(status_path(kJob)));
        }
    }
    remove_tree(status_path(kJob));
}

} // namespace

// --- the job file
// -----------------------------------------------------------------------------------------------------

TEST_F(BrokenFiles, AJobFileCutAtAnyByteHoldsNoJob) {
    const std::string whole = "<r><j><job_id>7</job_id><name>n</name></j></r>";
    for (std::size_t size = 0; size < whole.size(); ++size) {
        SCOPED_TRACE(whole.substr(0, size));
        write_file(kJobFile, whole.substr(0, size));
        const Outcome outcome = run_program({"-e", "7"});
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(plain_diagnostics(outcome.err), kNotFound);
        EXPECT_FALSE(file_exists(status_path(kJob)));
    }
    write_file(kJobFile, whole);
    EXPECT_EQ(run_program({"-e", "7"}).status, 0);
    EXPECT_EQ(state_of(kJob), "FAILED");
}

TEST_F(BrokenFiles, AJobFileThatIsNoneHoldsNoJob) {
    const std::string bomb = [] {
        std::string text = "<!DOCTYPE r [<!ENTITY e0 \"0123456789\">";
        for (int level = 1; level < 12; ++level) {
            text += "<!ENTITY e" + std::to_string(level) + " \"";
            for (int times = 0; times < 10; ++times)
                text += "&e" + std::to_string(level - 1) + ";";
            text += "\">";
        }
        return text + "]><r><j><job_id>&e11;</job_id><name>&e11;</name></j></r>";
    }();
    struct Case {
        const char *name;
        std::string content;
    };
    const Case cases[] = {
        {"random bytes", random_bytes(100'000)},
        {"zeros", std::string(100'000, '\0')},
        {"text", "job_id=7\nname=x\n"},
        {"another encoding", "<?xml version=\"1.0\" encoding=\"UTF-16\"?><r><j><job_id>7</job_id></j></r>\xff\xfe"},
        {"invalid UTF-8", "<r><j><job_id>7</job_id><name>\xc3\x28</name></j></r>"},
        {"an invalid character", "<r><j><job_id>7</job_id><name>&#0;</name></j></r>"},
        {"crossed elements", "<r><j><job_id>7</j></job_id></r>"},
        {"two roots", "<r><j><job_id>7</job_id></j></r><r/>"},
        {"no jobs", "<r/>"},
        {"only comments", "<r><!-- <j><job_id>7</job_id></j> --></r>"},
        {"deep", std::string(30'000, '<') + std::string(30'000, 'x')},
        {"deeper than the parser goes",
         [] {
             std::string text;
             for (int level = 0; level < 100'000; ++level)
                 text += "<a>";
             return text;
         }()},
        {"an entity bomb", bomb},
    };
    for (const Case &a_case : cases) {
        SCOPED_TRACE(a_case.name);
        write_file(kJobFile, a_case.content);
        expect_not_found();
    }
}

TEST_F(BrokenFiles, AJobFileThatIsNoFileIsNeitherWaitedForNorRead) {
    remove_tree(kJobFile);
    expect_not_found();

    ASSERT_EQ(mkfifo(kJobFile, 0600), 0);
    expect_not_found("(error) /etc/tessera/backup_jobs.conf is no regular file and is not read.\n");
    remove_tree(kJobFile);

    make_folder(kJobFile);
    expect_not_found("(error) /etc/tessera/backup_jobs.conf is no regular file and is not read.\n");
    remove_tree(kJobFile);

    ASSERT_EQ(symlink("/dev/zero", kJobFile), 0);
    expect_not_found("(error) /etc/tessera/backup_jobs.conf is no regular file and is not read.\n");
    remove_tree(kJobFile);

    ASSERT_EQ(symlink(kJobFile, kJobFile), 0);
    expect_not_found();
    remove_tree(kJobFile);

    write_file(kJobFile, "<r>");
    ASSERT_EQ(truncate(kJobFile, off_t{100} * kMebibyte), 0);
    expect_not_found("(error) /etc/tessera/backup_jobs.conf is larger than 16 MiB and is not read.\n");
}

TEST_F(BrokenFiles, AJobFileThatMayNotBeReadHoldsNoJob) {
    write_good_job();
    ASSERT_EQ(chmod(kJobFile, 0), 0);
    // Root reads any file but for these two capabilities.
    ProgramOptions restricted;
    restricted.program = "setpriv";
    const Outcome outcome =
        Program({"--bounding-set=-dac_override,-dac_read_search", "/opt/tsbackup/sbin/tsbackup", "-e", "7"}, restricted)
            .wait();
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(plain_diagnostics(outcome.err), kNotFound);
    EXPECT_FALSE(file_exists(status_path(kJob)));
}

TEST_F(BrokenFiles, AnEntityBombBesideAJobCostsNothing) {
    std::string text = "<!DOCTYPE r [<!ENTITY a \"" + std::string(50'000, 'a') + "\">]><r><j><job_id>7</job_id><name>";
    for (int times = 0; times < 50'000; ++times)
        text += "&a;";
    write_file(kJobFile, text + "</name></j></r>");
    ProgramOptions limited;
    limited.program = "/opt/tsbackup/sbin/tsbackup";
#ifndef __SANITIZE_ADDRESS__ // which needs an address space without end
    limited.program = "prlimit";
#endif
    std::vector<std::string> arguments{"-e", "7"};
    if (limited.program == "prlimit")
        arguments = {"--as=" + std::to_string(512 * kMebibyte), "/opt/tsbackup/sbin/tsbackup", "-e", "7"};
    EXPECT_EQ(Program(arguments, limited).wait().status, 0);
}

TEST_F(BrokenFiles, ExternalEntitiesAreNeverFetched) {
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    ASSERT_EQ(listen(listener, 8), 0);
    socklen_t length = sizeof address;
    ASSERT_EQ(getsockname(listener, reinterpret_cast<sockaddr *>(&address), &length), 0);
    const std::string server = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/e";

    write_file("/tmp/secret", "<!ENTITY x \"secret\">");
    const int watch = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    ASSERT_GE(inotify_add_watch(watch, "/tmp/secret", IN_OPEN | IN_ACCESS), 0);

    const std::string job = "<job_id>7</job_id><src_type>share</src_type>";
    const std::string ftp = "ftp://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/e";
    for (const std::string &where : {std::string("file:///tmp/secret"), std::string("/tmp/secret"), server, ftp}) {
        for (std::string text :
             {"<!DOCTYPE r [<!ENTITY x SYSTEM 'WHERE'>]><r><j>JOB<name>&x;</name></j></r>",
              "<!DOCTYPE r SYSTEM 'WHERE'><r><j>JOB<name>n</name></j></r>",
              "<!DOCTYPE r [<!ENTITY % x SYSTEM 'WHERE'>%x;]><r><j>JOB<name>n</name></j></r>",
              "<r xmlns:i='http://www.w3.org/2001/XInclude'><i:include href='WHERE'/><j>JOB</j></r>"}) {
            text.replace(text.find("WHERE"), 5, where);
            text.replace(text.find("JOB"), 3, job);
            SCOPED_TRACE(text);
            write_file(kJobFile, text);
            EXPECT_EQ(run_program({"-e", "7"}).status, 0);
            EXPECT_EQ(read_file(history_path(kJob)).find("secret"), std::string::npos);
        }
    }
    std::array<char, 4096> event{};
    EXPECT_LT(read(watch, event.data(), event.size()), 0) << "the file was opened";
    pollfd connection{listener, POLLIN, 0};
    EXPECT_EQ(poll(&connection, 1, 0), 0) << "the server was asked";
    close(watch);
    close(listener);
}

// --- the tables
// -------------------------------------------------------------------------------------------------------

TEST_F(BrokenFiles, AStorageTableWithoutTheDiskIsReportedWhateverItHolds) {
    write_good_job();
    const std::string good = storage_line("USB", "sdq1", "1");
    struct Case {
        const char *name;
        std::string content;
        bool found;
    };
    const Case cases[] = {
        {"empty", "", false},
        {"random bytes", random_bytes(1'000'000), false},
        {"zeros", std::string(5000, '\0'), false},
        {"one endless line", std::string(10 * kMebibyte, 'x'), false},
        {"separators alone", std::string(100'000, '!'), false},
        {"a field too few", "usb!!USB!!Disk!!ext4!!1!!sdq1!!0!!rw!!1\n", false},
        {"a field too many", "usb!!USB!!Disk!!ext4!!1!!sdq1!!0!!rw!!1!!ok!!more\n", false},
        {"another port", storage_line("USB", "sdq1", "11"), false},
        {"the disk behind rubbish", random_bytes(5000) + "\n!!!!!!\n\n" + std::string(5000, 'y') + "\n" + good, true},
        {"no line end", good.substr(0, good.size() - 1), true},
        {"blanks at the end", good.substr(0, good.size() - 1) + " \t\r\n", true},
    };
    for (const Case &a_case : cases) {
        SCOPED_TRACE(a_case.name);
        remove_tree("/media/USB/copy");
        write_file(kStorageTable, a_case.content);
        if (a_case.found) {
            expect_good_run();
            continue;
        }
        const Outcome outcome = run_program({"-e", "7"});
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(outcome.err, "");
        EXPECT_EQ(state_of(kJob), "FAILED");
        EXPECT_EQ(last_result(kJob), 4);
        EXPECT_EQ(read_file(error_log_path(kJob)), "No USB storage was found at usb_port_1!\n");
    }
    for (const bool folder : {false, true}) {
        remove_tree(kStorageTable);
        if (folder) make_folder(kStorageTable);
        EXPECT_EQ(run_program({"-e", "7"}).status, 0);
        EXPECT_EQ(last_result(kJob), 4);
    }
    remove_tree(kStorageTable);
}

TEST_F(BrokenFiles, AServicesFileOfAnyContentStopsNoJob) {
    write_good_job();
    for (const std::string &content :
         {std::string(), random_bytes(100'000), std::string(kMebibyte, 'A'), std::string("ANTIVIRUS"),
          std::string("ANTIVIRUS=\n=\n==\n"), "ANTIVIRUS=" + std::string(100'000, '1'), std::string(5000, '\0')}) {
        SCOPED_TRACE(content.substr(0, 40));
        remove_tree("/media/USB/copy");
        write_file(kServices, content);
        expect_good_run();
    }
    remove_tree(kServices);
    expect_good_run();
    make_folder(kServices);
    expect_good_run();
    remove_tree(kServices);
}

// --- what the program writes
// ------------------------------------------------------------------------------------------

TEST_F(BrokenFiles, APidFileWithoutALiveProcessIsTakenOver) {
    write_good_job();
    for (const std::string &content :
         {std::string(), std::string("abc"), std::string("-5"), std::string("0"), std::string("99999999999999999999"),
          std::string("2147483647"), std::string("-1"), random_bytes(5000), std::string(300, '7'),
          std::string(4, '\0')}) {
        SCOPED_TRACE(content.substr(0, 40));
        remove_tree("/media/USB/copy");
        write_file(pid_path(kJob), content, 0600);
        const Outcome canceller = run_program(
            {"-k", "7"}, {.environment = {}, .preload = {kShortWaits}, .program = "/opt/tsbackup/sbin/tsbackup"});
        EXPECT_EQ(canceller.status, 0);
        EXPECT_EQ(canceller.err.find("killpg("), std::string::npos) << canceller.err;
        Program worker({"-e", "7"});
        const std::string pid = std::to_string(worker.pid());
        EXPECT_EQ(worker.wait().err, "");
        EXPECT_EQ(state_of(kJob), "COMPLETED");
        EXPECT_EQ(read_file("/media/USB/copy/file"), "content");
        EXPECT_EQ(read_file(pid_path(kJob)), pid);
    }
}

TEST_F(BrokenFiles, APidFileThatCannotBeTakenStopsTheRun) {
    write_good_job();
    const std::string refused = "(error) Cannot write pidfile for job_id=7. May be already running.\n";
    const auto expect_refused = [&refused] {
        const Outcome outcome = run_program({"-e", "7"});
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(plain_diagnostics(outcome.err), refused);
        EXPECT_FALSE(file_exists(status_path(kJob)));
    };
    write_file(pid_path(kJob), std::to_string(getpid()), 0600);
    expect_refused();
    write_file(pid_path(kJob), "1", 0600);
    expect_refused();
    remove_tree(pid_path(kJob));
    make_folder(pid_path(kJob));
    expect_refused();
}

TEST_F(BrokenFiles, AFolderInAFilesPlaceCostsThatFileAlone) {
    write_good_job();
    for (const std::string &path : {status_path(kJob), history_path(kJob), history_path(kJob) + ".4",
                                    std::string("/var/log/tessera/backup/.last_full_backup_007")}) {
        SCOPED_TRACE(path);
        remove_tree("/media/USB/copy");
        remove_tree(path);
        make_folder(path + "/inside");
        expect_good_run();
        EXPECT_TRUE(file_exists(path + "/inside"));
        remove_tree(path);
    }
    struct Case {
        std::string path;
        const char *kind;
    };
    for (const Case &a_case :
         {Case{error_log_path(kJob), "error"}, Case{"/apps/.backup/backup_007_copy.log", "copy"}}) {
        SCOPED_TRACE(a_case.path);
        remove_tree("/media/USB/copy");
        remove_tree(status_path(kJob));
        remove_tree(a_case.path);
        make_folder(a_case.path);
        const Outcome outcome = run_program({"-e", "7"});
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(plain_diagnostics(outcome.err),
                  std::string("(error) Failed to create ") + a_case.kind + " log file " + a_case.path + "!\n");
        EXPECT_FALSE(file_exists(status_path(kJob)));
        EXPECT_FALSE(file_exists("/media/USB/copy"));
        remove_tree(a_case.path);
    }
    expect_good_run();
}

TEST_F(BrokenFiles, ALastFullRecordOfAnyContentStopsNoJob) {
    JobFile()
        .job(kJob, Settings{{"opt_full_backup_freq", "EVERY_WEEK"}} + source_share("data", "Pictures") +
                       destination_usb("1", "copy"))
        .write();
    for (const std::string &content : {std::string(), std::string("abc"), std::string("99999999999999999999999"),
                                       std::string("-99999999999999999999999"), random_bytes(10'000)}) {
        SCOPED_TRACE(content.substr(0, 40));
        remove_tree("/media/USB/copy");
        write_file("/var/log/tessera/backup/.last_full_backup_007", content);
        expect_good_run();
        EXPECT_EQ(state_of(kJob), "COMPLETED");
    }
}

} // namespace tsbackup::test
