// The queue daemon: which jobs it runs, how often and in which order, whatever happens to it or to them.

#include "aftermath.h"
#include "job_runs.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <sstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace tsbackup::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

const std::string kDaemon = "/opt/tsbackup/sbin/tsbackup-q";
const std::string kPipe = "/var/run/zelkovad/tsbackup-q";
const std::string kCameraPipe = "/var/run/zelkovad/mtpbackup-q";
const std::string kState = "/var/lib/tsbackup/queue";
const std::string kCameraState = "/run/tsbackup/camera-queue";
const std::string kNotify = "/run/test-notify";
const std::string kWorker = "/run/test-worker"; ///< stands in for the program
const std::string kWorked = "/run/test-worked"; ///< a line for each of its starts
const std::string kHold = "/run/test-hold.";    ///< with a job's number: while the file is there, its worker goes on

/// Claims its job as the program does, notes it, goes on while it is held, and ends.
const std::string kWorkerScript = R"(#!/bin/sh
[ "$1" != -e ] || printf %d $$ >/var/run/zelkovad/backup_$(printf %03d "$2").pid
echo "$*" >>/run/test-worked
while [ -e "/run/test-hold.$2" ]; do sleep 0.02; done
[ ! -e "/run/test-crash.$2" ] || kill -SEGV $$
)";

/// The service manager's end of a daemon's notifications: takes them in as they come, since a daemon waits when nobody
/// does.
class Notifications {
  public:
    Notifications() : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        unlink(kNotify.c_str());
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, kNotify.c_str());
        if (bind(socket_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
            throw std::runtime_error("cannot bind the notification socket");
        reader_ = std::thread([this] { read_all(); });
    }
    ~Notifications() {
        shutdown(socket_, SHUT_RDWR);
        reader_.join();
        close(socket_);
    }
    Notifications(const Notifications &) = delete;
    Notifications &operator=(const Notifications &) = delete;

    void forget() {
        const std::lock_guard lock(mutex_);
        texts_.clear();
    }
    /// Waits until one begins with this text that no earlier call has found.
    bool received(const std::string &start) {
        return wait_until([&] {
            const std::lock_guard lock(mutex_);
            const auto found = std::find_if(texts_.begin(), texts_.end(),
                                            [&](const std::string &text) { return text.starts_with(start); });
            if (found == texts_.end()) return false;
            texts_.erase(texts_.begin(), found + 1);
            return true;
        });
    }

  private:
    void read_all() {
        char text[1024];
        for (ssize_t got = 0; (got = recv(socket_, text, sizeof text, 0)) > 0;) {
            const std::lock_guard lock(mutex_);
            texts_.emplace_back(text, static_cast<std::size_t>(got));
        }
    }

    int socket_;
    std::mutex mutex_;
    std::vector<std::string> texts_;
    std::thread reader_;
};

