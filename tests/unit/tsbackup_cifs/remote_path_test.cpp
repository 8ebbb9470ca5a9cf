#include "remote_path.h"

#include <gtest/gtest.h>

namespace tsbackup::test {
namespace {

struct PathCase {
    const char *name;
    const char *path;
    const char *host;
    const char *share;
    const char *remainder;
    const char *folder;
    int depth;
};
const PathCase kPaths[] = {
    {"a share", "//host/share", "host", "share", "", "", 0},
    {"a share and a slash", "//host/share/", "host", "share", "", "", 0},
    {"a folder", "//host/share/folder", "host", "share", "folder", "folder", 2},
    {"folders", "//host/share/a/b/c", "host", "share", "a/b/c", "a/b/c", 4},
    {"a folder and a slash", "//host/share/a/", "host", "share", "a/", "a/", 2},
    {"backslashes", "\\\\host\\share\\a\\b", "host", "share", "a\\b", "a/b", 3},
    {"runs of slashes", "//host///share////a//b", "host", "share", "a//b", "a//b", 3},
    {"runs of backslashes", "\\\\host\\\\\\share\\\\a\\\\b", "host", "share", "a\\\\b", "a//b", 3},
    {"backslashes after slashes are part of the names", "//ho\\st/sh\\are/a\\b", "ho\\st", "sh\\are", "a\\b", "a\\b",
     2},
    {"slashes after backslashes are part of the names", "\\\\host\\sh/are\\a/b\\c", "host", "sh/are", "a/b\\c", "a/b/c",
     3},
    {"blanks", "//my host/my share/my folder", "my host", "my share", "my folder", "my folder", 2},
    {"no share", "//host", "host", "", "", "", 0},
    {"no host", "///share/a", "", "share", "a", "a", 2},
    {"nothing but separators", "//", "", "", "", "", 0},
};

TEST(RemotePathSplit, TakesTheseApart) {
    for (const PathCase &test : kPaths) {
        SCOPED_TRACE(test.name);
        int depth = -1;
        const auto path = remote_path_split(test.path, &depth);
        ASSERT_TRUE(path);
        EXPECT_EQ(path->host, test.host);
        EXPECT_EQ(path->share, test.share);
        EXPECT_EQ(path->remainder, test.remainder);
        EXPECT_EQ(path->folder(), test.folder);
        EXPECT_EQ(depth, test.depth);
        EXPECT_TRUE(remote_path_split(test.path, nullptr));
    }
}

TEST(RemotePathSplit, RefusesEveryOtherStart) {
    for (const char *path : {"", "/", "\\", "/host/share", "\\host\\share", "/\\host/share", "\\/host\\share", "host",
                             "host//share", " //host/share", "smb://host/share"}) {
        SCOPED_TRACE(path);
        EXPECT_FALSE(remote_path_split(path, nullptr));
    }
    EXPECT_FALSE(remote_path_split(std::nullopt, nullptr));
}

TEST(RemotePathSplit, CutsLongNames) {
    for (const std::size_t length : {62U, 63U, 64U, 500U}) {
        const std::string host(length, 'h');
        const std::string share(length, 's');
        const auto path = remote_path_split("//" + host + "/" + share + "/" + std::string(500, 'f'), nullptr);
        ASSERT_TRUE(path);
        EXPECT_EQ(path->host, host.substr(0, 63));
        EXPECT_EQ(path->share, share.substr(0, 63));
        EXPECT_EQ(path->remainder, std::string(500, 'f'));
    }
}

struct LoginCase {
    const char *login;
    const char *user;
    const char *domain;
};
const LoginCase kLogins[] = {
    {"alice", "alice", ""},
    {"HOME\\alice", "alice", "HOME"},
    {"HOME\\\\alice", "alice", "HOME"},
    {"HOME\\\\\\alice", "alice", "HOME"},
    {"HOME/alice", "alice", "HOME"},
    {"HOME///alice", "alice", "HOME"},
    {"alice@home.example", "alice", "home.example"},
    // The backslash decides before the slash, and the slash before the "@".
    {"HOME\\alice@mail.example", "alice@mail.example", "HOME"},
    {"alice@home\\bob", "bob", "alice@home"},
    {"a/b\\c", "c", "a/b"},
    {"a\\b/c", "b/c", "a"},
    {"a/b@c", "b@c", "a"},
    // The first one of its kind counts, and what is no run stays.
    {"a\\b\\c", "b\\c", "a"},
    {"a\\/b", "/b", "a"},
    {"a@b@c", "a", "b@c"},
    {"a@@b", "a", "@b"},
    {"HOME\\", "", "HOME"},
    {"\\alice", "alice", ""},
    {"alice@", "alice", ""},
    {"@home", "", "home"},
    {"", "", ""},
};

TEST(CifsLogin, IsSplitIntoUserAndDomain) {
    for (const LoginCase &test : kLogins) {
        SCOPED_TRACE(test.login);
        const CifsLogin login = cifs_login_split(test.login);
        EXPECT_EQ(login.user, test.user);
        EXPECT_EQ(login.domain, test.domain);
    }
}

} // namespace
} // namespace tsbackup::test
