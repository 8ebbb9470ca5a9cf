// Odd names, long paths, deep and wide trees.

#include "engine.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <fstream>
#include <gmock/gmock.h>
#include <ostream>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tsbackup::test {
namespace {

using testing::HasSubstr;

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kMemoryIsTheProgramsAlone = false;
#else
constexpr bool kMemoryIsTheProgramsAlone = true;
#endif

class Names : public EngineTest {};

TEST_F(Names, OddOnesArriveByteForByte) {
    const std::string root = scratch();
    const std::vector<std::string> names = {
        "new\nline",
        "tab\tcr\r",
        "\x01\x7f",
        "\xff\xfe not UTF-8",
        "\xc3",
        "%s%n%d",
        "back\\slash",
        "'\"`$;&|",
        "-rf",
        "~",
        " ",
        "  leading and trailing  ",
        "*?[]",
        std::string("Gr\xc3\xbc\xc3\x9f") + "e",
        std::string(255, 'n'),
    };
    for (const std::string &name : names) {
        write_file(root + "/src/file " + (name.size() > 249 ? "" : name), name);
        write_file(root + "/src/" + name + "/" + name, name);
    }
    TestRun run;
    const Diagnostics diagnostics;
    copy_tree(run, root + "/src", root + "/dst");
    EXPECT_EQ(tree(root + "/dst"), tree(root + "/src"));
    EXPECT_EQ(run.failures(), "");
    for (const std::string &name : names) {
        EXPECT_EQ(read_file(root + "/dst/" + name + "/" + name), name);
        EXPECT_THAT(run.copied(), HasSubstr("Copy File  " + name + "/" + name + "\n"));
        EXPECT_THAT(run.copied(), HasSubstr("Copy Folder  " + name + "\n"));
        EXPECT_THAT(diagnostics.text(), HasSubstr("do_copy_dir(\"" + root + "/src/" + name + "\", "));
    }
}

TEST_F(Names, OddOnesInFailures) {
    const std::string root = scratch();
    write_file(root + "/src/%s\n\xff", "x");
    make_folder(root + "/dst/%s\n\xff");
    TestRun run;
    copy_tree(run, root + "/src", root + "/dst");
    EXPECT_EQ(run.failures(), "Cannot create file '" + root + "/dst/%s\n\xff' (error: Is a directory)!\n");
}

/// Opens (and makes) the chain of folders `name`/`name`/... and gives back the deepest.
int make_chain(const std::string &root, const std::string &name, int levels) {
    int folder = open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (int level = 0; level < levels; ++level) {
        mkdirat(folder, name.c_str(), 0755);
        const int inner = openat(folder, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        close(folder);
        folder = inner;
    }
    return folder;
}

void write_in(int folder, const char *name, const std::string &content) {
    const int fd = openat(folder, name, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    EXPECT_EQ(write(fd, content.data(), content.size()), static_cast<ssize_t>(content.size()));
    close(fd);
}

/// How many levels of `name` there are below `root`.
int levels_of(const std::string &root, const std::string &name) {
    int folder = open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    int levels = 0;
    for (;; ++levels) {
        const int inner = openat(folder, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        close(folder);
        if (inner < 0) return levels;
        folder = inner;
    }
}

class Descriptors {
  public:
    explicit Descriptors(rlim_t most) {
        getrlimit(RLIMIT_NOFILE, &before_);
        const rlimit limit = {most, before_.rlim_max};
        setrlimit(RLIMIT_NOFILE, &limit);
    }
    ~Descriptors() { setrlimit(RLIMIT_NOFILE, &before_); }
    Descriptors(const Descriptors &) = delete;
    Descriptors &operator=(const Descriptors &) = delete;

  private:
    rlimit before_{};
};

TEST_F(Names, DeepTreeIsCopiedWithFewDescriptors) {
    const std::string root = scratch();
    make_folder(root + "/src");
    make_folder(root + "/dst");
    const int deepest = make_chain(root + "/src", "d", 1000);
    for (int index = 0; index < 30; ++index)
        write_in(deepest, std::to_string(index).c_str(), "deep");
    close(deepest);
    TestRun run;
    {
        const Descriptors limit(1024);
        copy_tree(run, root + "/src", root + "/dst");
        TestRun second;
        copy_tree(second, root + "/src", root + "/dst");
        EXPECT_EQ(second.copied(), "");
    }
    EXPECT_EQ(run.failures(), "");
    EXPECT_EQ(run.error_code, 0);
    EXPECT_EQ(levels_of(root + "/dst", "d"), 1000);
    EXPECT_THAT(run.copied(), HasSubstr("/d/29\n"));
    const int copied = make_chain(root + "/dst", "d", 1000);
    struct stat status {};
    EXPECT_EQ(fstatat(copied, "29", &status, 0), 0);
    EXPECT_EQ(status.st_size, 4);
    close(copied);
}

TEST_F(Names, DeepTreeIsCopiedOnASmallStack) {
    if (!kMemoryIsTheProgramsAlone) GTEST_SKIP() << "the address sanitizer's memory would be measured";
    const std::string root = scratch();
    make_folder(root + "/src");
    close(make_chain(root + "/src", "d", 1000));
    const pid_t child = fork();
    if (child == 0) {
        // 1 KiB a level, and some for what stands above and below: the deepest trees fit the usual 8 MiB many times.
        const rlimit stack = {rlim_t{1000 + 256} * 1024, RLIM_INFINITY};
        setrlimit(RLIMIT_STACK, &stack);
        BackupRun run;
        run.clock_failed = 1;
        _exit(do_copy_dir((root + "/src").c_str(), (root + "/dst").c_str(), run) == 0 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(levels_of(root + "/dst", "d"), 1000);
}

/// Lengths of the two roots, so that each path of the chain meets the limit of 4095 characters at another letter.
struct LengthCase {
    std::size_t src;
    std::size_t dst;
    std::size_t name;
};

std::ostream &operator<<(std::ostream &stream, const LengthCase &c) {
    return stream << c.src << "_" << c.dst << "_" << c.name;
}

// Names of seven letters and eight lengths of the root: the cut falls on every letter of a name, and on the "/".
const LengthCase kLengthCases[] = {
    {100, 100, 7}, {101, 101, 7}, {102, 102, 7}, {103, 103, 7}, {104, 104, 7},   {105, 105, 7},
    {106, 106, 7}, {107, 107, 7}, {100, 103, 7}, {103, 100, 7}, {255, 107, 7},   {107, 255, 7},
    {100, 100, 1}, {100, 99, 20}, {99, 100, 20}, {99, 99, 255}, {150, 100, 255}, {100, 150, 255},
};

class LongPaths : public EngineTest, public testing::WithParamInterface<LengthCase> {};

TEST_P(LongPaths, AreCutAndTheWalkEnds) {
    const LengthCase &c = GetParam();
    const std::string root = scratch();
    const std::string src = root + "/" + std::string(c.src - root.size() - 1, 's');
    const std::string dst = root + "/" + std::string(c.dst - root.size() - 1, 't');
    const std::string name(c.name, 'd');
    const int levels = static_cast<int>((c.name == 1 ? 6000 : 4150) / (c.name + 1));
    make_folder(src);
    write_file(root + "/beside", "kept");
    int folder = open(src.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (int level = 0; level < levels; ++level) {
        const bool near_the_limit = c.src + static_cast<std::size_t>(level) * (c.name + 1) > 3800;
        if (level < 3 || near_the_limit) write_in(folder, "file", std::to_string(level));
        if (name.size() > 3) mkdirat(folder, "ddd", 0755); // what a cut name may happen to name
        mkdirat(folder, name.c_str(), 0755);
        const int inner = openat(folder, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        close(folder);
        folder = inner;
    }
    close(folder);

    alarm(120);
    TestRun run;
    {
        const Descriptors limit(1024);
        copy_tree(run, src, dst);
    }
    alarm(0);
    const std::size_t longest = std::max(c.src, c.dst);
    EXPECT_GE(levels_of(dst, name), static_cast<int>((4096 - longest) / (c.name + 1)) - 1) << "what fits is copied";
    EXPECT_EQ(levels_of(src, name), levels) << "the source stays as it is";
    EXPECT_EQ(read_file(dst + "/" + name + "/file"), "1");
    EXPECT_EQ(read_file(root + "/beside"), "kept");
    EXPECT_EQ(list_folder(root).size(), 3u);
}

INSTANTIATE_TEST_SUITE_P(Lengths, LongPaths, testing::ValuesIn(kLengthCases), [](const auto &about) {
    const LengthCase &c = about.param;
    return std::to_string(c.src) + "_" + std::to_string(c.dst) + "_" + std::to_string(c.name);
});

long peak_memory_kib() {
    std::ifstream status("/proc/self/status");
    std::string word;
    while (status >> word)
        if (word == "VmHWM:") {
            long kib = 0;
            status >> kib;
            return kib;
        }
    return -1;
}

TEST_F(Names, WideFolderIsCopiedInLittleMemory) {
    if (!kMemoryIsTheProgramsAlone) GTEST_SKIP() << "the address sanitizer's memory would be measured";
    constexpr long kMostKib = 12288;
    constexpr int kEntries = 100'000;
    const std::string root = scratch();
    make_folder(root + "/src");
    const int folder = open((root + "/src").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (int index = 0; index < kEntries; ++index)
        close(openat(folder, ("entry number " + std::to_string(index)).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    close(folder);

    const pid_t child = fork();
    if (child == 0) {
        std::ofstream("/proc/self/clear_refs") << "5";
        const long before = peak_memory_kib();
        BackupRun run;
        run.clock_failed = 1;
        const int result = do_copy_dir((root + "/src").c_str(), (root + "/dst").c_str(), run);
        const long grown = peak_memory_kib() - before;
        if (before < 0 || grown > kMostKib) std::fprintf(stderr, "peak memory grew by %ld KiB\n", grown);
        _exit(result != 0 ? 1 : before < 0 || grown > kMostKib ? 2 : 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0) << "1: the copy failed, 2: it took more than 12 MiB";
    EXPECT_EQ(list_folder(root + "/dst").size(), static_cast<std::size_t>(kEntries));
}

} // namespace
} // namespace tsbackup::test
