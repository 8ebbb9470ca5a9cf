#include "engine.h"

#include <ostream>

namespace tsbackup::test {
namespace {

constexpr std::int32_t kFine = 100'000;
constexpr std::int32_t kSecond = 1'000'000'000;

struct MtimeCase {
    const char *name;
    timespec src;
    timespec dst;
    std::int32_t resolution_ns;
    std::int32_t coarse;
    int expected;
};

std::ostream &operator<<(std::ostream &stream, const MtimeCase &mtime_case) { return stream << mtime_case.name; }

const MtimeCase kMtimeCases[] = {
    {"equal", {100, 5}, {100, 5}, kFine, 0, 0},
    {"equal, full seconds", {100, 5}, {100, 5}, kSecond, 0, 0},
    {"equal, coarse", {100, 5}, {100, 5}, kFine, 1, 0},
    {"the epoch itself", {0, 0}, {0, 0}, kFine, 0, 0},

    {"apart within one unit", {100, 99'999}, {100, 0}, kFine, 0, 0},
    {"the next unit", {100, 100'000}, {100, 0}, kFine, 0, 1},
    {"one nanosecond apart across a unit's border", {100, 100'000}, {100, 99'999}, kFine, 0, 1},
    {"one nanosecond older across a unit's border", {100, 99'999}, {100, 100'000}, kFine, 0, -1},
    {"older by a unit", {100, 0}, {100, 100'000}, kFine, 0, -1},
    {"newer by a second", {101, 0}, {100, 0}, kFine, 0, 1},
    {"older by a second", {99, 0}, {100, 0}, kFine, 0, -1},
    {"across a second's border", {101, 0}, {100, 999'999'999}, kFine, 0, 1},

    {"FAT: sub-second part differs", {100, 999'999'999}, {100, 0}, kSecond, 0, 0},
    {"FAT: one and a half seconds newer", {101, 500'000'000}, {100, 0}, kSecond, 0, 1},
    {"FAT: one nanosecond across the second", {101, 0}, {100, 999'999'999}, kSecond, 0, 1},
    {"FAT: one nanosecond older across the second", {100, 999'999'999}, {101, 0}, kSecond, 0, -1},
    {"FAT: older", {98, 0}, {100, 0}, kSecond, 0, -1},

    {"same second, finer source, plain disk", {100, 500'000'000}, {100, 0}, kFine, 0, 1},
    {"same second, finer source, network mount", {100, 500'000'000}, {100, 0}, kFine, 1, 0},
    {"network: almost one second newer", {100, 999'999'999}, {100, 0}, kFine, 1, 0},
    {"network: last unit below one second newer", {100, 999'900'000}, {100, 0}, kFine, 1, 0},
    {"network: one second newer", {101, 0}, {100, 0}, kFine, 1, 1},
    {"network: a second and a unit newer", {101, 100'000}, {100, 0}, kFine, 1, 1},
    {"network: a tenth older", {99, 900'000'000}, {100, 0}, kFine, 1, 0},
    {"network: one second older", {99, 0}, {100, 0}, kFine, 1, 0},
    {"network: one and a half seconds older", {98, 500'000'000}, {100, 0}, kFine, 1, 0},
    {"network: a unit less than two seconds older", {98, 100'000}, {100, 0}, kFine, 1, 0},
    {"network: part of a unit less than two seconds older", {98, 1}, {100, 0}, kFine, 1, -1},
    {"network: two seconds older", {98, 0}, {100, 0}, kFine, 1, -1},
    {"network: more than two seconds older", {97, 999'900'000}, {100, 0}, kFine, 1, -1},
    {"network: destination with a sub-second part, source newer", {100, 500'000'000}, {100, 1}, kFine, 1, 1},
    {"network: destination with a sub-second part, source older", {99, 500'000'000}, {100, 1}, kFine, 1, -1},
    {"network: the tolerance is the destination's alone", {100, 0}, {99, 500'000'000}, kFine, 1, 1},
    {"network: any number that is not 0 is coarse", {100, 500'000'000}, {100, 0}, kFine, 7, 0},

    {"coarse and full seconds: same second", {100, 999'999'999}, {100, 0}, kSecond, 1, 0},
    {"coarse and full seconds: one second newer", {101, 0}, {100, 0}, kSecond, 1, 1},
    {"coarse and full seconds: one second older", {99, 0}, {100, 0}, kSecond, 1, 0},
    {"coarse and full seconds: almost two seconds older", {98, 1}, {100, 0}, kSecond, 1, -1},
    {"coarse and full seconds: two seconds older", {98, 0}, {100, 0}, kSecond, 1, -1},

    {"a resolution of one nanosecond", {100, 1}, {100, 0}, 1, 0, 1},
    {"before 1970: equal", {-5, 250'000'000}, {-5, 250'000'000}, kFine, 0, 0},
    {"before 1970: newer", {-4, 0}, {-5, 0}, kFine, 0, 1},
    {"before 1970: older", {-6, 0}, {-5, 0}, kFine, 0, -1},
    {"before 1970: network tolerance", {-5, 500'000'000}, {-5, 0}, kFine, 1, 0},
    // Kept: times are unsigned when they are cut into units, so that what is before 1970 counts as far in the future.
    {"source before 1970, destination after", {-1, 0}, {1, 0}, kFine, 0, 1},
    {"source after 1970, destination before", {1, 0}, {-1, 0}, kFine, 0, -1},
    {"far apart", {4'000'000'000, 0}, {0, 0}, kFine, 0, 1},
    {"far apart the other way", {0, 0}, {4'000'000'000, 0}, kFine, 0, -1},
};

class MtimeCompare : public testing::TestWithParam<MtimeCase> {};

TEST_P(MtimeCompare, GivesTheOrder) {
    struct stat src {};
    struct stat dst {};
    src.st_mtim = GetParam().src;
    dst.st_mtim = GetParam().dst;
    EXPECT_EQ(mtime_compare(src, dst, GetParam().resolution_ns, GetParam().coarse), GetParam().expected)
        << GetParam().name;
}

INSTANTIATE_TEST_SUITE_P(Times, MtimeCompare, testing::ValuesIn(kMtimeCases));

} // namespace
} // namespace tsbackup::test
