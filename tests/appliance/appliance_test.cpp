// The demonstration appliance itself: what it offers, and that nothing of it stays on the machine.

#include "support.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace tsbackup::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

const std::string kTool = APPLIANCE_TOOL;

struct Outcome {
    int status;
    std::string output;
};

/// Runs a command of the shell; standard output alone.
Outcome shell(const std::string &command) {
    std::string output;
    std::FILE *pipe = popen(command.c_str(), "re");
    std::array<char, 4096> block{};
    std::size_t got = 0;
    while ((got = std::fread(block.data(), 1, block.size(), pipe)) > 0)
        output.append(block.data(), got);
    const int status = pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), output};
}

/// The script as one word of the shell.
std::string quoted(std::string script) {
    for (std::size_t at = 0; (at = script.find('\'', at)) != std::string::npos; at += 4)
        script.replace(at, 1, "'\\''");
    return "'" + script + "'";
}

Outcome in_appliance_run(const std::string &options, const std::string &script) {
    return shell(kTool + " run " + options + " -- sh -c " + quoted(script));
}

/// Whether appliances can be made at all, and whether with volumes; asked once.
enum class Possible { nothing, folders, volumes };
Possible possible() {
    static const Possible answer = [] {
        const Outcome outcome = shell(kTool + " run -- cat /.appliance 2>/dev/null");
        if (outcome.status != 0) return Possible::nothing;
        return outcome.output == "kind=full\n" ? Possible::volumes : Possible::folders;
    }();
    return answer;
}

class ApplianceTool : public testing::Test {
  protected:
    void SetUp() override {
        if (possible() == Possible::nothing) GTEST_SKIP() << "no appliance can be made here";
    }
};

#define REQUIRE_VOLUME_DEVICES()                                                                                       \
    do {                                                                                                               \
        if (possible() != Possible::volumes) GTEST_SKIP() << "loop devices cannot be mounted here";                    \
    } while (false)

std::vector<std::string> words_of(const std::string &text) {
    std::istringstream stream(text);
    return {std::istream_iterator<std::string>(stream), {}};
}

// --- What it offers ---

TEST_F(ApplianceTool, EveryVolumeShareAndDiskIsADeviceOfItsOwn) {
    const Outcome outcome = in_appliance_run("", "stat -c %d / /data /data/Pictures /data/Documents /data/Music /vault "
                                                 "/vault/Backup /vault/Archive /media/USB /media/STICK");
    EXPECT_EQ(outcome.status, 0);
    const std::vector<std::string> devices = words_of(outcome.output);
    EXPECT_EQ(devices.size(), 10U);
    EXPECT_EQ(std::set<std::string>(devices.begin(), devices.end()).size(), devices.size()) << outcome.output;
}

TEST_F(ApplianceTool, VolumesAreNeitherTmpfsNorHalfTheRootsFileSystemId) {
    const Outcome outcome = in_appliance_run("", "stat -f -c '%T %i' / /data /vault /media/USB");
    const std::vector<std::string> words = words_of(outcome.output);
    ASSERT_EQ(words.size(), 8U) << outcome.output;
    EXPECT_EQ(words[0], "tmpfs");
    const auto halves = [](std::string id) {
        id.insert(0, 16 - id.size(), '0');
        return std::pair(id.substr(0, 8), id.substr(8));
    };
    for (std::size_t at = 2; at < words.size(); at += 2) {
        EXPECT_NE(words[at], "tmpfs");
        EXPECT_NE(halves(words[at + 1]).first, halves(words[1]).first);
        EXPECT_NE(halves(words[at + 1]).second, halves(words[1]).second);
    }
}

TEST_F(ApplianceTool, SharesAreSubvolumesThatCanBeSnapshot) {
    REQUIRE_VOLUME_DEVICES();
    const Outcome outcome = in_appliance_run(
        "", "echo text > /data/Pictures/file && mkdir /data/._share/Pictures && "
            "/sbin/btrfs -q subvolume snapshot -r /data/Pictures /data/._share/Pictures/b_1_2 && "
            "cat /data/._share/Pictures/b_1_2/file && ! touch /data/._share/Pictures/b_1_2/other 2>/dev/null && "
            "/sbin/btrfs -q subvolume delete /data/._share/Pictures/b_1_2");
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.output, "text\n");
}

TEST_F(ApplianceTool, UsbDisksStandInTheStorageTableWithTheirPorts) {
    const Outcome outcome = in_appliance_run("", "awk -F'!!' '{print NF, $2, $6, $9}' /etc/tessera/usb/storage.conf");
    EXPECT_EQ(outcome.output, "10 USB sdq1 1\n10 STICK sdr1 2\n");
}