class Queue : public testing::Test {
  protected:
    void SetUp() override {
        if (!in_appliance()) GTEST_SKIP() << "needs the demonstration appliance's own root";
        if (!file_exists(kDaemon)) GTEST_SKIP() << "the companions are not installed";
        reset_appliance();
        clear();
        write_file(kWorker, kWorkerScript, 0755);
        // Held open as the service manager does: what is asked while no daemon runs waits in the pipe.
        pipe_ = open(kPipe.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        ASSERT_GE(pipe_, 0);
        notifications_ = std::make_unique<Notifications>();
    }
    void TearDown() override {
        if (pipe_ >= 0) close(pipe_);
        for (const int job : held_)
            release(job);
        daemon_.reset();
        if (in_appliance()) clear();
    }
    static void clear() { shell_output("rm -rf /run/test-* /var/lib/tsbackup /run/tsbackup"); }

    static ProgramOptions options(const std::string &program = kDaemon) {
        ProgramOptions result;
        result.program = program;
        result.environment = {{"NOTIFY_SOCKET", kNotify}};
        return result;
    }

    /// Starts the daemon and waits until it is ready.
    Program &start(const std::vector<std::string> &arguments = {"--worker", kWorker}) {
        notifications_->forget(); // what an earlier daemon said
        daemon_ = std::make_unique<Program>(arguments, options());
        EXPECT_TRUE(notifications_->received("READY=1"));
        return *daemon_;
    }
    void kill_daemon() {
        daemon_->signal(SIGKILL);
        daemon_->wait();
    }
    Outcome stop() {
        daemon_->signal(SIGTERM);
        return daemon_->wait(20s);
    }

    static void send(const std::string &bytes, const std::string &path = kPipe) {
        const int pipe = open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
        EXPECT_EQ(write(pipe, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size())) << path;
        close(pipe);
    }
    static void enqueue(int job) { send(request_record("enqueue:" + std::to_string(job))); }
    static void dequeue(int job) { send(request_record("dequeue:" + std::to_string(job) + "\n")); }

    void hold(int job) {
        held_.insert(job);
        write_file(kHold + std::to_string(job), "");
    }
    static void release(int job) { unlink((kHold + std::to_string(job)).c_str()); }

    static std::vector<std::string> worked() {
        std::istringstream lines(read_file(kWorked));
        std::vector<std::string> result;
        for (std::string line; std::getline(lines, line);)
            result.push_back(line);
        return result;
    }
    static bool worked_on(int count) {
        return wait_until([&] { return worked().size() >= static_cast<std::size_t>(count); }, 120s);
    }
    static std::string work(int job) { return "-e " + std::to_string(job); }
    static std::string status(int job) { return with_placeholders(read_file(status_path(job))); }
    static bool waits(int job) {
        return wait_until([&] { return status(job) == "BACKUP_STATUS__IN_QUEUE!!TIME!!OK\n"; });
    }
    /// The state file's lines of what waits.
    static std::string waiting() { return shell_output("sed -n 's/^waiting //p' " + kState); }
    static bool is_idle() {
        return wait_until([] { return read_file(kState).empty(); }, 120s);
    }

    int pipe_ = -1;
    std::set<int> held_;
    std::unique_ptr<Notifications> notifications_;
    std::unique_ptr<Program> daemon_;
};

// --- Order ---

TEST_F(Queue, RunsJobsOneAtATimeInTheOrderAsked) {
    start();
    hold(5);
    enqueue(5);
    ASSERT_TRUE(worked_on(1));
    for (const int job : {9, 3, 7, 3, 9})
        enqueue(job);
    for (const int job : {9, 3, 7})
        EXPECT_TRUE(waits(job)) << job;
    EXPECT_EQ(waiting(), "9\n3\n7\n");
    EXPECT_THAT(worked(), ElementsAre(work(5)));
    release(5);
    EXPECT_TRUE(worked_on(4));
    EXPECT_TRUE(is_idle());
    EXPECT_THAT(worked(), ElementsAre(work(5), work(9), work(3), work(7)));
    const Outcome outcome = stop();
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, "");
    EXPECT_THAT(outcome.err, HasSubstr("tsbackup-q: job 9 runs (process "));
    EXPECT_THAT(outcome.err, HasSubstr("tsbackup-q: job 7 ended with status 0\n"));
}

TEST_F(Queue, AJobThatIsAskedForWhileItRunsRunsOnceMore) {
    start();
    hold(5);
    enqueue(5);
    ASSERT_TRUE(worked_on(1));
    write_file(status_path(5), "BACKUP_STATUS__IN_PROGRESS,1!!5!!OK\n");
    hold(6);
    enqueue(5);
    enqueue(5);
    enqueue(6);
    ASSERT_TRUE(waits(6));
    // While it runs it shows that.
    EXPECT_EQ(read_file(status_path(5)), "BACKUP_STATUS__IN_PROGRESS,1!!5!!OK\n");
    release(5);
    release(6);
    EXPECT_TRUE(worked_on(3));
    EXPECT_TRUE(is_idle());
    EXPECT_THAT(worked(), ElementsAre(work(5), work(5), work(6)));
}

TEST_F(Queue, AJobThatIsTakenOutIsNotRun) {
    start();
    hold(5);
    enqueue(5);
    for (const int job : {6, 7, 8})
        enqueue(job);
    ASSERT_TRUE(waits(8));
    dequeue(7);
    dequeue(99);
    ASSERT_TRUE(wait_until([] { return waiting() == "6\n8\n"; }));
    EXPECT_TRUE(wait_until([] { return status(7) == "BACKUP_STATUS__CANCELLED!!TIME!!notice\n"; }));
    EXPECT_FALSE(file_exists(status_path(99)));
    release(5);
    EXPECT_TRUE(worked_on(3));
    EXPECT_TRUE(is_idle());
    EXPECT_THAT(worked(), ElementsAre(work(5), work(6), work(8)));
}

