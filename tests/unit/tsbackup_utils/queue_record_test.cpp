#include "tsbackup_utils.h"

#include "kernel.h"
#include "support.h"

#include "tsbackup/owners.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

using namespace tsbackup;
using namespace tsbackup::test;

namespace {

using Record = char[kQueueRecordSize];

/// The whole record of a request, as a daemon reads it.
std::string record_of(const std::string &request) {
    return request + std::string(kQueueRecordSize - request.size(), '\0');
}

class QueueRecord : public testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(mkfifo(pipe_.c_str(), 0600), 0); }

    void start_daemon() { reader_.reset(open(pipe_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)); }

    QueueSender job_sender() const { return {"tsbackup", pipe_.c_str(), false}; }
    QueueSender camera_sender() const { return {"tsbackup_mtp", pipe_.c_str(), true}; }

    static int send(const QueueSender &sender, const std::string &request) {
        Record record{};
        // NOLINTNEXTLINE(bugprone-not-null-terminated-result): the record is no text
        std::memcpy(record, request.data(), request.size());
        return queue_record_send(sender, record, static_cast<int>(request.size()));
    }

    /// Everything that is in the pipe.
    std::string received() const {
        std::string content;
        std::array<char, 4096> block{};
        ssize_t got = 0;
        while ((got = read(reader_.get(), block.data(), block.size())) > 0)
            content.append(block.data(), static_cast<std::size_t>(got));
        return content;
    }

    /// Leaves no room in the pipe, as a daemon does that is busy elsewhere.
    void fill_pipe() const {
        const UniqueFd writer(open(pipe_.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
        fcntl(writer.get(), F_SETPIPE_SZ, 4096);
        const std::array<char, 4096> block{};
        while (write(writer.get(), block.data(), block.size()) > 0) {
        }
    }

    TempFolder folder_;
    const std::string pipe_ = folder_ / "queue";
    UniqueFd reader_;
};

TEST_F(QueueRecord, IsTheRequestFollowedByZeroBytes) {
    start_daemon();
    const std::string longest(127, 'x');
    for (const std::string &request : {std::string("enqueue:7"), std::string("dequeue:7\n"),
                                       std::string("enqueue:1:001:004:Canon_IXUS_1\n"), std::string("q"), longest}) {
        SCOPED_TRACE(request);
        const Diagnostics diagnostics;
        EXPECT_EQ(send(job_sender(), request), 0);
        EXPECT_EQ(received(), record_of(request));
        EXPECT_EQ(diagnostics.text(), "");
    }
}

TEST_F(QueueRecord, AnEmptyRequestIsNotSent) {
    start_daemon();
    const Diagnostics diagnostics;
    const Record record = "enqueue:7";
    EXPECT_EQ(queue_record_send(job_sender(), record, 0), 0);
    EXPECT_EQ(queue_record_send(job_sender(), record, -1), 0);
    EXPECT_EQ(received(), "");
    EXPECT_EQ(diagnostics.text(), "");
}

TEST_F(QueueRecord, ThePipeIsOpenedForAppendingWithoutBlockingAndIsNotInherited) {
    start_daemon();
    int flags = 0;
    int descriptor_flags = 0;
    Kernel kernel;
    kernel.write = [&](int fd, std::size_t size) {
        flags = fcntl(fd, F_GETFL);
        descriptor_flags = fcntl(fd, F_GETFD);
        return static_cast<ssize_t>(size);
    };
    EXPECT_EQ(send(job_sender(), "enqueue:7"), 0);
    EXPECT_EQ(flags & (O_ACCMODE | O_APPEND | O_NONBLOCK), O_WRONLY | O_APPEND | O_NONBLOCK);
    EXPECT_EQ(descriptor_flags, FD_CLOEXEC);
}

TEST_F(QueueRecord, WithoutADaemonTheRequestIsLost) {
    for (const QueueSender &sender : {job_sender(), camera_sender()}) {
        const Diagnostics diagnostics(3);
        errno = 0;
        EXPECT_EQ(send(sender, "enqueue:7"), -1);
        EXPECT_EQ(errno, ENXIO);
        EXPECT_EQ(diagnostics.without_places(),
                  "(error) Cannot open " + pipe_ + ", because tsbackup-q is not running\n");
        EXPECT_TRUE(diagnostics.text().starts_with(std::string(sender.unit) + ":"));
    }
}

TEST_F(QueueRecord, APipeThatCannotBeOpenedIsLogged) {
    const std::string missing = folder_ / "missing";
    for (QueueSender sender : {job_sender(), camera_sender()}) {
        sender.pipe = missing.c_str();
        const Diagnostics diagnostics(3);
        EXPECT_EQ(send(sender, "enqueue:7"), -1);
        EXPECT_EQ(errno, ENOENT);
        EXPECT_EQ(diagnostics.without_places(), "(error) Cannot open " + missing + ". errno=2\n");
        EXPECT_FALSE(file_exists(missing));
    }
}

TEST_F(QueueRecord, AFailedLockIsLoggedAndTheRecordSent) {
    start_daemon();
    const struct {
        const char *name;
        int failing;
        const char *diagnostics;
    } cases[] = {
        {"taking it", F_LOCK, "(error) lockf(F_LOCK) failed. errno=37\n"},
        {"giving it back", F_ULOCK, "(error) lockf(F_ULOCK) failed. errno=37\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        Kernel kernel;
        kernel.lockf = [&c](int command) { return std::optional<int>(command == c.failing ? ENOLCK : 0); };
        const Diagnostics diagnostics(3);
        EXPECT_EQ(send(job_sender(), "enqueue:7"), 0);
        EXPECT_EQ(received(), record_of("enqueue:7"));
        EXPECT_EQ(diagnostics.without_places(), c.diagnostics);
    }
}

TEST_F(QueueRecord, WaitsForTheSenderThatHoldsTheLock) {
    start_daemon();
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    const UniqueFd told(ends[0]);
    UniqueFd tell(ends[1]);

    const pid_t other = fork();
    ASSERT_GE(other, 0);
    if (other == 0) {
        const int fd = open(pipe_.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        const bool locked = lockf(fd, F_LOCK, 0) == 0 && write(tell.get(), "l", 1) == 1;
        usleep(200'000);
        const std::string first = record_of("enqueue:1");
        const bool sent = write(fd, first.data(), first.size()) == static_cast<ssize_t>(first.size());
        _exit(locked && sent ? 0 : 1);
    }
    tell.reset();
    char byte = 0;
    ASSERT_EQ(read(told.get(), &byte, 1), 1);
    EXPECT_EQ(send(job_sender(), "enqueue:2"), 0);
    EXPECT_EQ(received(), record_of("enqueue:1") + record_of("enqueue:2"));
    int status = -1;
    waitpid(other, &status, 0);
    EXPECT_EQ(status, 0);
}

TEST_F(QueueRecord, GivesTheLockBack) {
    start_daemon();
    std::vector<int> commands;
    Kernel kernel;
    kernel.lockf = [&commands](int command) {
        commands.push_back(command);
        return std::optional<int>();
    };
    send(job_sender(), "enqueue:7");
    EXPECT_EQ(commands, (std::vector<int>{F_LOCK, F_ULOCK}));
}

TEST_F(QueueRecord, WaitsInSecondsWhileThePipeIsFull) {
    start_daemon();
    fill_pipe();
    std::vector<unsigned int> waits;
    Kernel kernel;
    kernel.sleep = [&](unsigned int seconds) {
        waits.push_back(seconds);
        if (waits.size() == 3) received();
    };
    const Diagnostics diagnostics;
    EXPECT_EQ(send(job_sender(), "enqueue:7"), 0);
    EXPECT_EQ(waits, (std::vector<unsigned int>{1, 1, 1}));
    EXPECT_EQ(received(), record_of("enqueue:7"));
    EXPECT_EQ(diagnostics.text(), "");
}

TEST_F(QueueRecord, AShortWriteIsRepeatedFromTheStartWhileTextRemains) {
    start_daemon();
    const std::string request = "enqueue:7";
    const std::string record = record_of(request);
    const struct {
        const char *name;
        std::deque<ssize_t> writes; ///< bytes that each write takes; more are taken whole
        std::string received;
    } cases[] = {
        {"less than the text, then whole", {5}, record.substr(0, 5) + record},
        {"twice less than the text, then whole", {5, 3}, record.substr(0, 5) + record.substr(0, 3) + record},
        {"the text in two pieces: nothing remains", {5, 4}, record.substr(0, 5) + record.substr(0, 4)},
        {"the whole text and more: nothing remains", {127}, record.substr(0, 127)},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        std::deque<ssize_t> writes = c.writes;
        Kernel kernel;
        kernel.write = [&writes](int, std::size_t size) {
            EXPECT_EQ(size, kQueueRecordSize);
            if (writes.empty()) return static_cast<ssize_t>(size);
            const ssize_t allowed = writes.front();
            writes.pop_front();
            return allowed;
        };
        const Diagnostics diagnostics;
        EXPECT_EQ(send(job_sender(), request), 0);
        EXPECT_EQ(received(), c.received);
        EXPECT_EQ(diagnostics.text(), "");
    }
}

TEST_F(QueueRecord, AFailedWriteIsLoggedInTheSendersWords) {
    start_daemon();
    const struct {
        QueueSender sender;
        std::string diagnostics;
    } cases[] = {
        {job_sender(), "(error) write() failed. errno=5\n"},
        {camera_sender(), "(error) write() " + pipe_ + " failed. errno=5\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.sender.unit);
        Kernel kernel;
        kernel.write = [](int, std::size_t) { return static_cast<ssize_t>(-EIO); };
        const Diagnostics diagnostics(3);
        EXPECT_EQ(send(c.sender, "enqueue:7"), -1);
        EXPECT_EQ(errno, EIO);
        EXPECT_EQ(diagnostics.without_places(), c.diagnostics);
    }
}

TEST_F(QueueRecord, ADaemonThatLeavesWhileASenderWaitsDoesNotEndTheSender) {
    start_daemon();
    fill_pipe();
    Kernel kernel;
    kernel.sleep = [this](unsigned int) { reader_.reset(); };
    const Diagnostics diagnostics(3);
    EXPECT_EQ(send(job_sender(), "enqueue:7"), -1);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(diagnostics.without_places(), "(error) write() failed. errno=32\n");

    struct sigaction after {};
    sigaction(SIGPIPE, nullptr, &after);
    EXPECT_EQ(after.sa_handler, SIG_DFL) << "the signal means again what it meant before";
}

} // namespace