TEST_F(ApplianceTool, PlainHasTheSystemsFoldersAndNoVolumes) {
    const Outcome outcome = in_appliance_run(
        "--plain", "cat /.appliance; for f in /apps /etc/tessera /var/log/tessera/backup /var/run/zelkovad /home/alice "
                   "/root; do test -d $f || echo $f is missing; done; test -e /apps/.backup && echo too early; "
                   "test -p /var/run/zelkovad/tsbackup-q || echo no queue; test -p /run/zelkovad/mtpbackup-q || echo "
                   "no camera queue; ls -d /data /vault /media/* 2>/dev/null; id -u alice; stat -f -c %T /");
    EXPECT_EQ(outcome.output, "kind=plain\n1001\ntmpfs\n");
}

TEST_F(ApplianceTool, RootCanBeMadePrivateAgainInsideANamespaceOfItsOwn) {
    EXPECT_EQ(in_appliance_run("--plain", "unshare --mount sh -c 'mount --make-rprivate none / && mkdir /job_007 && "
                                          "mount -t tmpfs none /job_007'")
                  .status,
              0);
}

TEST_F(ApplianceTool, MachineIsReadOnlyInside) {
    const Outcome outcome = in_appliance_run("--plain", "touch /usr/probe 2>/dev/null && echo usr; touch " + kTool +
                                                            " 2>/dev/null && echo source; ls /dev/loop* /dev/sd* "
                                                            "/dev/vd* 2>/dev/null");
    EXPECT_EQ(outcome.output, "");
}

TEST_F(ApplianceTool, EnvironmentIsFixedAndOnlyTestSettingsPass) {
    const Outcome outcome = shell(
        "env -i PATH=\"$PATH\" HOME=/nowhere LC_ALL=C SECRET=1 TSBACKUP_X=2 GTEST_Y=3 ASAN_OPTIONS=a=b TERM=dumb " +
        kTool + " run --plain -- env");
    std::vector<std::string> lines = words_of(outcome.output);
    std::sort(lines.begin(), lines.end());
    EXPECT_EQ(lines,
              (std::vector<std::string>{"ASAN_OPTIONS=a=b", "GTEST_Y=3", "HOME=/root", "LANG=C.UTF-8",
                                        "PATH=/usr/sbin:/usr/bin:/sbin:/bin", "TERM=dumb", "TSBACKUP_X=2", "TZ=UTC"}));
}

TEST_F(ApplianceTool, NetworkIsALoopbackOfItsOwn) {
    const Outcome outcome =
        in_appliance_run("--plain", "ls /sys/class/net 2>/dev/null; cat /proc/net/dev | tail -n +3 | "
                                    "cut -d: -f1; ip -o link show up | grep -c LOOPBACK");
    EXPECT_EQ(words_of(outcome.output), (std::vector<std::string>{"lo", "1"}));
}

// --- How it runs a command ---

TEST_F(ApplianceTool, ExitStatusIsTheCommands) {
    for (const int status : {0, 1, 77, 255})
        EXPECT_EQ(in_appliance_run("--plain", "exit " + std::to_string(status)).status, status);
    EXPECT_EQ(in_appliance_run("--plain", "kill -TERM $$").status, 128 + SIGTERM);
    EXPECT_EQ(shell(kTool + " run --plain -- /no/such/program 2>/dev/null").status, 127);
}

TEST_F(ApplianceTool, StandardStreamsPassThroughAndNoOtherDescriptor) {
    EXPECT_EQ(shell("echo text | " + kTool + " run --plain -- cat").output, "text\n");
    EXPECT_EQ(shell(kTool + " run --plain -- sh -c 'echo error >&2' 2>&1 >/dev/null").output, "error\n");
    EXPECT_EQ(shell("exec 7</dev/null; " + kTool + " run --plain -- ls /proc/self/fd").output, "0\n1\n2\n3\n");
}

TEST_F(ApplianceTool, SignalToTheCommandsProcessGroupStaysInside) {
    EXPECT_EQ(in_appliance_run("--plain", "trap '' TERM; kill -TERM 0; exit 5").status, 5);
}

TEST_F(ApplianceTool, WrongUseIsRefused) {
    for (const char *arguments : {"", "run", "run --plain", "run --nonsense -- true", "run --install /no/such -- true",
                                  "run --name 'a b' -- true"})
        EXPECT_EQ(shell(kTool + " " + arguments + " 2>/dev/null").status, 2) << arguments;
}

