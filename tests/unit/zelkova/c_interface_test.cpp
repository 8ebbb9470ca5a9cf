#include "support.h"

extern "C" int every_operation_serves_c(void);

namespace tsbackup::test {
namespace {

TEST(CInterface, ServesAProgramCompiledAsC) { EXPECT_EQ(every_operation_serves_c(), 0); }

} // namespace
} // namespace tsbackup::test
