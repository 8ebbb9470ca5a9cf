// The event receiver: what it records, hands on and ejects.

#include "aftermath.h"
#include "job_runs.h"

#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace tsbackup::test {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::Not;

const std::string kDaemon = "/opt/tsbackup/sbin/zelkova-eventd";
const std::string kSocket = "/var/run/zelkovad/event";
const std::string kConfig = "/run/test-eventd.conf";
const std::string kCommand = "/run/test-command"; ///< notes what it is given
const std::string kGiven = "/run/test-given";
const std::string kTold = "/run/test-told"; ///< the daemon's standard error
const std::string kCard = "/media/CARD";

std::string datagram(const std::string &kind, const std::string &message) {
    return kind + "\nzelkovad\n0 0\n" + message;
}

sockaddr_un address_of(const std::string &path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, path.c_str());
    return address;
}

bool send_to(const std::string &path, const std::string &bytes) {
    const sockaddr_un address = address_of(path);
    const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const bool sent = sendto(socket, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr *>(&address),
                             sizeof address) == static_cast<ssize_t>(bytes.size());
    close(socket);
    return sent;
}

/// A datagram socket of some other service, and what it has received.
class Listener {
  public:
    explicit Listener(const std::string &path)
        : path_(path), socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
        make_folder(path.substr(0, path.rfind('/')));
        unlink(path.c_str());
        const sockaddr_un address = address_of(path);
        if (bind(socket_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
            throw std::runtime_error("cannot bind " + path);
    }
    ~Listener() {
        close(socket_);
        unlink(path_.c_str());
    }
    Listener(const Listener &) = delete;
    Listener &operator=(const Listener &) = delete;

    /// Waits for the next datagram; empty when none comes.
    std::string next() {
        std::string bytes(65536, '\0');
        ssize_t got = -1;
        wait_until([&] { return (got = recv(socket_, bytes.data(), bytes.size(), 0)) >= 0; });
        bytes.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
        return bytes;
    }

  private:
    std::string path_;
    int socket_;
};

class Events : public testing::Test {
  protected:
    void SetUp() override {
        if (!in_appliance()) GTEST_SKIP() << "needs the demonstration appliance's own root";
        if (!file_exists(kDaemon)) GTEST_SKIP() << "the companions are not installed";
        reset_appliance();
        clear();
        write_file(kCommand,
                   "#!/bin/bash\n{ echo \"kind=$ZELKOVA_KIND source=$ZELKOVA_SOURCE numbers=$ZELKOVA_NUMBERS\"\n"
                   "for argument; do echo \"<$argument>\"; done; cat; echo; } >>" +
                       kGiven + "\n",
                   0755);
    }
    void TearDown() override {
        daemon_.reset();
        if (in_appliance()) clear();
    }
    static void clear() { shell_output("rm -rf /run/test-* /run/systemd /dev/log /etc/tsbackup " + kSocket); }

    static ProgramOptions options(const std::string &program = kDaemon) {
        ProgramOptions result;
        result.program = program;
        return result;
    }

    /// Starts the daemon with a configuration and waits until it listens.
    void start(const std::string &config = "") {
        write_file(kConfig, config);
        write_file(kTold, "");
        const std::string command = "exec " + kDaemon + " --config " + kConfig + " 2>" + kTold;
        daemon_ = std::make_unique<Program>(std::vector<std::string>{"-c", command}, options("/bin/sh"));
        EXPECT_TRUE(wait_until([] { return send_to(kSocket, "probe"); }));
    }
    std::string stop() {
        daemon_->signal(SIGTERM);
        const Outcome outcome = daemon_->wait(20s);
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(outcome.out, "");
        // The probes of the start are no events.
        std::istringstream lines(read_file(kTold));
        std::string rest;
        for (std::string line; std::getline(lines, line);)
            if (line.find("\"probe\"") == std::string::npos) rest += line + "\n";
        return rest;
    }
    /// Waits until the daemon has said this.
    static bool told(const std::string &text) {
        return wait_until([&] { return read_file(kTold).find(text) != std::string::npos; });
    }

