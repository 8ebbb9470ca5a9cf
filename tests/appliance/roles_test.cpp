// The roles of the program as its command line picks them, and how a process is set up before it takes one.

#include "job_runs.h"

#include <chrono>
#include <filesystem>
#include <gmock/gmock.h>
#include <set>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace tsbackup::test {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::IsEmpty;

const std::string kProgram = "/opt/tsbackup/sbin/tsbackup";

class Roles : public testing::Test {
  protected:
    void SetUp() override {
        if (!in_appliance()) GTEST_SKIP() << "needs the demonstration appliance's own root";
        reset_appliance();
    }
};

std::string told(const Outcome &outcome) { return settled_diagnostics(outcome.err, -1); }

std::string usage_of(const std::string &program, const std::string &text) {
    return with_placeholders(text, {{program, "PROGRAM"}});
}

/// The names of status files, histories and kept logs of any job.
std::vector<std::string> reports() { return list_folder(kLogFolder); }

ProgramOptions noting_waits() {
    remove_tree("/tmp/waits");
    ProgramOptions options;
    options.preload = {kShortWaits};
    options.environment = {{"SHORT_WAITS_LOG", "/tmp/waits"}};
    return options;
}

// --- Usage ---

TEST_F(Roles, WrongCommandLinesGetTheUsageOnStandardOutputAndTheStatusOne) {
    const std::string missing = "tsbackup (error) Error: Missing jobid.\n";
    const std::string negative = "tsbackup (error) Error: Jobid must be non-negative number.\n";
    const struct {
        std::vector<std::string> arguments;
        std::string told;
    } cases[] = {
        {{}, ""},
        {{"-e"}, missing},
        {{"-k"}, missing},
        {{"-s"}, missing},
        {{"-m"}, missing},
        {{"-V"}, missing},
        {{"-x"}, missing},
        {{"-v5"}, missing},
        {{"-ek"}, missing},
        {{"-"}, missing},
        {{"-v"}, ""},
        {{"-e", "-v"}, ""},
        {{"-v", "7"}, missing},
        {{"-v", "-1"}, ""},
        {{"-v", "2"}, ""},
        {{"-v", "3"}, missing},
        {{"-v", "-e", "-k"}, ""},
        {{"-e", "-1"}, missing},
        {{"-e", " -1"}, negative},
        {{" -7"}, negative},
        {{"-v", "-1", " -7"}, ""},
        {{"4294967295"}, negative},
        {{"99999999999999999999"}, negative},
    };
    const RequestQueue queue;
    for (const auto &[arguments, expected] : cases) {
        const Outcome outcome = run_program(arguments);
        EXPECT_EQ(outcome.status, 1) << testing::PrintToString(arguments);
        EXPECT_TRUE(matches_golden("runs/usage.txt", usage_of(kProgram, outcome.out)))
            << testing::PrintToString(arguments);
        EXPECT_EQ(told(outcome), expected) << testing::PrintToString(arguments);
    }
    EXPECT_THAT(reports(), IsEmpty());
}

TEST_F(Roles, UsageNamesTheProgramAsItWasInvoked) {
    for (const std::string name : {"tsbackup", "/usr/sbin/backup tool", "-sh", "%s%n", ""}) {
        ProgramOptions options;
        options.program = "/bin/bash";
        const Outcome outcome = run_program({"-c", "exec -a \"$1\" \"$2\"", "bash", name, kProgram}, options);
        EXPECT_EQ(outcome.status, 1);
        std::string expected;
        for (const char *rest : {" [-v N] [-V] -e jobid .... run backup job. (jobid must be 1 or larger)\n",
                                 " [-v N] jobid         .... enqueue backup job. If jobid==0, then all button job will "
                                 "be queued.\n",
                                 " [-v N] -k jobid      .... dequeue and kill backup job. If jobid==0, then all buton "
                                 "job will be killed.\n"})
            expected += name + rest;
        EXPECT_TRUE(same_text(expected, outcome.out)) << name;
    }
}

