#include "support.h"
#include "tsbackup/log.h"
#include "tsbackup_utils.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

// Not covered: a program name that cannot be copied, since no allocation of that size can be made to fail here.

namespace tsbackup {
namespace {

using test::Diagnostics;
using test::TempFolder;

/// The program whose behaviours process_child.cpp lists; it lies beside this one.
std::string child_program() {
    return (std::filesystem::read_symlink("/proc/self/exe").parent_path() / "process_child").string();
}

/// The null-terminated vector of some texts, which it keeps.
class Vector {
  public:
    explicit Vector(std::vector<std::string> texts) : texts_(std::move(texts)) {
        for (std::string &text : texts_)
            pointers_.push_back(text.data());
        pointers_.push_back(nullptr);
    }
    char *const *get() const { return pointers_.data(); }

  private:
    std::vector<std::string> texts_;
    std::vector<char *> pointers_;
};

std::string collected; // by the readers

std::int32_t collect(BackupRun *, int descriptor) {
    std::array<char, 4096> piece{};
    while (true) {
        const ssize_t got = read(descriptor, piece.data(), piece.size());
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return 0;
        collected.append(piece.data(), static_cast<std::size_t>(got));
    }
}

/// A run of process_child: its result, and what reached the reader and the error buffer.
struct Outcome {
    std::int32_t result;
    std::string output;
    std::string error;
};

constexpr std::size_t kErrorSize = 4096;

/// Runs process_child with everything connected.
Outcome run_connected(const std::vector<std::string> &arguments, const char *input = "") {
    std::vector<std::string> argv = {"process_child"};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    std::array<char, kErrorSize> error{};
    collected.clear();
    const std::int32_t result = _backup_execvp(child_program().c_str(), input, error.data(), error.size(),
                                               Vector(argv).get(), Vector({}).get(), nullptr, collect);
    return {result, collected, error.data()};
}

/// Runs process_child with nothing connected.
std::int32_t run_bare(const std::vector<std::string> &arguments) {
    std::vector<std::string> argv = {"process_child"};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return _backup_execvp(child_program().c_str(), nullptr, nullptr, 0, Vector(argv).get(), Vector({}).get(), nullptr,
                          nullptr);
}

/// Runs process_child with only its standard output read.
std::string output_of(const std::vector<std::string> &arguments, const std::vector<std::string> &environment = {}) {
    std::vector<std::string> argv = {"process_child"};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    collected.clear();
    EXPECT_EQ(_backup_execvp(child_program().c_str(), nullptr, nullptr, 0, Vector(argv).get(),
                             Vector(environment).get(), nullptr, collect),
              0);
    return collected;
}

/// The exit code of a process of its own that does `work`: for what would change this process for good.
int in_own_process(const std::function<int()> &work) {
    const pid_t child = fork();
    if (child == 0) _exit(work());
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

/// The value of an environment variable for as long as the object lives.
class Environment {
  public:
    Environment(const char *name, const std::string &value) : name_(name) {
        const char *before = std::getenv(name);
        if (before != nullptr) before_ = before;
        setenv(name, value.c_str(), 1);
    }
    ~Environment() { setenv(name_, before_.c_str(), 1); }
    Environment(const Environment &) = delete;
    Environment &operator=(const Environment &) = delete;

  private:
    const char *name_;
    std::string before_;
};

std::size_t open_descriptors() { return test::list_folder("/proc/self/fd").size(); }

bool has_children() { return waitpid(-1, nullptr, WNOHANG) != -1 || errno != ECHILD; }

sighandler_t sigpipe_handler() {
    struct sigaction action {};
    sigaction(SIGPIPE, nullptr, &action);
    return action.sa_handler;
}

// ---- result ----------------------------------------------------------------------------------------------------

TEST(Execvp, ReturnsEveryExitCode) {
    for (int code = 0; code <= 255; ++code)
        EXPECT_EQ(run_bare({"exit", std::to_string(code)}), code);
}

TEST(Execvp, ReturnsMinusTwoWhenASignalEndedTheChild) {
    for (const int signal : {SIGHUP, SIGKILL, SIGTERM, SIGSEGV, SIGABRT})
        EXPECT_EQ(run_bare({"signal", std::to_string(signal)}), -2) << signal;
}

TEST(Execvp, Returns100WhenTheProgramCannotBeExecuted) {
    const TempFolder folder;
    test::write_file(folder / "not executable", "text", 0644);
    const std::string missing = folder / "missing";
    for (const std::string &file :
         {std::string("no-such-program-anywhere"), missing, folder / "not executable", folder.path(), std::string()}) {
        EXPECT_EQ(
            _backup_execvp(file.c_str(), nullptr, nullptr, 0, Vector({file}).get(), Vector({}).get(), nullptr, nullptr),
            100)
            << file;
    }
    std::array<char, 64> error{};
    collected.clear();
    EXPECT_EQ(_backup_execvp(missing.c_str(), "input", error.data(), error.size(), Vector({missing}).get(),
                             Vector({}).get(), nullptr, collect),
              100)
        << "with every channel connected";
    EXPECT_EQ(collected, "");
    EXPECT_STREQ(error.data(), "");
}

TEST(Execvp, LeavesNoDescriptorAndNoChildBehind) {
    const std::size_t before = open_descriptors();
    run_connected({"both outputs"}, "input");
    run_connected({"signal", "9"});
    run_bare({"exit", "3"});
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_FALSE(has_children());
}

TEST(Execvp, WaitsForAChildThatClosedItsOutputsEarly) {
    const Outcome outcome = run_connected({"close outputs"});
    EXPECT_EQ(outcome.result, 9);
}

TEST(Execvp, ReturnsTheWaitsOwnResultWhenNobodyCanBeWaitedFor) {
    const int result = in_own_process([] {
        std::signal(SIGCHLD, SIG_IGN); // children of this process vanish by themselves
        return run_bare({"exit", "3"}) == -1 ? 0 : 1;
    });
    EXPECT_EQ(result, 0);
}

TEST(Execvp, ReportsAForkThatFails) {
    REQUIRE_ROOT(); // to give it up: the limit does not hold for root
    const int result = in_own_process([] {
        const Diagnostics diagnostics(level::error);
        const rlimit none{0, 0};
        setrlimit(RLIMIT_NPROC, &none);
        if (setuid(65534) != 0) return 2;
        const std::size_t before = open_descriptors();
        const Outcome outcome = run_connected({"exit", "0"});
        if (outcome.result != -1 || open_descriptors() != before) return 3;
        // The line has no end of its own.
        return diagnostics.without_places() == "(error) _backup_execvp: fork error [Resource temporarily unavailable]"
                   ? 0
                   : 4;
    });
    EXPECT_EQ(result, 0);
}

TEST(Execvp, ReportsAPipeThatCannotBeMade) {
    const int result = in_own_process([] {
        const Diagnostics diagnostics(level::error);
        const rlimit few{5, 5}; // enough for one pipe at most
        setrlimit(RLIMIT_NOFILE, &few);
        if (run_connected({"exit", "0"}).result != -1) return 3;
        return diagnostics.without_places() == "(error) _backup_execvp: pipe error [Too many open files]\n" ? 0 : 4;
    });
    EXPECT_EQ(result, 0);
}

// ---- program and environment -----------------------------------------------------------------------------------

TEST(Execvp, LooksTheProgramUpOnItsOwnSearchPath) {
    const TempFolder folder;
    ASSERT_EQ(symlink(child_program().c_str(), (folder / "program-of-the-test").c_str()), 0);
    const Environment path("PATH", "/nowhere:" + folder.path());
    collected.clear();
    EXPECT_EQ(_backup_execvp("program-of-the-test", nullptr, nullptr, 0, Vector({"zero", "arguments", "a b", ""}).get(),
                             Vector({"PATH=/elsewhere"}).get(), nullptr, collect),
              0);
    EXPECT_EQ(collected, "zero\narguments\na b\n\n") << "the vector arrives as it is";
}

TEST(Execvp, RunsATextWithoutAnInterpreterLineByTheShell) {
    const TempFolder folder;
    test::write_file(folder / "script", "exit 17\n", 0755);
    EXPECT_EQ(_backup_execvp((folder / "script").c_str(), nullptr, nullptr, 0, Vector({"script"}).get(),
                             Vector({}).get(), nullptr, nullptr),
              17);
}

TEST(Execvp, HandsOverExactlyTheGivenEnvironment) {
    const Environment inherited("TSBACKUP_TEST_INHERITED", "not for children");
    EXPECT_EQ(output_of({"environment"}), "");
    EXPECT_EQ(output_of({"environment"}, {"RSYNC_PASSWORD=a b\"c"}), "RSYNC_PASSWORD=a b\"c\n");
    EXPECT_EQ(output_of({"environment"}, {"B=2", "A=1", "PATH=/x"}), "B=2\nA=1\nPATH=/x\n");
}

TEST(Execvp, TakesNoEnvironmentForAnEmptyOne) {
    collected.clear();
    EXPECT_EQ(_backup_execvp(child_program().c_str(), nullptr, nullptr, 0, Vector({"child", "environment"}).get(),
                             nullptr, nullptr, collect),
              0);
    EXPECT_EQ(collected, "");
}

// ---- standard input --------------------------------------------------------------------------------------------

TEST(Execvp, WritesTheInputAndClosesIt) {
    for (const char *input : {"", "x", "two\nlines\n", "caf\xc3\xa9"})
        EXPECT_EQ(run_connected({"echo input"}, input).output, input);
}

TEST(Execvp, WritesAnInputThatIsLargerThanAPipe) {
    std::string input;
    while (input.size() < 1'000'003)
        input += static_cast<char>('a' + input.size() % 26);
    const Outcome outcome = run_connected({"echo input"}, input.c_str());
    EXPECT_EQ(outcome.result, 0);
    EXPECT_TRUE(outcome.output == input) << outcome.output.size() << " bytes";
}

TEST(Execvp, OutlivesAChildThatDoesNotReadItsInput) {
    const std::string input(1'000'000, 'x');
    for (const auto handler : {SIG_DFL, SIG_IGN}) {
        std::signal(SIGPIPE, handler);
        EXPECT_EQ(run_connected({"close input", "0"}, input.c_str()).result, 7);
        EXPECT_EQ(run_connected({"close input", "100"}, input.c_str()).result, 7);
        EXPECT_EQ(run_connected({"exit", "5"}, input.c_str()).result, 5);
        EXPECT_EQ(run_connected({"exit", "5"}, "short").result, 5);
        EXPECT_EQ(sigpipe_handler(), handler) << "the disposition is as it was";
    }
    std::signal(SIGPIPE, SIG_DFL);
}

TEST(Execvp, CompletesEveryStepThatASignalInterrupts) {
    struct sigaction tick {};
    tick.sa_handler = [](int) {}; // no SA_RESTART: calls return EINTR
    struct sigaction before {};
    sigaction(SIGALRM, &tick, &before);
    const itimerval often{{0, 1500}, {0, 1500}};
    const itimerval never{};
    setitimer(ITIMER_REAL, &often, nullptr);
    const std::string input(600'000, 'x');
    const Outcome slow = run_connected({"size of slow input"}, input.c_str());
    const Outcome silent = run_connected({"close outputs"});
    const Outcome error = run_connected({"error text with zero bytes"});
    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &before, nullptr);

    EXPECT_EQ(slow.result, 0);
    EXPECT_EQ(slow.output, "600000");
    EXPECT_EQ(silent.result, 9);
    EXPECT_EQ(error.error, "abef");
}

// ---- standard output and standard error ------------------------------------------------------------------------

TEST(Execvp, SeparatesTheOutputsWhenTheErrorsAreCollected) {
    const Outcome outcome = run_connected({"both outputs"});
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.output, "out 1\nout 2\n");
    EXPECT_EQ(outcome.error, "err 1\nerr 2\n");
}

TEST(Execvp, MergesTheOutputsWhenOnlyAReaderIsGiven) {
    EXPECT_EQ(output_of({"both outputs"}), "out 1\nerr 1\nout 2\nerr 2\n");
}

/// Runs process_child without a reader in a process whose standard streams are files; what they got.
struct Inherited {
    std::string output;
    std::string error;
    std::string collected;
};

Inherited run_inheriting(bool with_error_buffer) {
    const TempFolder folder;
    const int result = in_own_process([&] {
        dup2(open((folder / "output").c_str(), O_WRONLY | O_CREAT, 0600), STDOUT_FILENO);
        dup2(open((folder / "error").c_str(), O_WRONLY | O_CREAT, 0600), STDERR_FILENO);
        std::array<char, 64> error{};
        const std::int32_t code =
            _backup_execvp(child_program().c_str(), nullptr, with_error_buffer ? error.data() : nullptr, error.size(),
                           Vector({"child", "both outputs"}).get(), Vector({}).get(), nullptr, nullptr);
        test::write_file(folder / "collected", error.data());
        return code;
    });
    EXPECT_EQ(result, 0);
    return {test::read_file(folder / "output"), test::read_file(folder / "error"),
            test::read_file(folder / "collected")};
}

TEST(Execvp, LetsTheChildInheritWhatIsNotConnected) {
    const Inherited bare = run_inheriting(false);
    EXPECT_EQ(bare.output, "out 1\nout 2\n");
    EXPECT_EQ(bare.error, "err 1\nerr 2\n");
    EXPECT_EQ(bare.collected, "");

    const Inherited errors_collected = run_inheriting(true);
    EXPECT_EQ(errors_collected.output, "out 1\nout 2\n");
    EXPECT_EQ(errors_collected.error, "");
    EXPECT_EQ(errors_collected.collected, "err 1\nerr 2\n");
}

TEST(Execvp, LetsTheChildInheritTheInput) {
    const TempFolder folder;
    test::write_file(folder / "input", "from a file");
    const int result = in_own_process([&] {
        dup2(open((folder / "input").c_str(), O_RDONLY), STDIN_FILENO);
        return output_of({"echo input"}) == "from a file" ? 0 : 1;
    });
    EXPECT_EQ(result, 0);
}

struct ErrorTextCase {
    const char *name;
    std::size_t length; // printed by the child
    std::size_t size;   // of the buffer
    std::size_t kept;
};

const ErrorTextCase kErrorTextCases[] = {
    {"nothing printed", 0, 100, 0},
    {"room to spare", 50, 100, 50},
    {"exact fit with its terminator", 99, 100, 99},
    {"one too long", 100, 100, 99},
    {"cut in the first piece", 3000, 100, 99},
    {"one piece", 1023, 4096, 1023},
    {"one piece and a bit", 1024, 4096, 1024},
    {"many pieces", 50'000, 60'000, 50'000},
    {"cut in a later piece", 50'000, 2000, 1999},
    {"cut at a piece's end", 5000, 1024, 1023},
    {"room for the terminator alone", 50, 1, 0},
};

TEST(Execvp, CollectsTheErrorTextUpToTheBuffersSize) {
    for (const ErrorTextCase &c : kErrorTextCases) {
        std::string expected;
        while (expected.size() < c.kept)
            expected += static_cast<char>('a' + expected.size() % 26);
        std::vector<char> buffer(c.size + 16, '#');
        EXPECT_EQ(_backup_execvp(child_program().c_str(), nullptr, buffer.data(), c.size,
                                 Vector({"child", "error text", std::to_string(c.length), "4"}).get(), Vector({}).get(),
                                 nullptr, nullptr),
                  4)
            << c.name;
        EXPECT_TRUE(std::string(buffer.data()) == expected) << c.name;
        EXPECT_TRUE(std::all_of(buffer.begin() + static_cast<std::ptrdiff_t>(c.size), buffer.end(),
                                [](char byte) { return byte == '#'; }))
            << "behind the buffer: " << c.name;
    }
}

TEST(Execvp, WritesNothingIntoAnErrorBufferOfNoBytes) {
    char untouched = '#';
    EXPECT_EQ(_backup_execvp(child_program().c_str(), nullptr, &untouched, 0,
                             Vector({"child", "error text", "10", "4"}).get(), Vector({}).get(), nullptr, nullptr),
              4);
    EXPECT_EQ(untouched, '#');
}

TEST(Execvp, AppendsEachPieceOfTheErrorTextUpToAZeroByte) {
    EXPECT_EQ(run_connected({"error text with zero bytes"}).error, "abef");
}

// A full buffer ends the reading, so a child that goes on writing loses its reader.
TEST(Execvp, StopsReadingErrorsWhenTheBufferIsFull) {
    std::array<char, 100> buffer{};
    EXPECT_EQ(_backup_execvp(child_program().c_str(), nullptr, buffer.data(), buffer.size(),
                             Vector({"child", "error text", "200000", "0"}).get(), Vector({}).get(), nullptr, nullptr),
              -2);
    EXPECT_EQ(std::strlen(buffer.data()), 99U);
}

// ---- the reader ------------------------------------------------------------------------------------------------

BackupRun *seen_run = nullptr;

TEST(Execvp, HandsItsRunToTheReader) {
    BackupRun run;
    seen_run = nullptr;
    const StdoutReader note_run = [](BackupRun *given, int descriptor) {
        seen_run = given;
        return collect(given, descriptor);
    };
    EXPECT_EQ(_backup_execvp(child_program().c_str(), nullptr, nullptr, 0, Vector({"child", "exit", "0"}).get(),
                             Vector({}).get(), &run, note_run),
              0);
    EXPECT_EQ(seen_run, &run);
}

TEST(Execvp, KeepsTheExitCodeWhenTheReaderCountsSomething) {
    const StdoutReader count = [](BackupRun *given, int descriptor) {
        collect(given, descriptor);
        return std::int32_t{62};
    };
    EXPECT_EQ(_backup_execvp(child_program().c_str(), nullptr, nullptr, 0, Vector({"child", "exit", "3"}).get(),
                             Vector({}).get(), nullptr, count),
              3);
}

TEST(Execvp, ReturnsAnotherFailureOfTheReaderOnceTheChildHasEnded) {
    const StdoutReader fail = [](BackupRun *, int) { return std::int32_t{-5}; };
    for (const char *code : {"0", "3"}) {
        EXPECT_EQ(_backup_execvp(child_program().c_str(), nullptr, nullptr, 0, Vector({"child", "exit", code}).get(),
                                 Vector({}).get(), nullptr, fail),
                  -5);
        EXPECT_FALSE(has_children());
    }
}

/// Reads until the child is ready, then asks for cancellation.
std::int32_t cancel_when_ready(BackupRun *, int descriptor) {
    std::array<char, 5> ready{};
    for (std::size_t done = 0; done < ready.size();) {
        const ssize_t got = read(descriptor, ready.data() + done, ready.size() - done);
        if (got <= 0) return 0;
        done += static_cast<std::size_t>(got);
    }
    return kExecCancelled;
}

TEST(Execvp, HangsTheChildUpAndDoesNotWaitWhenTheReaderCancels) {
    const std::size_t before = open_descriptors();
    std::array<char, 64> error{};
    str_snprintf(error.data(), error.size(), "untouched");
    EXPECT_EQ(_backup_execvp(child_program().c_str(), "input", error.data(), error.size(),
                             Vector({"child", "wait for hang-up"}).get(), Vector({}).get(), nullptr, cancel_when_ready),
              -62);
    EXPECT_STREQ(error.data(), "untouched");
    EXPECT_EQ(open_descriptors(), before);

    int status = 0;
    EXPECT_GT(waitpid(-1, &status, 0), 0) << "the child is still there to be waited for";
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 42) << "it was hung up";
    EXPECT_FALSE(has_children());
}

// ---- what the child starts with --------------------------------------------------------------------------------

TEST(Execvp, ClosesTheDescriptorsFrom3To254InTheChild) {
    const int result = in_own_process([] {
        if (close_range(3, ~0U, 0) != 0) return 2;
        for (const int descriptor : {3, 4, 100, 253, 254, 255, 300})
            if (dup2(STDOUT_FILENO, descriptor) != descriptor) return 3; // without close-on-exec
        if (output_of({"descriptors"}) != "0 1 2 255 300 ") return 4;
        return run_connected({"descriptors"}).output == "0 1 2 255 300 " ? 0 : 5;
    });
    EXPECT_EQ(result, 0);
}

TEST(Execvp, HandsDownNoPipeEndOfItsOwn) {
    const int result = in_own_process([] {
        if (close_range(3, ~0U, 0) != 0) return 2;
        for (int descriptor = 3; descriptor < 255; ++descriptor) // pipe ends lie above
            if (dup2(STDOUT_FILENO, descriptor) != descriptor) return 3;
        return run_connected({"descriptors"}).output == "0 1 2 " ? 0 : 4;
    });
    EXPECT_EQ(result, 0);
}

TEST(Execvp, WorksWithAnyOfItsOwnStandardStreamsClosed) {
    for (unsigned closed = 0; closed < 8; ++closed) {
        const int result = in_own_process([closed] {
            for (int descriptor = 0; descriptor < 3; ++descriptor)
                if ((closed & (1U << static_cast<unsigned>(descriptor))) != 0) close(descriptor);
            const Outcome echoed = run_connected({"echo input"}, "input");
            if (echoed.result != 0 || echoed.output != "input" || !echoed.error.empty()) return 1;
            const Outcome both = run_connected({"both outputs"}, "input");
            if (both.output != "out 1\nout 2\n" || both.error != "err 1\nerr 2\n") return 2;
            collected.clear();
            const std::int32_t merged =
                _backup_execvp(child_program().c_str(), "input", nullptr, 0, Vector({"child", "both outputs"}).get(),
                               Vector({}).get(), nullptr, collect);
            if (merged != 0 || collected != "out 1\nerr 1\nout 2\nerr 2\n") return 3;
            if (run_bare({"exit", "6"}) != 6) return 4;
            for (int descriptor = 0; descriptor < 3; ++descriptor) { // and they are closed still
                const bool open = fcntl(descriptor, F_GETFD) != -1;
                if (open == ((closed & (1U << static_cast<unsigned>(descriptor))) != 0)) return 5;
            }
            return 0;
        });
        EXPECT_EQ(result, 0) << "closed streams (bits): " << closed;
    }
}

TEST(Execvp, LeavesAClosedStreamClosedInTheChild) {
    const int result = in_own_process([] {
        close(STDIN_FILENO);
        return output_of({"descriptors"}) == "1 2 " ? 0 : 1;
    });
    EXPECT_EQ(result, 0);
}

TEST(Execvp, GivesTheChildTheDefaultActionOfSigpipe) {
    std::signal(SIGPIPE, SIG_IGN);
    EXPECT_EQ(run_bare({"sigpipe"}), 0);
    EXPECT_EQ(run_connected({"sigpipe"}, "input").result, 0);
    EXPECT_EQ(sigpipe_handler(), SIG_IGN);
    std::signal(SIGPIPE, SIG_DFL);
}

struct PriorityCase {
    const char *name;
    bool by_path;     // "FOLDER/NAME" instead of a look-up of "NAME"
    const char *file; // its name
    const char *expected;
};

TEST(Execvp, ResetsThePriorityOfEveryProgramButNice) {
    REQUIRE_ROOT(); // raising a priority again is root's
    const PriorityCase cases[] = {
        {"any program runs at normal priority", false, "program", "0"},
        {"exactly \"nice\" keeps the job's", false, "nice", "5"},
        {"another place's nice is any program", true, "nice", "0"},
        {"a longer name is any program", false, "nicer", "0"},
        {"a shorter name is any program", false, "nic", "0"},
    };
    const TempFolder folder;
    for (const PriorityCase &c : cases) {
        if (!test::file_exists(folder / c.file)) {
            ASSERT_EQ(symlink(child_program().c_str(), (folder / c.file).c_str()), 0);
        }
        const Environment path("PATH", folder.path());
        const int result = in_own_process([&] {
            setpriority(PRIO_PROCESS, 0, 5);
            collected.clear();
            const std::string file = c.by_path ? folder / c.file : c.file;
            _backup_execvp(file.c_str(), nullptr, nullptr, 0, Vector({"child", "priority"}).get(), Vector({}).get(),
                           nullptr, collect);
            if (getpriority(PRIO_PROCESS, 0) != 5) return 2;
            return collected == c.expected ? 0 : 1;
        });
        EXPECT_EQ(result, 0) << c.name;
    }
}

TEST(Execvp, LeavesARaisedPriorityToTheParentAlone) {
    REQUIRE_ROOT();
    const int result = in_own_process([] {
        setpriority(PRIO_PROCESS, 0, -5);
        return output_of({"priority"}) == "0" && getpriority(PRIO_PROCESS, 0) == -5 ? 0 : 1;
    });
    EXPECT_EQ(result, 0);
}

TEST(Execvp, DropsTheParentsSignalHandlers) {
    const int result = in_own_process([] {
        std::signal(SIGTERM, [](int) {});
        return run_bare({"signal", std::to_string(SIGTERM)}) == -2 ? 0 : 1;
    });
    EXPECT_EQ(result, 0);
}

// ---- shell commands --------------------------------------------------------------------------------------------

struct ShellCase {
    const char *command;
    std::int32_t expected;
};

const ShellCase kShellCases[] = {
    {"exit 0", 0},
    {"exit 3", 3 * 256},
    {"exit 255", 255 * 256},
    {"kill -9 $$", 9},
    {"true | false", 256},
    {"false | true", 0},
    {"", 0},
    {"no-such-program-anywhere 2>/dev/null", 127 * 256},
    {"cat >/dev/null", 0}, // its input ends at once
    {"read line", 256},
};

TEST(BackupSystem, ReturnsTheRawWaitStatus) {
    for (const ShellCase &c : kShellCases)
        EXPECT_EQ(backup_system(c.command), c.expected) << c.command;
}

TEST(BackupSystem, LogsTheCommandAtDebugLevel) {
    const Diagnostics diagnostics;
    backup_system("true %s");
    EXPECT_EQ(diagnostics.without_places(), "(debug) cmd=true %s\n");
}

TEST(BackupSystem, LogsNothingAtTheUsualThreshold) {
    const Diagnostics diagnostics(level::info);
    backup_system("true");
    EXPECT_EQ(diagnostics.text(), "");
}

TEST(BackupSystem, GivesTheCommandTheDefaultActionOfSigpipe) {
    for (const auto handler : {SIG_IGN, SIG_DFL}) {
        std::signal(SIGPIPE, handler);
        EXPECT_EQ(backup_system((child_program() + " sigpipe").c_str()), 0);
        EXPECT_EQ(sigpipe_handler(), handler) << "the disposition is as it was";
    }
    std::signal(SIGPIPE, SIG_DFL);
}

TEST(BackupSystem, ReturnsMinusOneWhenTheShellCannotBeStarted) {
    const int result = in_own_process([] {
        std::signal(SIGPIPE, SIG_IGN);
        const rlimit few{3, 3};
        setrlimit(RLIMIT_NOFILE, &few);
        return backup_system("true") == -1 && sigpipe_handler() == SIG_IGN ? 0 : 1;
    });
    EXPECT_EQ(result, 0);
}

TEST(BackupSystem, LeavesNoDescriptorAndNoChildBehind) {
    const std::size_t before = open_descriptors();
    backup_system("true");
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_FALSE(has_children());
}

TEST(BackupSystemf, FormatsTheCommand) {
    const Diagnostics diagnostics;
    EXPECT_EQ(backup_systemf("exit %d # %s", 4, "a%sb"), 4 * 256);
    EXPECT_EQ(diagnostics.without_places(), "(debug) cmd=exit 4 # a%sb\n");
}

TEST(BackupSystemf, CutsTheCommandAt2047Characters) {
    for (const std::size_t length : {2046U, 2047U, 2048U, 5000U}) {
        const Diagnostics diagnostics;
        const std::string command = ": " + std::string(length - 2, 'x');
        EXPECT_EQ(backup_systemf("%s", command.c_str()), 0);
        EXPECT_EQ(diagnostics.without_places(), "(debug) cmd=" + command.substr(0, 2047) + "\n") << length;
    }
}

TEST(BackupSystemf, RunsNothingThatCannotBeFormatted) {
    const Diagnostics diagnostics;
    const std::array<wchar_t, 2> no_character = {static_cast<wchar_t>(0x7fffffff), L'\0'};
    EXPECT_EQ(backup_systemf("rm %ls", no_character.data()), -1);
    EXPECT_EQ(diagnostics.text(), "");
}

TEST(BackupSystemPastHangUp, IsLikeTheOrdinaryOne) {
    std::signal(SIGPIPE, SIG_IGN);
    for (const ShellCase &c : kShellCases)
        EXPECT_EQ(backup_system_past_hang_up(c.command), c.expected) << c.command;
    EXPECT_EQ(backup_system_past_hang_up((child_program() + " sigpipe").c_str()), 0);
    std::signal(SIGPIPE, SIG_DFL);

    const Diagnostics diagnostics;
    const std::size_t before = open_descriptors();
    backup_system_past_hang_up("true %s");
    EXPECT_EQ(diagnostics.without_places(), "(debug) cmd=true %s\n");
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_FALSE(has_children());
}

TEST(BackupSystemPastHangUp, GoesOnAfterAHangUp) {
    EXPECT_EQ(backup_system("kill -HUP $$; exit 3"), SIGHUP);
    EXPECT_EQ(backup_system_past_hang_up("kill -HUP $$; exit 3"), 3 * 256);
    EXPECT_EQ(backup_system_past_hang_up("sh -c 'kill -HUP $$; exit 3'"), 3 * 256);
    EXPECT_EQ(backup_system_past_hang_up("kill -TERM $$; exit 3"), SIGTERM);
    // This process still ends by one.
    EXPECT_EQ(std::signal(SIGHUP, SIG_DFL), SIG_DFL);
}

TEST(BackupSystemPastHangUp, ReturnsMinusOneWhenTheShellCannotBeStarted) {
    REQUIRE_ROOT(); // to give it up: the limit does not hold for root
    const int result = in_own_process([] {
        const rlimit none{0, 0};
        setrlimit(RLIMIT_NPROC, &none);
        if (setuid(65534) != 0) return 2;
        return backup_system_past_hang_up("true") == -1 ? 0 : 1;
    });
    EXPECT_EQ(result, 0);
}

// ---- core files ------------------------------------------------------------------------------------------------

struct CoreCase {
    int megabytes;
    rlim_t bytes;
};

TEST(SetCoreLimit, SetsBothLimitsInMebibytes) {
    rlimit start{};
    getrlimit(RLIMIT_CORE, &start);
    const CoreCase cases[] = {{0, 0},
                              {-1, 0},
                              {INT32_MIN, 0},
                              {1, 1048576},
                              {64, 67108864},
                              {3000, 3145728000},
                              {INT32_MAX, 2251799812636672}};
    for (const CoreCase &c : cases) {
        if (c.bytes > start.rlim_max && !test::is_real_root()) continue; // a hard limit is raised by root alone
        const int result = in_own_process([&c] {
            set_core_limit(c.megabytes);
            rlimit limit{};
            getrlimit(RLIMIT_CORE, &limit);
            return limit.rlim_cur == c.bytes && limit.rlim_max == c.bytes ? 0 : 1;
        });
        EXPECT_EQ(result, 0) << c.megabytes;
    }
}

} // namespace
} // namespace tsbackup