TEST_F(Queue, TheButtonRunsItsJobsAndThenTheSummary) {
    JobFile().button_jobs({4, 2, 4, 0, 6}).write();
    start();
    hold(2);
    enqueue(2);
    ASSERT_TRUE(worked_on(1));
    enqueue(6);
    enqueue(0);
    ASSERT_TRUE(wait_until([] { return waiting() == "6\n4\n2\n0\n"; }));
    EXPECT_FALSE(file_exists(status_path(0)));
    // Pressed once more with one more job behind: the summary is the last again.
    enqueue(8);
    enqueue(0);
    ASSERT_TRUE(wait_until([] { return waiting() == "6\n4\n2\n8\n0\n"; }));
    release(2);
    EXPECT_TRUE(worked_on(6));
    EXPECT_TRUE(is_idle());
    EXPECT_THAT(worked(), ElementsAre(work(2), work(6), work(4), work(2), work(8), work(0)));
}

TEST_F(Queue, TheButtonWithoutJobsRunsTheSummaryAlone) {
    start();
    enqueue(0);
    EXPECT_TRUE(worked_on(1));
    EXPECT_TRUE(is_idle());
    EXPECT_THAT(worked(), ElementsAre(work(0)));
    EXPECT_FALSE(file_exists(status_path(0)));
}

// --- With the real program ---

TEST_F(Queue, TheRealClientAndWorkerWorkTogether) {
    REQUIRE_VOLUMES();
    const auto copy = [](const std::string &folder) {
        return Settings{{"name", folder}, {"opt_full_backup_freq", "NEVER"}} + source_share("data", "Pictures") +
               destination_share("vault", "Backup", folder);
    };
    write_file("/data/Pictures/a", "text");
    JobFile().job(1, copy("one")).job(2, copy("two")).job(3, {{"name", "bad"}}).button_jobs({1, 2, 3}).write();
    EventReceiver events;
    start({}); // the worker is the program beside the daemon
    EXPECT_EQ(run_program({"0"}).status, 0);
    EXPECT_TRUE(wait_until([] { return status(0).starts_with("BACKUP_STATUS__FAILED"); }));
    EXPECT_THAT(events.received(), ElementsAre(result_event(1, "one", 0), result_event(2, "two", 0),
                                               result_event(3, "bad", 4), result_event(0, "button", 1, 0, 1)));
    EXPECT_EQ(read_file("/vault/Backup/one/a") + read_file("/vault/Backup/two/a"), "texttext");
    // A job that is not in the file must not seem to wait for ever.
    EXPECT_EQ(run_program({"9"}).status, 0);
    EXPECT_TRUE(wait_until([] { return status(9) == "BACKUP_STATUS__FAILED!!TIME!!warn\n"; }));
    EXPECT_EQ(stop().status, 0);
}

TEST_F(Queue, TheRealCancellerTakesAWaitingJobOut) {
    start();
    hold(5);
    enqueue(5);
    ASSERT_TRUE(worked_on(1));
    enqueue(6);
    ASSERT_TRUE(waits(6));
    EXPECT_EQ(run_program({"-k", "6"}).status, 0);
    ASSERT_TRUE(wait_until([] { return waiting().empty(); }));
    EXPECT_EQ(status(6), "BACKUP_STATUS__CANCELLED!!TIME!!notice\n");
    release(5);
    EXPECT_TRUE(is_idle());
    EXPECT_THAT(worked(), ElementsAre(work(5)));
}

TEST_F(Queue, TheRealCancellerStopsARunningJobAndTheNextOneRuns) {
    write_file(kWorker, "#!/bin/sh\ntrap 'exit 0' HUP\n" + kWorkerScript.substr(kWorkerScript.find('\n') + 1), 0755);
    start();
    hold(5);
    enqueue(5);
    ASSERT_TRUE(worked_on(1));
    enqueue(6);
    ASSERT_TRUE(waits(6));
    ProgramOptions short_waits;
    short_waits.preload = {kShortWaits};
    EXPECT_EQ(run_program({"-k", "5"}, short_waits).status, 0);
    EXPECT_EQ(status(5), "BACKUP_STATUS__CANCELLED!!TIME!!notice\n");
    EXPECT_TRUE(worked_on(2));
    EXPECT_TRUE(is_idle());
    EXPECT_THAT(worked(), ElementsAre(work(5), work(6)));
}