TEST_F(Roles, ThroughALinkTheProgramStillFindsItsLibrary) {
    std::filesystem::create_symlink(kProgram, "/tmp/backup-now");
    ProgramOptions options;
    options.program = "/tmp/backup-now";
    const Outcome outcome = run_program({}, options);
    EXPECT_TRUE(matches_golden("runs/usage.txt", usage_of("/tmp/backup-now", outcome.out))) << outcome.err;
}

// --- The work folder ---

TEST_F(Roles, WorkFolderIsMadeAsSoonAsTheOptionsAreRead) {
    const struct {
        std::vector<std::string> arguments;
        bool made;
    } cases[] = {
        {{}, false}, {{"-e"}, false}, {{"-v"}, false}, {{"-e", " -1"}, true}, {{"-k", "0"}, true}, {{"0"}, true},
    };
    for (const auto &[arguments, made] : cases) {
        remove_tree(kWorkFolder);
        run_program(arguments);
        struct stat status {};
        EXPECT_EQ(stat(kWorkFolder, &status) == 0, made) << testing::PrintToString(arguments);
        if (made) {
            EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFDIR | 0755));
        }
    }
}

TEST_F(Roles, ExistingWorkFolderStaysAsItIs) {
    write_file(std::string(kWorkFolder) + "/kept", "text");
    chmod(kWorkFolder, 0700);
    EXPECT_EQ(run_program({"-k", "0"}).err.find("mkdir"), std::string::npos);
    struct stat status {};
    ASSERT_EQ(stat(kWorkFolder, &status), 0);
    EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFDIR | 0700));
    EXPECT_EQ(read_file(std::string(kWorkFolder) + "/kept"), "text");
}