    std::unique_ptr<Program> daemon_;
};

// --- Records ---

TEST_F(Events, AreWrittenToTheJournalWithTheirParts) {
    Listener journal("/run/systemd/journal/socket");
    start();
    ASSERT_TRUE(send_to(kSocket, datagram("backup", "<a b=\"1\"/>")));
    const std::string entry = journal.next();
    for (const char *field :
         {"MESSAGE=event backup from zelkovad: <a b=\"1\"/>\n", "PRIORITY=5\n", "ZELKOVA_KIND=backup\n",
          "ZELKOVA_SOURCE=zelkovad\n", "ZELKOVA_NUMBERS=0 0\n", "ZELKOVA_MESSAGE=<a b=\"1\"/>\n"})
        EXPECT_THAT(entry, HasSubstr(field));
    EXPECT_EQ(stop(), "");
}

TEST_F(Events, AMessageOfLinesCannotForgeFieldsOfTheJournal) {
    Listener journal("/run/systemd/journal/socket");
    start();
    ASSERT_TRUE(send_to(kSocket, datagram("backup", "first\nPRIORITY=0\nlast")));
    const std::string entry = journal.next();
    // Such a text is sent with its length in front, not as a line of its own.
    EXPECT_THAT(entry, HasSubstr(std::string("ZELKOVA_MESSAGE\n\x15\0\0\0\0\0\0\0", 24) + "first\nPRIORITY=0\nlast\n"));
    stop();
}

TEST_F(Events, GoToSyslogWhereThereIsNoJournal) {
    Listener syslog("/dev/log");
    start();
    ASSERT_TRUE(send_to(kSocket, datagram("backup", "text")));
    const std::string line = syslog.next();
    EXPECT_THAT(line, testing::StartsWith("<29>")); // daemon, notice
    EXPECT_THAT(line, HasSubstr("zelkova-eventd["));
    EXPECT_THAT(line, HasSubstr(": event backup from zelkovad: text"));
    EXPECT_EQ(stop(), "");
}

TEST_F(Events, GoToStandardErrorWhereThereIsNeither) {
    start();
    ASSERT_TRUE(send_to(kSocket, datagram("backup", "one\ntwo")));
    ASSERT_TRUE(send_to(kSocket, "nonsense"));
    ASSERT_TRUE(send_to(kSocket, datagram("ui", "three")));
    EXPECT_EQ(stop(), "zelkova-eventd: event backup from zelkovad: one two\n"
                      "zelkova-eventd: dropped a datagram of 8 bytes that is no event: \"nonsense\"\n"
                      "zelkova-eventd: event ui from zelkovad: three\n");
}

TEST_F(Events, OfARealRunArrive) {
    JobFile().job(7, {{"name", "a < b"}}).write();
    start("command = " + kCommand + "\n");
    EXPECT_EQ(run_program({"-e", "7"}).status, 0);
    const std::string event = result_event(7, "a &lt; b", 4);
    const std::string message = event.substr(event.find('<'));
    EXPECT_TRUE(wait_until([&] {
        return read_file(kGiven) == "kind=backup source=zelkovad numbers=0 0\n" + message + "\n";
    })) << read_file(kGiven);
    EXPECT_EQ(stop(), "zelkova-eventd: event backup from zelkovad: " + message + "\n");
}

TEST_F(Events, OfManySendersAllArriveInTheCommandOnceEach) {
    constexpr int kSenders = 10;
    constexpr int kEach = 20;
    start("command = " + kCommand + "\n");
    std::vector<std::thread> senders;
    senders.reserve(kSenders);
    for (int sender = 0; sender < kSenders; ++sender)
        senders.emplace_back([sender] {
            for (int number = 0; number < kEach; ++number)
                EXPECT_TRUE(
                    send_to(kSocket, datagram("backup", "event-" + std::to_string(sender * kEach + number) + ".")));
        });
    for (std::thread &sender : senders)
        sender.join();
    const auto given = [](int number) { return count_of(read_file(kGiven), "event-" + std::to_string(number) + "."); };
    EXPECT_TRUE(
        wait_until([&] { return count_of(read_file(kGiven), "event-") >= std::size_t{kSenders} * kEach; }, 60s));
    for (int number = 0; number < kSenders * kEach; ++number)
        EXPECT_EQ(given(number), 1U) << number;
}

// --- The command ---

TEST_F(Events, TheCommandGetsItsArgumentsAsTheyStandAndNoShellSeesThem) {
    start("command = " + kCommand +
          "\nargument = --to\nargument = $(touch /run/test-forged); `id` > /run/test-forged\n"
          "argument =\n");
    ASSERT_TRUE(send_to(kSocket, datagram("ui; touch /run/test-forged", "$(touch /run/test-forged)\nsecond\n")));
    EXPECT_TRUE(wait_until([] { return read_file(kGiven).ends_with("second\n\n"); }));
    EXPECT_EQ(read_file(kGiven), "kind=ui; touch /run/test-forged source=zelkovad numbers=0 0\n<--to>\n"
                                 "<$(touch /run/test-forged); `id` > /run/test-forged>\n<>\n"
                                 "$(touch /run/test-forged)\nsecond\n\n");
    EXPECT_FALSE(file_exists("/run/test-forged"));
}

TEST_F(Events, ACommandThatFailsCostsNoFurtherEvent) {
    write_file(kCommand, "#!/bin/bash\necho x >>" + kGiven + "\nexit 3\n", 0755);
    start("command = " + kCommand + "\n");
    for (int count = 0; count < 3; ++count)
        ASSERT_TRUE(send_to(kSocket, datagram("backup", "text")));
    EXPECT_TRUE(wait_until([] { return read_file(kGiven) == "x\nx\nx\n"; }));
    EXPECT_TRUE(wait_until([] { return count_of(read_file(kTold), kCommand + " ended with status 3\n") == 3; }));
    stop();
}

TEST_F(Events, ACommandThatIsMissingIsTold) {
    start("command = /run/test-no-such-command\n");
    ASSERT_TRUE(send_to(kSocket, datagram("backup", "text")));
    EXPECT_TRUE(told("zelkova-eventd: /run/test-no-such-command could not be run\n"));
    stop();
}

TEST_F(Events, ACommandThatHangsIsEndedAndReceivingGoesOnMeanwhile) {
    write_file(kCommand,
               "#!/bin/bash\nread -r line; echo \"$line\" >>" + kGiven +
                   "\n[ \"$line\" != hang ] || { trap '' TERM; sleep 600 & wait; wait; }\n",
               0755);
    Listener journal("/run/systemd/journal/socket");
    start("command = " + kCommand + "\ntimeout = 1\n");
    for (const char *message : {"hang\n", "next\n", "meanwhile\n"}) {
        ASSERT_TRUE(send_to(kSocket, datagram("backup", message)));
        EXPECT_THAT(journal.next(), HasSubstr(message));
    }
    EXPECT_EQ(read_file(kGiven).find("next"), std::string::npos);
    EXPECT_TRUE(wait_until([] { return read_file(kGiven) == "hang\nnext\nmeanwhile\n"; }));
    EXPECT_THAT(stop(), HasSubstr(kCommand + " takes more than 1 s and is ended\n"));
    EXPECT_TRUE(shell_output("pgrep -x sleep").empty());
}

TEST_F(Events, AskedToEndItTellsWhatTheCommandDidNotGet) {
    write_file(kCommand, "#!/bin/bash\nsleep 600\n", 0755);
    start("command = " + kCommand + "\n");
    for (int count = 0; count < 3; ++count)
        ASSERT_TRUE(send_to(kSocket, datagram("backup", "text")));
    EXPECT_THAT(stop(), HasSubstr("zelkova-eventd: 2 events were not handed over\n"));
    shell_output("pkill -x sleep");
}

// --- Ejecting ---

std::string eject_event(const std::string &device) {
    return datagram("ui",
                    "<xs:delete-s resource-type=\"HotPlug\" resource-id=\"UsbStorage\" action=\"eject\" device=\"" +
                        device + "\"></xs:delete-s>");
}

/// The machine's loop devices, which an appliance does not show, under their own names.
void show_loop_devices() {
    constexpr unsigned kMisc = 10;
    constexpr unsigned kLoopControl = 237;
    constexpr unsigned kLoop = 7;
    constexpr unsigned kMost = 64;
    mknod("/dev/loop-control", S_IFCHR | 0600, makedev(kMisc, kLoopControl));
    for (unsigned number = 0; number < kMost; ++number)
        mknod(("/dev/loop" + std::to_string(number)).c_str(), S_IFBLK | 0600, makedev(kLoop, number));
}

/// A disk on a loop device of its own, mounted at a path.
class LoopDisk {
  public:
    explicit LoopDisk(const std::string &at) : at_(at) {
        show_loop_devices();
        make_folder(at);
        const std::string image = "/run/test-image" + at.substr(at.rfind('/') + 1);
        const std::string complaint = shell_output("truncate -s 8M " + image + " && mkfs.ext4 -q " + image +
                                                   " && mount -o loop " + image + " " + at);
        if (!complaint.empty()) throw std::runtime_error(complaint);
        const std::string source = shell_output("findmnt -no SOURCE " + at);
        name_ = source.substr(5, source.find('\n') - 5);
    }
    ~LoopDisk() {
        if (is_mounted()) shell_output("umount " + at_);
        rmdir(at_.c_str());
        shell_output("rm -f /dev/loop*");
    }
    LoopDisk(const LoopDisk &) = delete;
    LoopDisk &operator=(const LoopDisk &) = delete;
    const std::string &name() const { return name_; }
    bool is_mounted() const { return shell_output("mountpoint " + at_).find("is a mountpoint") != std::string::npos; }