TEST_F(Queue, ACancelThatComesBeforeTheClaimIsNotLost) {
    // This worker takes its time before it claims its job, as the real one does with many old snapshots.
    write_file(kWorker, "#!/bin/sh\necho \"$*\" >>" + kWorked + "\nexec sleep 600\n", 0755);
    start();
    enqueue(5);
    ASSERT_TRUE(worked_on(1));
    const Outcome outcome = run_program({"-v", "7", "-k", "5"});
    EXPECT_THAT(outcome.err, HasSubstr("Nothing to kill for job_id=5\n"));
    EXPECT_TRUE(is_idle());
    EXPECT_EQ(status(5), "BACKUP_STATUS__CANCELLED!!TIME!!notice\n");
}

// --- Requests by the thousand, and bad ones ---

TEST_F(Queue, AThousandConcurrentRequestsLoseAndDoubleNothing) {
    constexpr int kClients = 20;
    constexpr int kEach = 50;
    start();
    hold(1);
    enqueue(1);
    ASSERT_TRUE(worked_on(1));
    // Each client asks for fifty jobs, and takes every third of them back.
    std::vector<pid_t> clients;
    for (int client = 0; client < kClients; ++client) {
        const pid_t pid = fork();
        if (pid == 0) {
            const int pipe = open(kPipe.c_str(), O_WRONLY | O_APPEND);
            for (int number = 0; number < kEach; ++number) {
                const int job = 1000 + client * kEach + number;
                std::string request = request_record("enqueue:" + std::to_string(job));
                if (number % 3 == 0) request += request_record("dequeue:" + std::to_string(job) + "\n");
                for (std::size_t at = 0; at < request.size(); at += 128)
                    if (write(pipe, request.data() + at, 128) != 128) _exit(1);
            }
            _exit(0);
        }
        clients.push_back(pid);
    }
    for (const pid_t pid : clients) {
        int result = -1;
        waitpid(pid, &result, 0);
        EXPECT_EQ(result, 0);
    }
    std::multiset<std::string> expected{work(1)};
    for (int job = 0; job < kClients * kEach; ++job)
        if (job % kEach % 3 != 0) expected.insert(work(1000 + job));
    ASSERT_TRUE(wait_until([&] {
        const std::string text = waiting();
        return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) == expected.size() - 1;
    }));
    release(1);
    EXPECT_TRUE(is_idle());
    const std::vector<std::string> done = worked();
    EXPECT_EQ(std::multiset<std::string>(done.begin(), done.end()), expected);
}

TEST_F(Queue, RealClientsByTheDozenLoseAndDoubleNothing) {
    start();
    ProgramOptions short_waits;
    short_waits.preload = {kShortWaits};
    std::multiset<std::string> expected;
    {
        std::vector<std::unique_ptr<Program>> clients;
        for (int job = 1; job <= 30; ++job) {
            clients.push_back(std::make_unique<Program>(std::vector<std::string>{std::to_string(job)}, short_waits));
            expected.insert(work(job));
        }
        for (const auto &client : clients)
            EXPECT_EQ(client->wait().err, "");
    }
    EXPECT_TRUE(worked_on(30));
    EXPECT_TRUE(is_idle());
    const std::vector<std::string> done = worked();
    EXPECT_EQ(std::multiset<std::string>(done.begin(), done.end()), expected);
}

TEST_F(Queue, BadRequestsAreToldAndHurtNoOther) {
    start();
    send("hello\n");
    enqueue(1);
    send(request_record("enqueue:x"));
    send(request_record("enqueue:-1"));
    send(request_record("explode:1"));
    enqueue(2);
    send("enqueue:3"); // by hand, without the zero bytes
    enqueue(4);
    send(std::string(3000, '\0'));
    send(std::string(1000, 'x'));
    send(request_record("enqueue:5 and more"));
    enqueue(6);
    EXPECT_TRUE(worked_on(4));
    EXPECT_TRUE(is_idle());
    EXPECT_THAT(worked(), ElementsAre(work(1), work(2), work(4), work(6)));
    const Outcome outcome = stop();
    EXPECT_EQ(outcome.status, 0);
    for (const char *told :
         {"dropped 6 bytes that are no request: \"hello \"", "makes no sense: \"enqueue:x\"",
          "makes no sense: \"enqueue:-1\"", "\"explode:1\"", "\"enqueue:3\"", "makes no sense: \"enqueue:5 and more\""})
        EXPECT_THAT(outcome.err, HasSubstr(told));
}