TEST_F(Roles, WorkFolderThatCannotBeMadeIsToldAndTheRoleIsTakenAllTheSame) {
    const Missing apps("/apps");
    RequestQueue queue;
    const Outcome outcome = run_program({"1"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(told(outcome), "tsbackup (error) mkdir(/apps/.backup/) failed.\n");
    EXPECT_EQ(queue.received(), request_record("enqueue:1"));
}

// --- Enqueue ---

TEST_F(Roles, EnqueueSendsOneRecordAfterTwentyMillisecondsForEachUnitOfTheId) {
    const struct {
        std::vector<std::string> arguments;
        std::string request;
        std::string wait;
    } cases[] = {
        {{"7"}, "enqueue:7", "0.140000\n"},
        {{"0"}, "enqueue:0", "0.000000\n"},
        {{"abc"}, "enqueue:0", "0.000000\n"},
        {{""}, "enqueue:0", "0.000000\n"},
        {{"  9x"}, "enqueue:9", "0.180000\n"},
        {{"+3"}, "enqueue:3", "0.060000\n"},
        {{"4294967298"}, "enqueue:2", "0.040000\n"},
        {{"1234"}, "enqueue:1234", "24.680000\n"},
        {{"214748365"}, "enqueue:214748365", "0.004000\n"},
        {{"-v", "7", "4"}, "enqueue:4", "0.080000\n"},
        {{"-v", "-e", "4"}, "enqueue:4", "0.080000\n"},
        {{"-V", "4"}, "enqueue:4", "0.080000\n"},
        {{"-x", "-ek", "4"}, "enqueue:4", "0.080000\n"},
        {{"4", "-e", "-k"}, "enqueue:4", "0.080000\n"},
        {{"-v", "2", "4", "5"}, "enqueue:4", "0.080000\n"},
    };
    RequestQueue queue;
    for (const auto &[arguments, request, wait] : cases) {
        const Outcome outcome = run_program(arguments, noting_waits());
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(outcome.out + outcome.err, "") << testing::PrintToString(arguments);
        EXPECT_EQ(queue.received(), request_record(request)) << testing::PrintToString(arguments);
        // A wait of no time may be left out.
        const std::string waited = read_file("/tmp/waits");
        EXPECT_EQ(waited.empty() ? "0.000000\n" : waited, wait) << testing::PrintToString(arguments);
    }
    EXPECT_THAT(reports(), IsEmpty());
    EXPECT_FALSE(file_exists(pid_path(7)));
}

TEST_F(Roles, EnqueueWaitsForRealWithoutTheTestsPreload) {
    RequestQueue queue;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(run_program({"7"}).status, 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 140ms);
    EXPECT_EQ(queue.received(), request_record("enqueue:7"));
}

TEST_F(Roles, RequestsOfManyProcessesStayWhole) {
    RequestQueue queue;
    std::multiset<std::string> expected;
    {
        std::vector<std::unique_ptr<Program>> senders;
        for (int id = 0; id < 12; ++id) {
            senders.push_back(std::make_unique<Program>(std::vector<std::string>{std::to_string(id)}, noting_waits()));
            expected.insert(request_record("enqueue:" + std::to_string(id)));
        }
        for (const auto &sender : senders)
            EXPECT_EQ(sender->wait().status, 0);
    }
    const std::string bytes = queue.received();
    std::multiset<std::string> records;
    for (std::size_t at = 0; at < bytes.size(); at += request_record("").size())
        records.insert(bytes.substr(at, request_record("").size()));
    EXPECT_EQ(records, expected);
}

TEST_F(Roles, WithoutAQueueDaemonTheRequestIsLostWithOneLine) {
    const std::string pipe = "/var/run/zelkovad/tsbackup-q";
    const Outcome outcome = run_program({"5"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(told(outcome), "tsbackup (error) Cannot open " + pipe + ", because tsbackup-q is not running\n");
    EXPECT_EQ(run_program({"-v", "2", "5"}).err, "");

    unlink(pipe.c_str());
    EXPECT_EQ(told(run_program({"5"})), "tsbackup (error) Cannot open " + pipe + ". errno=2\n");
    EXPECT_FALSE(file_exists(pipe));
}

TEST_F(Roles, AFullPipeIsWaitedForASecondAtATime) {
    RequestQueue queue;
    shell_output("dd if=/dev/zero of=/var/run/zelkovad/tsbackup-q bs=128 oflag=nonblock,append conv=notrunc");
    Program sender({"1"}, noting_waits());
    ASSERT_TRUE(wait_until([] { return read_file("/tmp/waits").find("1.000000\n1.000000\n") != std::string::npos; }));
    EXPECT_TRUE(sender.running());
    const std::string before = queue.received();
    EXPECT_EQ(before.find("enqueue"), std::string::npos);
    EXPECT_EQ(sender.wait(10s).status, 0);
    const std::string after = queue.received();
    ASSERT_GE(after.size(), 128U);
    EXPECT_EQ(after.substr(after.size() - 128), request_record("enqueue:1"));
}

// --- Which role ---

TEST_F(Roles, TheFirstRoleOfTheHandOverWinsWhateverTheOrderOfTheOptions) {
    JobFile().job(3, {{"name", "three"}}).write();
    const std::string cancelled = "tsbackup (notice) perform kill job_id=3\n";
    for (const std::vector<std::string> &arguments :
         std::vector<std::vector<std::string>>{{"-k", "3"},
                                               {"-k", "-e", "3"},
                                               {"-e", "-k", "3"},
                                               {"-m", "-s", "-e", "-V", "-k", "-k", "3"},
                                               {"-k", "3", "-e"}}) {
        remove_tree(status_path(3));
        RequestQueue queue;
        const Outcome outcome = run_program(arguments);
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(outcome.out, "");
        EXPECT_EQ(told(outcome), cancelled) << testing::PrintToString(arguments);
        EXPECT_EQ(queue.received(), request_record("dequeue:3\n"));
        EXPECT_EQ(with_placeholders(read_file(status_path(3))), "BACKUP_STATUS__CANCELLED!!TIME!!notice\n");
    }
    for (const std::vector<std::string> &arguments :
         std::vector<std::vector<std::string>>{{"-e", "8"}, {"-s", "-m", "-e", "8"}, {"-V", "-e", "-e", "8", "-k"}}) {
        RequestQueue queue;
        const Outcome outcome = run_program(arguments);
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(told(outcome), "tsbackup (error) Job_id 8 is not found\n") << testing::PrintToString(arguments);
        EXPECT_EQ(queue.received(), "");
    }
}

TEST_F(Roles, CameraRolesNeitherEnqueueNorRunAJob) {
    JobFile().job(3, {{"name", "three"}}).write();
    const EventReceiver events;
    for (const std::vector<std::string> &arguments :
         std::vector<std::vector<std::string>>{{"-s", "3"}, {"-m", "3", "b", "c"}, {"-m", "-s", "3"}}) {
        RequestQueue queue;
        const Outcome outcome = run_program(arguments);
        EXPECT_EQ(outcome.status, 0) << testing::PrintToString(arguments);
        EXPECT_EQ(outcome.out, "");
        EXPECT_EQ(queue.received(), "");
        EXPECT_FALSE(file_exists(status_path(3)));
        EXPECT_FALSE(file_exists(pid_path(3)));
    }
}

TEST_F(Roles, CameraRolesDoNothingWhileImportIsDisabled) {
    for (const std::vector<std::string> &arguments :
         std::vector<std::vector<std::string>>{{"-s", "3"}, {"-m", "3"}, {"-m", "1", "001", "005", "Camera"}}) {
        std::vector<std::string> verbose = arguments;
        verbose.insert(verbose.begin() + 1, {"-v", "7"});
        EXPECT_EQ(told(run_program(arguments)), "");
        EXPECT_EQ(told(run_program(verbose)), "tsbackup_mtp (info) Automatically media backup is disabled.\n");
    }
    EXPECT_THAT(list_folder(kLogFolder), IsEmpty());
}

TEST_F(Roles, CameraRolesAreHandedOver) {
    write_file("/etc/default/services", "ANTIVIRUS=0\nMTPBACKUP=1\n");
    const std::string arrival = "tsbackup_mtp (error) NOT PTP/MTP device?\n";
    const std::string missing = "tsbackup_mtp (error) Invaild input for perform_mtpbackup\n";
    const struct {
        std::vector<std::string> arguments;
        std::string told;
    } cases[] = {
        {{"-s", "3"}, arrival},
        {{"-m", "-s", "3"}, arrival},
        {{"-s", "-m", "3", "b", "c"}, arrival},
        {{"-m", "3"}, missing},
        {{"-m", "1", "001", "005"}, missing},
        // The worker takes what stands in its places, options included.
        {{"-v", "4", "-m", "1"}, missing},
        {{"-v", "4", "-m", "1", "001", "005", "Camera"}, "tsbackup_mtp (error) Nothing matched?[].\n"},
        {{"-m", "1", "001", "005", "Camera", "more"}, "tsbackup_mtp (error) Nothing matched?[].\n"},
    };
    for (const auto &[arguments, expected] : cases) {
        const Outcome outcome = run_program(arguments);
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(outcome.out, "");
        EXPECT_EQ(told(outcome), expected) << testing::PrintToString(arguments);
    }
    EXPECT_THAT(told(run_program({"-v", "7", "-m", "1", "001"})),
                HasSubstr("tsbackup_mtp (debug) perform_mtpbackup: 7 -m 1 001\n"));
    EXPECT_THAT(told(run_program({"-m", "-v", "7", "1", "001"})),
                HasSubstr("tsbackup_mtp (debug) perform_mtpbackup: -v 7 1 001\n"));
}

TEST_F(Roles, VerbosityPicksTheMessages) {
    const struct {
        std::vector<std::string> options;
        std::string told;
    } cases[] = {
        {{}, "tsbackup (notice) perform kill job_id=4\n"},
        {{"-v", "7"}, "tsbackup (notice) perform kill job_id=4\ntsbackup (debug) Nothing to kill for job_id=4\n"},
        {{"-v", "6"}, "tsbackup (notice) perform kill job_id=4\n"},
        {{"-v", "4"}, ""},
        {{"-v", "-1"}, ""},
        {{"-v", "x"}, ""},
        {{"-v", "1", "-v", "5"}, "tsbackup (notice) perform kill job_id=4\n"},
    };
    for (const auto &[options, expected] : cases) {
        const RequestQueue queue;
        std::vector<std::string> arguments = options;
        arguments.insert(arguments.end(), {"-k", "4"});
        std::string text = told(run_program(arguments));
        // The trace of the status line is proved with the golden diagnostics of whole runs.
        const std::size_t trace = text.find("tsbackup_utils (debug) write(");
        EXPECT_EQ(text.substr(0, trace), expected) << testing::PrintToString(arguments);
    }
}

// --- The process ---

std::string process_file(pid_t pid, const std::string &name) {
    return read_file("/proc/" + std::to_string(pid) + "/" + name);
}

std::string mount_namespace(pid_t pid) {
    return std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/ns/mnt");
}

/// A process that has taken its role and now waits for a minute: one that asks for job 3000.
class WaitingClient : public Program {
  public:
    explicit WaitingClient(const std::vector<std::string> &options = {}) : Program(with_id(options)) {
        wait_until([this] { return process_file(pid(), "wchan").find("nanosleep") != std::string::npos; }, 10s);
    }

  private:
    static std::vector<std::string> with_id(std::vector<std::string> arguments) {
        arguments.emplace_back("3000");
        return arguments;
    }
};

TEST_F(Roles, ProcessLeadsAGroupOfItsOwnWithALimitedCore) {
    ProgramOptions options;
    options.program = "/bin/sh";
    // Started by a shell without job control it would stay in the shell's group.
    Program shell({"-c", "ulimit -c unlimited; " + kProgram + " 3000; :"}, options);
    pid_t client = 0;
    ASSERT_TRUE(wait_until([&] {
        for (const std::string &name : list_folder("/proc"))
            if (name.find_first_not_of("0123456789") == std::string::npos &&
                process_file(std::stoi(name), "cmdline").starts_with(kProgram + std::string(1, '\0')))
                client = std::stoi(name);
        return client != 0 && getpgid(client) == client;
    }));
    EXPECT_NE(getpgid(client), getpgid(shell.pid()));
    EXPECT_THAT(process_file(client, "limits"),
                HasSubstr("Max core file size        536870912            536870912            bytes"));
    kill(client, SIGKILL);
}

TEST_F(Roles, MountsArePrivateUnlessTheAntivirusHasToSeeThem) {
    REQUIRE_ROOT();
    shell_output("mount --make-rshared /");
    const struct {
        std::string services;
        bool is_private;
    } cases[] = {
        {"ANTIVIRUS=1\n", false}, {"OTHER=0\nANTIVIRUS=1\nANTIVIRUS=0\n", false},
        {"ANTIVIRUS=0\n", true},  {"ANTIVIRUS=\n", true},
        {"ANTIVIRUS=11\n", true}, {"ANTIVIRUS=1 \n", true},
        {"antivirus=1\n", true},  {"", true},
    };
    for (const auto &[services, is_private] : cases) {
        write_file("/etc/default/services", services);
        const WaitingClient client;
        EXPECT_EQ(mount_namespace(client.pid()) != mount_namespace(getpid()), is_private) << services;
        const bool shared = process_file(client.pid(), "mountinfo").find(" shared:") != std::string::npos;
        EXPECT_EQ(shared, !is_private) << services;
        EXPECT_EQ(process_file(client.pid(), "mountinfo").find(" master:"), std::string::npos);
    }
    {
        const Missing services("/etc/default/services");
        const WaitingClient client;
        EXPECT_NE(mount_namespace(client.pid()), mount_namespace(getpid()));
    }
    // What it mounts for itself is seen by nobody else, what others mount not by it.
    set_service("ANTIVIRUS", "0");
    const WaitingClient client;
    const std::string before = process_file(client.pid(), "mountinfo");
    const MountedFor mounted("-t tmpfs none", "/srv/later");
    EXPECT_EQ(process_file(client.pid(), "mountinfo"), before);
    shell_output("mount --make-rprivate /");
}

TEST_F(Roles, StandardStreamsThatAreClosedDoNotBecomeLogs) {
    JobFile()
        .job(7, Settings{{"name", "n"}, {"opt_full_backup_freq", "NEVER"}} + source_share("data", "Nowhere") +
                    destination_share("vault", "Nowhere"))
        .write();
    shell_output(kProgram + " -v 7 -e 7 <&- >&- 2>&-");
    EXPECT_EQ(last_result(7), 4);
    EXPECT_EQ(read_file(error_log_path(7)), "");
    EXPECT_EQ(read_file(kept_copy_log_path(7)), "");
}

} // namespace
} // namespace tsbackup::test
