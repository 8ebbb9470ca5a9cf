#include "read_start.h"

#include "support.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tsbackup::test {
namespace {

TEST(ReadStart, ReadsUpToTheLimitAndSaysWhetherMoreFollows) {
    const TempFolder folder;
    const std::string content(40000, 'x');
    write_file(folder / "file", content);
    struct Case {
        std::size_t limit;
        bool whole;
    };
    for (const Case &c : {Case{0, false}, Case{1, false}, Case{39999, false}, Case{40000, true}, Case{50000, true}}) {
        SCOPED_TRACE(c.limit);
        const FileStart file = read_start(folder / "file", c.limit);
        EXPECT_EQ(file.fault, "");
        EXPECT_EQ(file.bytes, content.substr(0, c.limit));
        EXPECT_EQ(file.whole, c.whole);
    }
}

TEST(ReadStart, SaysWhyAFileIsNotRead) {
    const TempFolder folder;
    ASSERT_EQ(mkfifo((folder / "pipe").c_str(), 0600), 0);
    ASSERT_EQ(symlink("loop", (folder / "loop").c_str()), 0);
    struct Case {
        std::string path;
        bool missing;
        const char *fault;
    };
    for (const Case &c :
         {Case{folder / "none", true, "No such file or directory"},
          Case{folder / "none/below", true, "No such file or directory"},
          Case{folder.path(), false, "Not a regular file"}, Case{folder / "pipe", false, "Not a regular file"},
          Case{"/dev/zero", false, "Not a regular file"},
          Case{folder / "loop", false, "Too many levels of symbolic links"}}) {
        SCOPED_TRACE(c.path);
        const FileStart file = read_start(c.path, 100);
        EXPECT_EQ(file.fault, c.fault);
        EXPECT_EQ(file.missing, c.missing);
        EXPECT_EQ(file.bytes, "");
    }
}

} // namespace
} // namespace tsbackup::test