// --- Workers that fail ---

TEST_F(Queue, AWorkerThatCrashesFailsItsJobAlone) {
    start();
    write_file("/run/test-crash.5", "");
    hold(5);
    enqueue(5);
    ASSERT_TRUE(worked_on(1));
    write_file(status_path(5), "BACKUP_STATUS__IN_PROGRESS,1!!5!!OK\n");
    enqueue(6);
    release(5);
    EXPECT_TRUE(worked_on(2));
    EXPECT_TRUE(is_idle());
    EXPECT_EQ(status(5), "BACKUP_STATUS__FAILED!!TIME!!warn\n");
    EXPECT_THAT(stop().err, HasSubstr("tsbackup-q: job 5 was ended by signal 11\n"));
}

TEST_F(Queue, WithoutAWorkerTheQueueWaitsForOne) {
    unlink(kWorker.c_str());
    start();
    enqueue(5);
    ASSERT_TRUE(waits(5));
    usleep(200'000);
    EXPECT_EQ(waiting(), "5\n");
    write_file(kWorker, kWorkerScript, 0755);
    EXPECT_TRUE(worked_on(1));
    EXPECT_TRUE(is_idle());
    const std::string told = stop().err;
    EXPECT_EQ(count_of(told, "cannot start " + kWorker + ": No such file or directory"), 1U) << told;
}

// --- Restarts ---

TEST_F(Queue, AKilledDaemonForgetsNoWaitingJobAndDoublesNone) {
    start();
    hold(1);
    enqueue(1);
    ASSERT_TRUE(worked_on(1));
    for (int job = 2; job <= 60; ++job)
        enqueue(job);
    ASSERT_TRUE(waits(60));
    kill_daemon();
    enqueue(61); // waits in the pipe
    start();
    ASSERT_TRUE(waits(61));
    // The worker of the killed daemon still runs: nothing is started beside it.
    EXPECT_THAT(worked(), ElementsAre(work(1)));
    release(1);
    EXPECT_TRUE(worked_on(61));
    EXPECT_TRUE(is_idle());
    std::vector<std::string> expected;
    for (int job = 1; job <= 61; ++job)
        expected.push_back(work(job));
    EXPECT_EQ(worked(), expected);
    EXPECT_THAT(stop().err, HasSubstr("tsbackup-q: job 1 still runs (process "));
}

TEST_F(Queue, KilledAgainAndAgainItLosesAndDoublesNothing) {
    constexpr int kJobs = 300;
    constexpr int kKills = 40;
    constexpr unsigned kSeed = 7;
    std::thread client([] {
        for (int job = 1; job <= kJobs; ++job) {
            enqueue(job);
            usleep(3000);
        }
    });
    std::mt19937 random(kSeed);
    for (int kills = 0; kills < kKills; ++kills) {
        daemon_ = std::make_unique<Program>(std::vector<std::string>{"--worker", kWorker}, options());
        usleep(static_cast<useconds_t>(5000 + random() % 40000));
        kill_daemon();
    }
    client.join();
    start();
    EXPECT_TRUE(worked_on(kJobs));
    EXPECT_TRUE(is_idle());
    std::map<std::string, int> times;
    for (const std::string &line : worked())
        ++times[line];
    for (int job = 1; job <= kJobs; ++job)
        EXPECT_EQ(times[work(job)], 1) << job;
}

TEST_F(Queue, AskedToEndItLeavesTheWorkerAtWorkAndTheNextDaemonWaitsForIt) {
    start();
    hold(5);
    enqueue(5);
    ASSERT_TRUE(worked_on(1));
    enqueue(6);
    ASSERT_TRUE(waits(6));
    const Outcome first = stop();
    EXPECT_EQ(first.status, 0);
    EXPECT_THAT(first.err, HasSubstr("tsbackup-q: job 5 goes on by itself\n"));
    EXPECT_TRUE(notifications_->received("STOPPING=1"));
    start();
    usleep(100'000);
    EXPECT_THAT(worked(), ElementsAre(work(5)));
    release(5);
    EXPECT_TRUE(worked_on(2));
    EXPECT_TRUE(is_idle());
}

TEST_F(Queue, AJobThatLostItsWorkerMeanwhileHasFailedUnlessItNeverBegan) {
    start();
    hold(5);
    enqueue(5);
    ASSERT_TRUE(worked_on(1));
    write_file(status_path(5), "BACKUP_STATUS__IN_PROGRESS,1!!5!!OK\n");
    enqueue(6);
    ASSERT_TRUE(waits(6));
    const auto kill_both = [&] {
        const std::string worker = shell_output("sed -n 's/^running [^ ]* \\([0-9]*\\) .*/\\1/p' " + kState);
        kill_daemon();
        kill(std::stoi(worker), SIGKILL);
        wait_until([&] { return kill(std::stoi(worker), 0) != 0 || group_members(std::stoi(worker)).empty(); });
    };
    hold(6);
    kill_both();
    start();
    EXPECT_TRUE(worked_on(2));
    EXPECT_EQ(status(5), "BACKUP_STATUS__FAILED!!TIME!!warn\n");
    // The worker of job 6 is killed, too, but has not claimed its job as it seems.
    write_file(pid_path(6), "1");
    kill_both();
    start();
    EXPECT_TRUE(worked_on(3));
    release(6);
    EXPECT_TRUE(is_idle());
    EXPECT_THAT(worked(), ElementsAre(work(5), work(6), work(6)));
}

TEST_F(Queue, ADamagedStateFileCostsNoMoreThanItsDamage) {
    write_file(kState, "waiting 5\nwaiting ../x\nwaiting -3\nnonsense\nrunning x y z 9\nwaiting 6\n");
    start();
    EXPECT_TRUE(worked_on(2));
    EXPECT_TRUE(is_idle());
    EXPECT_THAT(worked(), ElementsAre(work(5), work(6)));
}

TEST_F(Queue, OneQueueHasOneDaemon) {
    start();
    const Outcome second = run_program({"--worker", kWorker}, options());
    EXPECT_EQ(second.status, 1);
    EXPECT_EQ(second.err, "tsbackup-q: another daemon serves this queue (" + kState + ".lock is locked)\n");
    enqueue(5);
    EXPECT_TRUE(worked_on(1));
}

TEST_F(Queue, AStateThatCannotBeWrittenIsToldAndTheQueueGoesOn) {
    make_folder(kState + ".new/x");
    start();
    enqueue(5);
    enqueue(6);
    EXPECT_TRUE(worked_on(2));
    ASSERT_TRUE(wait_until([] { return status(6) == "BACKUP_STATUS__FAILED!!TIME!!warn\n"; }));
    const std::string told = stop().err;
    EXPECT_EQ(count_of(told, "cannot write " + kState + ": Is a directory; a restart would forget the queue"), 1U)
        << told;
}

// --- How it is started ---

TEST_F(Queue, MakesItsPipeWhenThereIsNone) {
    close(std::exchange(pipe_, -1));
    shell_output("rm -rf /run/test-pipes");
    start({"--worker", kWorker, "--pipe", "/run/test-pipes/queue", "--state", "/run/test-state/queue"});
    struct stat found {};
    ASSERT_EQ(stat("/run/test-pipes/queue", &found), 0);
    EXPECT_EQ(found.st_mode, static_cast<mode_t>(S_IFIFO | 0600));
    send(request_record("enqueue:5"), "/run/test-pipes/queue");
    EXPECT_TRUE(worked_on(1));
    EXPECT_TRUE(wait_until([] { return file_exists("/run/test-state/queue"); }));
    EXPECT_FALSE(file_exists(kState));
}

TEST_F(Queue, TakesItsPipeFromTheServiceManager) {
    shell_output("mkfifo /run/test-inherited");
    ProgramOptions shell = options("/bin/sh");
    daemon_ = std::make_unique<Program>(
        std::vector<std::string>{"-c", "exec 3<>/run/test-inherited; LISTEN_PID=$$ LISTEN_FDS=1 exec " + kDaemon +
                                           " --worker " + kWorker + " --pipe /run/test-not-used"},
        shell);
    ASSERT_TRUE(notifications_->received("READY=1"));
    send(request_record("enqueue:5"), "/run/test-inherited");
    EXPECT_TRUE(worked_on(1));
    EXPECT_TRUE(is_idle());
    EXPECT_FALSE(file_exists("/run/test-not-used"));
    EXPECT_EQ(stop().status, 0);
}

TEST_F(Queue, WorkersAreNotToldWhatTheServiceManagerTellsTheDaemon) {
    write_file(kWorker, "#!/bin/sh\nenv >/run/test-environment\necho done >>" + kWorked + "\n", 0755);
    start();
    enqueue(5);
    ASSERT_TRUE(worked_on(1));
    EXPECT_THAT(read_file("/run/test-environment"), Not(HasSubstr("NOTIFY_SOCKET")));
    EXPECT_THAT(read_file("/run/test-environment"), HasSubstr("PATH="));
}

TEST_F(Queue, WrongStartsAreToldInOneLine) {
    write_file("/run/test-file", "");
    const struct {
        std::vector<std::string> arguments;
        int status;
        std::string told;
    } cases[] = {
        {{"--pipe", "relative"}, 2, "tsbackup-q: \"relative\" is no absolute path\n"},
        {{"job"}, 2, "tsbackup-q: unexpected argument \"job\"; see --help\n"},
        {{"--nonsense"}, 2, kDaemon + ": unrecognized option '--nonsense'\n"},
        {{"--state"}, 2, kDaemon + ": option '--state' requires an argument\n"},
        {{"--pipe", "/run/test-file"}, 1, "tsbackup-q: /run/test-file is no named pipe\n"},
        {{"--pipe", "/proc/none/x"}, 1, "tsbackup-q: cannot open /proc/none/x: No such file or directory\n"},
        {{"--state", "/proc/none/x"}, 1, "tsbackup-q: cannot open /proc/none/x.lock: No such file or directory\n"},
    };
    for (const auto &[arguments, status, told] : cases) {
        const Outcome outcome = run_program(arguments, options());
        EXPECT_EQ(outcome.status, status) << testing::PrintToString(arguments);
        EXPECT_EQ(outcome.err, told);
        EXPECT_EQ(outcome.out, "");
    }
    const Outcome help = run_program({"--help"}, options());
    EXPECT_EQ(help.status, 0);
    EXPECT_THAT(help.out, testing::StartsWith("usage: tsbackup-q [OPTION]...\n"));
    EXPECT_THAT(run_program({"--version"}, options()).out, testing::MatchesRegex("tsbackup-q [0-9.]+\n"));
}

// --- Cameras ---

TEST_F(Queue, CamerasHaveAQueueOfTheirOwn) {
    const int held_open = open(kCameraPipe.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    start({"--camera", "--worker", kWorker});
    write_file(kHold + "1", ""); // the worker's second argument is the kind
    send(request_record("enqueue:1:001:004:Canon_PowerShot_1\n"), kCameraPipe);
    ASSERT_TRUE(worked_on(1));
    send(request_record("enqueue:1:001:005:Nikon_Z_2\n"), kCameraPipe);
    send(request_record("enqueue:2:001:006:Phone:x\n"), kCameraPipe);
    send(request_record("enqueue:1:002:009:Nikon_Z_2\n"), kCameraPipe); // plugged in again
    send(request_record("enqueue:1:002:009:../x\n"), kCameraPipe);
    send(request_record("enqueue:7"), kCameraPipe);
    ASSERT_TRUE(wait_until([] {
        return shell_output("sed -n 's/^waiting //p' " + kCameraState) == "1:002:009:Nikon_Z_2\n2:001:006:Phone:x\n";
    }));
    kill_daemon();
    start({"--camera", "--worker", kWorker});
    unlink((kHold + "1").c_str());
    EXPECT_TRUE(worked_on(3));
    EXPECT_TRUE(wait_until([] { return read_file(kCameraState).empty(); }));
    EXPECT_THAT(worked(),
                ElementsAre("-m 1 001 004 Canon_PowerShot_1", "-m 1 002 009 Nikon_Z_2", "-m 2 001 006 Phone:x"));
    EXPECT_THAT(list_folder(kLogFolder), IsEmpty());
    EXPECT_EQ(stop().status, 0);
    close(held_open);
}

} // namespace
} // namespace tsbackup::test