/// A user namespace in which no further mount namespace can be made.
std::string without_namespaces(const std::string &command) {
    return "unshare --map-root-user --mount sh -c " +
           quoted("echo 0 >/proc/sys/user/max_user_namespaces && echo 0 >/proc/sys/user/max_mnt_namespaces && " +
                  command);
}

TEST_F(ApplianceTool, WhereNothingCanBeMadeItSaysWhyAndExitsWith77) {
    if (shell(without_namespaces("true") + " 2>/dev/null").status != 0) GTEST_SKIP() << "needs user namespaces";
    const Outcome outcome = shell(without_namespaces(kTool + " run --plain -- echo ran 2>&1"));
    EXPECT_EQ(outcome.status, 77);
    EXPECT_TRUE(outcome.output.starts_with("appliance: no appliance can be made: ")) << outcome.output;
    EXPECT_EQ(std::count(outcome.output.begin(), outcome.output.end(), '\n'), 1) << outcome.output;

    const Outcome outside =
        shell(without_namespaces(kTool + " run --or-outside -- sh -c \"echo ran; exit 3\" 2>/dev/null"));
    EXPECT_EQ(outside.status, 3);
    EXPECT_EQ(outside.output, "ran\n");
}

TEST_F(ApplianceTool, OrdinaryUserGetsTheNamespaceKind) {
    std::string as_nobody;
    if (geteuid() == 0) {
        as_nobody = "setpriv --reuid=65534 --regid=65534 --clear-groups ";
        if (shell(as_nobody + "test -x " + kTool + " 2>/dev/null").status != 0)
            GTEST_SKIP() << "an ordinary user cannot reach the source folder, or setpriv is missing";
    }
    if (shell(as_nobody + "unshare --map-root-user --mount true 2>/dev/null").status != 0)
        GTEST_SKIP() << "ordinary users cannot make user namespaces here";
    const std::string errors = shell("mktemp").output;
    const std::string file = errors.substr(0, errors.size() - 1);
    chmod(file.c_str(), 0666);
    const Outcome outcome =
        shell("cd /; " + as_nobody + kTool + " run -- sh -c " +
              quoted("cat /.appliance; id -u; stat -f -c %T /data /data/Pictures; touch /data/Pictures/x "
                     "/vault/Backup/x /media/USB/x && echo written") +
              " 2>" + file);
    const std::string said = read_file(file);
    unlink(file.c_str());
    EXPECT_EQ(outcome.status, 0) << said;
    EXPECT_EQ(outcome.output, "kind=namespace\n0\noverlayfs\noverlayfs\nwritten\n");
    EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1) << said;
    EXPECT_TRUE(said.starts_with("appliance: no btrfs volumes, no snapshots and no ext4 disks: ")) << said;
}

// --- That nothing stays ---

/// Processes whose command line holds the text.
std::vector<pid_t> processes_with(const std::string &text) {
    std::vector<pid_t> found;
    for (const std::string &name : list_folder("/proc")) {
        if (name.find_first_not_of("0123456789") != std::string::npos || name == std::to_string(getpid())) continue;
        if (read_file("/proc/" + name + "/cmdline").find(text) != std::string::npos) found.push_back(std::stoi(name));
    }
    return found;
}

/// All descendants of a process, itself first.
std::vector<pid_t> family_of(pid_t first) {
    std::vector<pid_t> family{first};
    for (std::size_t at = 0; at < family.size(); ++at) {
        const std::string process = std::to_string(family[at]);
        std::istringstream children(read_file(fs::path("/proc") / process / "task" / process / "children"));
        for (pid_t child = 0; children >> child;)
            family.push_back(child);
    }
    return family;
}

/// What an appliance of that name has on the machine at this moment; empty when nothing is left of it.
std::string traces_of(const std::string &name) {
    std::string traces;
    for (const pid_t process : processes_with(name))
        traces += "process " + std::to_string(process) + "\n";
    for (const auto &device : fs::directory_iterator("/sys/block")) {
        const std::string backing = read_file(device.path() / "loop/backing_file");
        if (backing.find(name) != std::string::npos) traces += device.path().filename().string() + " " + backing;
    }
    if (read_file("/proc/self/mountinfo").find(name) != std::string::npos) traces += "mount\n";
    for (const char *folder : {"/tmp", "/var/tmp", "/mnt", "/dev/shm", "/run"})
        if (fs::exists(folder))
            for (const std::string &entry : list_folder(folder))
                if (entry.find(name) != std::string::npos) traces += std::string(folder) + "/" + entry + "\n";
    return traces;
}

