#include "config.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tsbackup::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(EventConfig, has_these_defaults) {
    EventConfig config;
    EXPECT_FALSE(config_read("", config));
    EXPECT_THAT(config.command, IsEmpty());
    EXPECT_EQ(config.timeout, 60s);
    EXPECT_TRUE(config.eject);
    EXPECT_EQ(config.eject_patience, 3600s);
}

TEST(EventConfig, is_read_line_by_line) {
    EventConfig config;
    EXPECT_FALSE(config_read("# a comment\n\n  command = /usr/bin/mail tool\nargument=--to\nargument = a b; $c\n"
                             "argument =\nargument = x = y\ntimeout=5\neject = no\n\teject-wait = 86400",
                             config));
    EXPECT_THAT(config.command, ElementsAre("/usr/bin/mail tool", "--to", "a b; $c", "", "x = y"));
    EXPECT_EQ(config.timeout, 5s);
    EXPECT_FALSE(config.eject);
    EXPECT_EQ(config.eject_patience, 86400s);
}

TEST(EventConfig, tells_where_it_is_wrong) {
    const struct {
        std::string text;
        int line;
        std::string reason;
    } cases[] = {
        {"command = mail", 1, "\"mail\" is no absolute path"},
        {"\n\ncommand =", 3, "\"\" is no absolute path"},
        {"command = /a\ncommand = /b", 2, "there is a command already"},
        {"argument = x", 1, "an argument needs a command above it"},
        {"timeout = 0", 1, "\"0\" is no number of seconds from 1 to 86400"},
        {"timeout = 5 s", 1, "\"5 s\" is no number of seconds from 1 to 86400"},
        {"timeout = 86401", 1, "\"86401\" is no number of seconds from 1 to 86400"},
        {"timeout = 99999999999999999999", 1, "\"99999999999999999999\" is no number of seconds from 1 to 86400"},
        {"eject-wait = -1", 1, "\"-1\" is no number of seconds from 1 to 86400"},
        {"eject = true", 1, "\"true\" is neither \"yes\" nor \"no\""},
        {"comand = /a", 1, "there is no setting \"comand\""},
        {"eject = no\neject", 2, "\"eject\" is no \"key = value\""},
    };
    for (const auto &[text, line, reason] : cases) {
        EventConfig config;
        const std::optional<ConfigFault> fault = config_read(text, config);
        ASSERT_TRUE(fault) << text;
        EXPECT_EQ(fault->line, line) << text;
        EXPECT_EQ(fault->reason, reason);
    }
}

} // namespace
} // namespace tsbackup::test
