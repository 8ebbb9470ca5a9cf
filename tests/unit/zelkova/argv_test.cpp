#include "support.h"
#include "zelkova.h"

#include "tsbackup/owners.h"

namespace tsbackup::test {
namespace {

/// Has no form in any encoding, so that formatting it fails.
constexpr wchar_t kNoCharacter[] = {0x7fffffff, 0};

TEST(SafeAsprintf, GivesTheOwnedTextAndItsLength) {
    char *text = nullptr;
    const int length = safe_asprintf(&text, "/%s/%03d", "media", 7);
    const UniqueText owner(text);
    EXPECT_EQ(length, 10);
    EXPECT_STREQ(text, "/media/007");
}

TEST(SafeAsprintf, GivesAnEmptyText) {
    char *text = nullptr;
    const int length = safe_asprintf(&text, "%s", "");
    const UniqueText owner(text);
    EXPECT_EQ(length, 0);
    EXPECT_STREQ(text, "");
}

TEST(SafeAsprintf, LeavesNullWhenItFails) {
    char stale[] = "stale";
    char *text = stale;
    EXPECT_EQ(safe_asprintf(&text, "%ls", kNoCharacter), -1);
    EXPECT_EQ(text, nullptr);
}

TEST(AddArg, GivesOneFormattedArgument) {
    const UniqueText argument(add_arg("--exclude=%s%d", ".snapshot", 3));
    EXPECT_STREQ(argument.get(), "--exclude=.snapshot3");
}

TEST(AddArg, GivesNullWhenItFails) { EXPECT_EQ(add_arg("%ls", kNoCharacter), nullptr); }

TEST(ArgvFree, TakesAVectorWithItsArguments) {
    auto **argv = static_cast<char **>(std::calloc(4, sizeof(char *)));
    argv[0] = add_arg("rsync");
    argv[1] = add_arg("-%c", 'a');
    argv[2] = add_arg("%s", "");
    argv_free(argv); // the sanitizers of the test builds tell of a leak
}

TEST(ArgvFree, TakesAnEmptyVectorAndNull) {
    argv_free(static_cast<char **>(std::calloc(1, sizeof(char *))));
    argv_free(nullptr);
}

} // namespace
} // namespace tsbackup::test