/// The traces once they are gone, or those that are still there after a while: the kernel lets go of loop devices a
/// moment after the last process has ended.
std::string lasting_traces_of(const std::string &name) {
    const auto end = std::chrono::steady_clock::now() + 10s;
    std::string traces;
    while (!(traces = traces_of(name)).empty() && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(10ms);
    return traces;
}

/// Starts an appliance whose command would outlive the test.
pid_t start(const std::string &name, const std::string &scratch) {
    const pid_t process = fork();
    if (process != 0) return process;
    setenv("TMPDIR", scratch.c_str(), 1);
    const std::string script = "sleep 600 & sleep 600; : " + name;
    std::freopen("/dev/null", "we", stderr);
    execl(kTool.c_str(), kTool.c_str(), "run", "--name", name.c_str(), "--", "sh", "-c", script.c_str(), nullptr);
    _exit(127);
}

/// Ends an appliance by whatever is left of it, and waits for the process that this test started.
int wait_for(pid_t process, std::chrono::milliseconds limit, bool &ended) {
    int status = 0;
    const auto end = std::chrono::steady_clock::now() + limit;
    while (waitpid(process, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() >= end) {
            ended = false;
            kill(process, SIGKILL);
            waitpid(process, &status, 0);
            return status;
        }
        std::this_thread::sleep_for(5ms);
    }
    ended = true;
    return status;
}

std::string unique_name(int number) { return "probe-" + std::to_string(getpid()) + "-" + std::to_string(number) + "x"; }

TEST_F(ApplianceTool, TracesAreSeenWhileItRuns) {
    const std::string name = unique_name(0);
    const TempFolder scratch;
    const pid_t process = start(name, scratch.path());
    const auto end = std::chrono::steady_clock::now() + 10s;
    const std::string last = possible() == Possible::volumes ? "STICK" : "process";
    while (traces_of(name).find(last) == std::string::npos && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(5ms);
    EXPECT_NE(traces_of(name).find("process"), std::string::npos);
    EXPECT_NE(traces_of(name).find(last), std::string::npos);
    kill(process, SIGTERM);
    bool ended = false;
    wait_for(process, 10s, ended);
    EXPECT_EQ(lasting_traces_of(name), "");
}

TEST_F(ApplianceTool, NothingStaysAfterAnEnd) {
    const std::string name = unique_name(0);
    const Outcome outcome = shell(kTool + " run --name " + name + " -- sh -c 'sleep 600 & exit 4'");
    EXPECT_EQ(outcome.status, 4);
    EXPECT_EQ(lasting_traces_of(name), "");
}

TEST_F(ApplianceTool, NothingStaysAfterATerminatingSignal) {
    int number = 100;
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
        for (const auto delay : {20ms, 150ms, 600ms}) {
            const std::string name = unique_name(++number);
            const TempFolder scratch;
            const pid_t process = start(name, scratch.path());
            std::this_thread::sleep_for(delay);
            kill(process, signal);
            bool ended = false;
            const int status = wait_for(process, 10s, ended);
            EXPECT_TRUE(ended) << "signal " << signal << " after " << delay.count() << " ms";
            const int expected = 128 + signal;
            // Before it has set itself up the signal ends it directly.
            EXPECT_TRUE((WIFEXITED(status) && WEXITSTATUS(status) == expected) ||
                        (WIFSIGNALED(status) && WTERMSIG(status) == signal))
                << "signal " << signal << " after " << delay.count() << " ms: wait status " << status;
            EXPECT_EQ(lasting_traces_of(name), "");
            EXPECT_EQ(list_folder(scratch.path()), std::vector<std::string>{});
        }
    }
}

TEST_F(ApplianceTool, NothingStaysWhenAnyOfItsProcessesIsKilledAtAnyMoment) {
    constexpr int kRounds = 24;
    std::mt19937 dice(20240131);
    const std::string mounts_before = read_file("/proc/self/mountinfo");
    for (int round = 0; round < kRounds; ++round) {
        const std::string name = unique_name(round + 1);
        const TempFolder scratch;
        const pid_t process = start(name, scratch.path());
        std::this_thread::sleep_for(std::chrono::milliseconds(dice() % 500));
        const std::vector<pid_t> family = family_of(process);
        const pid_t victim = family[dice() % family.size()];
        kill(victim, SIGKILL);
        // A killed helper may leave the appliance running with less; then it is ended as a whole.
        bool ended = false;
        wait_for(process, 1s, ended);
        EXPECT_EQ(lasting_traces_of(name), "") << "round " << round;
        EXPECT_EQ(list_folder(scratch.path()), std::vector<std::string>{});
    }
    EXPECT_EQ(read_file("/proc/self/mountinfo"), mounts_before);
}

} // namespace
} // namespace tsbackup::test