  private:
    std::string at_;
    std::string name_;
};

ProgramOptions in_program(const std::string &program) {
    ProgramOptions options;
    options.program = program;
    return options;
}

/// Whether another process sees the disk in a mount namespace of its own.
bool pins(const Program &program) {
    return wait_until([&] {
        const std::string process = "/proc/" + std::to_string(program.pid());
        return shell_output("readlink " + process + "/ns/mnt") != shell_output("readlink /proc/self/ns/mnt") &&
               read_file(process + "/mountinfo").find(" " + kCard + " ") != std::string::npos &&
               read_file(process + "/comm") == "sleep\n";
    });
}

TEST_F(Events, AnUnusedDiskIsUnmounted) {
    REQUIRE_VOLUMES();
    const LoopDisk disk(kCard);
    write_file(kCard + "/file", "text");
    start();
    ASSERT_TRUE(send_to(kSocket, eject_event(disk.name())));
    EXPECT_TRUE(told("zelkova-eventd: " + disk.name() + " can be unplugged\n"));
    EXPECT_FALSE(disk.is_mounted());
    stop();
}

TEST_F(Events, ADiskThatAPrivateMountNamespaceHoldsIsEjectedAfterIt) {
    REQUIRE_VOLUMES();
    const LoopDisk disk(kCard);
    Program holder({"--mount", "sleep", "600"}, in_program("/usr/bin/unshare"));
    ASSERT_TRUE(pins(holder));
    start();
    ASSERT_TRUE(send_to(kSocket, eject_event(disk.name())));
    EXPECT_TRUE(told("is ejected later: process " + std::to_string(holder.pid()) + " still holds it\n"));
    usleep(1'500'000); // it has looked again
    EXPECT_TRUE(disk.is_mounted());
    holder.signal(SIGKILL);
    EXPECT_TRUE(told("zelkova-eventd: " + disk.name() + " can be unplugged\n"));
    EXPECT_FALSE(disk.is_mounted());
    EXPECT_EQ(count_of(stop(), "is ejected later"), 1U);
}

TEST_F(Events, ADiskWithAnOpenFileIsEjectedAfterIt) {
    REQUIRE_VOLUMES();
    const LoopDisk disk(kCard);
    write_file(kCard + "/file", "text");
    const int file = open((kCard + "/file").c_str(), O_RDONLY | O_CLOEXEC);
    start();
    ASSERT_TRUE(send_to(kSocket, eject_event(disk.name())));
    EXPECT_TRUE(told("is ejected later: cannot unmount /media/CARD: Device or resource busy\n"));
    EXPECT_TRUE(disk.is_mounted());
    close(file);
    EXPECT_TRUE(told("zelkova-eventd: " + disk.name() + " can be unplugged\n"));
    EXPECT_FALSE(disk.is_mounted());
    stop();
}

TEST_F(Events, ADiskThatIsHeldTooLongIsGivenUp) {
    REQUIRE_VOLUMES();
    const LoopDisk disk(kCard);
    Program holder({"--mount", "sleep", "600"}, in_program("/usr/bin/unshare"));
    ASSERT_TRUE(pins(holder));
    start("eject-wait = 1\n");
    ASSERT_TRUE(send_to(kSocket, eject_event(disk.name())));
    EXPECT_TRUE(told("zelkova-eventd: " + disk.name() + " is not ejected: process "));
    holder.signal(SIGKILL);
    holder.wait();
    usleep(1'500'000); // it does not look again
    EXPECT_TRUE(disk.is_mounted());
    stop();
}

TEST_F(Events, OnlyMediaDisksAreEjectedAndOnlyOnRequest) {
    REQUIRE_VOLUMES();
    const LoopDisk elsewhere("/srv/disk");
    const LoopDisk disk(kCard);
    start();
    ASSERT_TRUE(send_to(kSocket, eject_event(elsewhere.name())));
    ASSERT_TRUE(send_to(kSocket, eject_event("no-such-disk")));
    ASSERT_TRUE(send_to(kSocket, datagram("backup", "device=\"" + disk.name() + "\"")));
    EXPECT_TRUE(told(elsewhere.name() + " is not ejected: it is mounted at /srv/disk\n"));
    EXPECT_TRUE(told("no-such-disk is not ejected: there is no such disk\n"));
    EXPECT_THAT(stop(), Not(HasSubstr("unplugged")));
    EXPECT_TRUE(elsewhere.is_mounted());
    EXPECT_TRUE(disk.is_mounted());

    start("eject = no\n");
    ASSERT_TRUE(send_to(kSocket, eject_event(disk.name())));
    EXPECT_THAT(stop(), Not(HasSubstr("unplugged")));
    EXPECT_TRUE(disk.is_mounted());
}

TEST_F(Events, ARealRunsDiskIsEjectedWhenItsWorkerIsGone) {
    REQUIRE_VOLUMES();
    const LoopDisk disk(kCard);
    write_file("/data/Pictures/a", "text");
    write_file("/etc/tessera/usb/storage.conf", storage_line("CARD", disk.name(), "3"));
    JobFile()
        .job(7, Settings{{"name", "n"}, {"opt_full_backup_freq", "NEVER"}, {"dst_eject", "1"}} +
                    source_share("data", "Pictures") + destination_usb("3", "copy"))
        .write();
    start();
    EXPECT_EQ(run_program({"-e", "7"}).status, 0);
    EXPECT_EQ(last_result(7), 0);
    EXPECT_TRUE(wait_until([&] { return !disk.is_mounted(); }));
    stop();
}

// --- How it is started ---

TEST_F(Events, ItsSocketIsForRootAloneAndReplacesOneThatWasLeftBehind) {
    start();
    struct stat found {};
    ASSERT_EQ(stat(kSocket.c_str(), &found), 0);
    EXPECT_EQ(found.st_mode, static_cast<mode_t>(S_IFSOCK | 0600));
    daemon_->signal(SIGKILL);
    daemon_->wait();
    ASSERT_TRUE(file_exists(kSocket));
    start();
    EXPECT_EQ(stop(), "");
}

TEST_F(Events, TakesItsSocketFromTheServiceManager) {
    ProgramOptions activate = in_program("/usr/bin/systemd-socket-activate");
    if (!file_exists(activate.program)) GTEST_SKIP() << "needs systemd-socket-activate";
    write_file(kConfig, "command = " + kCommand + "\n");
    daemon_ = std::make_unique<Program>(std::vector<std::string>{"--datagram", "--listen=/run/test-event", kDaemon,
                                                                 "--config", kConfig, "--socket", "/run/test-not-used"},
                                        activate);
    ASSERT_TRUE(wait_until([] { return send_to("/run/test-event", datagram("backup", "text")); }));
    EXPECT_TRUE(wait_until([] { return read_file(kGiven).ends_with("text\n"); }));
    EXPECT_FALSE(file_exists("/run/test-not-used"));
    daemon_->signal(SIGTERM);
    EXPECT_EQ(daemon_->wait(20s).status, 0);
}

TEST_F(Events, WrongStartsAreToldInOneLine) {
    write_file(kConfig, "eject = perhaps\n");
    const struct {
        std::vector<std::string> arguments;
        int status;
        std::string complaint;
    } cases[] = {
        {{"--config", kConfig}, 1, "zelkova-eventd: " + kConfig + ":1: \"perhaps\" is neither \"yes\" nor \"no\"\n"},
        {{"--config", "/no/such/file"}, 1, "zelkova-eventd: cannot read /no/such/file: No such file or directory\n"},
        {{"--socket", "relative"}, 2, "zelkova-eventd: \"relative\" is no absolute path\n"},
        {{"event"}, 2, "zelkova-eventd: unexpected argument \"event\"; see --help\n"},
        {{"--socket", "/run/test-" + std::string(120, 'x')},
         1,
         "zelkova-eventd: /run/test-" + std::string(120, 'x') + " is too long for a socket\n"},
        {{"--socket", kConfig}, 1, "zelkova-eventd: cannot bind " + kConfig + ": Address already in use\n"},
    };
    for (const auto &[arguments, status, complaint] : cases) {
        const Outcome outcome = run_program(arguments, options());
        EXPECT_EQ(outcome.status, status) << testing::PrintToString(arguments);
        EXPECT_EQ(outcome.err, complaint);
    }
    const EventReceiver other;
    EXPECT_EQ(run_program({}, options()).err, "zelkova-eventd: another program listens at " + kSocket + "\n");
    EXPECT_THAT(run_program({"--help"}, options()).out, testing::StartsWith("usage: zelkova-eventd [OPTION]...\n"));
    EXPECT_THAT(run_program({"--version"}, options()).out, testing::MatchesRegex("zelkova-eventd [0-9.]+\n"));
}

} // namespace
} // namespace tsbackup::test
