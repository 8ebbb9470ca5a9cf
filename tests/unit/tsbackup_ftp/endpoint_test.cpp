// The remote end as a job names it, and the names below it.

#include "endpoint.h"

#include "support.h"

#include <cstddef>
#include <ostream>
#include <string>

namespace tsbackup {

// Two ends are told apart in messages.
static bool operator==(const FtpEndpoint &one, const FtpEndpoint &other) {
    return one.host == other.host && one.port == other.port && one.login == other.login &&
           one.password == other.password && one.path == other.path && one.site_utime == other.site_utime &&
           one.old_tls == other.old_tls;
}

static std::ostream &operator<<(std::ostream &out, const FtpEndpoint &end) {
    return out << "host '" << end.host << "' port " << end.port << " login '" << end.login << "' password '"
               << end.password << "' path '" << end.path << "' " << end.site_utime << end.old_tls;
}

namespace test {
namespace {

constexpr std::size_t kLongest = 4095;

FtpEndpoint end_at(const std::string &host, std::int32_t port = 0, const std::string &path = "") {
    FtpEndpoint endpoint;
    endpoint.host = host;
    endpoint.port = port;
    endpoint.path = path;
    return endpoint;
}

FtpEndpoint end_below(const std::string &path) { return end_at("host", 0, path); }

// ---- the text of a job -----------------------------------------------------------------------------------------

TEST(FtpEndpointText, Parts) {
    const struct {
        const char *url;
        FtpEndpoint expected;
    } cases[] = {
        {"ftp://host", end_at("host")},
        {"host", end_at("host")},
        {"ftp://host/", end_at("host")},
        {"host/", end_at("host")},
        {"ftp://host/path", end_at("host", 0, "path")},
        {"host/path", end_at("host", 0, "path")},
        {"ftp://host:2121/path/to", end_at("host", 2121, "path/to")},
        {"host:2121/path/to", end_at("host", 2121, "path/to")},
        {"host:2121", end_at("host", 2121)},
        {"host:2121/", end_at("host", 2121)},
        // Nothing but the scheme in small letters, at the very start, and once.
        {"FTP://host/path", end_at("FTP", 0, "/host/path")},
        {"Ftp://host", end_at("Ftp", 0, "/host")},
        {"ftps://host/path", end_at("ftps", 0, "/host/path")},
        {" ftp://host", end_at(" ftp", 0, "/host")},
        {"ftp:/host", end_at("ftp", 0, "host")},
        {"ftp:host", end_at("ftp")},
        {"ftp", end_at("ftp")},
        {"ftp://ftp://host", end_at("ftp", 0, "/host")},
        // Whatever comes first ends the host.
        {"host/a:22/b", end_at("host", 0, "a:22/b")},
        {"host:21:22/b", end_at("host", 21, "b")},
        {"bob@host/b", end_at("bob@host", 0, "b")},
        {"bob:secret@host/b", end_at("bob", 0, "b")},
        {"[::1]/b", end_at("[", 0, "b")},
        {"192.0.2.1/b", end_at("192.0.2.1", 0, "b")},
        {"a host/b", end_at("a host", 0, "b")},
        // Slashes at the path's end go, but the last character stays.
        {"host/path/", end_at("host", 0, "path")},
        {"host/path///", end_at("host", 0, "path")},
        {"host/a", end_at("host", 0, "a")},
        {"host/a/", end_at("host", 0, "a")},
        {"host//", end_at("host", 0, "/")},
        {"host///", end_at("host", 0, "/")},
        {"host/////", end_at("host", 0, "/")},
        {"host//path/", end_at("host", 0, "/path")},
        {"host/a//b", end_at("host", 0, "a//b")},
        {"host/%41 b?c#d;type=a", end_at("host", 0, "%41 b?c#d;type=a")},
        {"host/.", end_at("host", 0, ".")},
        // Nothing where something could be.
        {"", end_at("")},
        {"ftp://", end_at("")},
        {"/", end_at("")},
        {"/path", end_at("", 0, "path")},
        {"ftp:///path", end_at("", 0, "path")},
        {":", end_at("")},
        {":2121", end_at("", 2121)},
        {":2121/path", end_at("", 2121, "path")},
        {":/", end_at("")},
    };
    for (const auto &test : cases)
        EXPECT_EQ(ftp_endpoint(test.url, "", "", ""), test.expected) << test.url;
}

TEST(FtpEndpointText, Ports) {
    const struct {
        const char *name;
        const char *in_url; ///< between the host and the path
        JobText own;
        std::int32_t expected;
    } cases[] = {
        {"none", "", std::nullopt, 0},
        {"none and an empty one", "", "", 0},
        {"the URL's", ":2121", std::nullopt, 2121},
        {"the job's alone", "", "2222", 2222},
        {"the job's takes its place", ":2121", "2222", 2222},
        {"a job's of zero does not", ":2121", "0", 2121},
        {"a negative one does not", ":2121", "-5", 2121},
        {"no number does not", ":2121", "ftp", 2121},
        {"an empty one does not", ":2121", "", 2121},
        {"the job's with something behind it", ":2121", "2222x", 2222},
        {"the job's with blanks", ":2121", " \t2222 ", 2222},
        {"the job's with a sign", ":2121", "+2222", 2222},
        {"the job's in another base", ":2121", "0x10", 2121},
        {"an octal one is decimal", ":2121", "010", 10},
        {"nothing behind the colon", ":", std::nullopt, 0},
        {"the URL's of zero", ":0", std::nullopt, 0},
        {"the URL's without a number", ":abc", std::nullopt, 0},
        {"the URL's with something behind it", ":21abc", std::nullopt, 21},
        {"the URL's with blanks", ": 21 ", std::nullopt, 21},
        {"the URL's with a sign", ":+21", std::nullopt, 21},
        {"the URL's is negative", ":-21", std::nullopt, -21},
        {"the job's replaces a negative one", ":-21", "2222", 2222},
        {"there is no such port", ":70000", std::nullopt, 70000},
        {"nor such a one", "", "70000", 70000},
        {"32 bits", ":2147483647", std::nullopt, 2147483647},
        {"the lower bits of more", ":4294967317", std::nullopt, 21},
        {"the lower bits are negative", ":2147483648", std::nullopt, -2147483647 - 1},
        {"the job's lower bits are", ":2121", "2147483648", 2121},
        {"more than 64 bits", ":99999999999999999999", std::nullopt, -1},
        {"the job's of more than 64 bits", ":2121", "99999999999999999999", 2121},
        {"the job's of less than 64 bits", ":2121", "-99999999999999999999", 2121},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.name);
        const std::string with_port = std::string("ftp://host") + test.in_url;
        EXPECT_EQ(ftp_endpoint(with_port + "/path", "", "", test.own), end_at("host", test.expected, "path"));
        EXPECT_EQ(ftp_endpoint(with_port, "", "", test.own), end_at("host", test.expected));
    }
}

TEST(FtpEndpointText, LogInAndPasswordAreTakenAsTheyAre) {
    FtpEndpoint expected = end_at("host");
    expected.login = " b:o@b/";
    expected.password = "%41 \"'";
    EXPECT_EQ(ftp_endpoint("host", " b:o@b/", "%41 \"'", "0"), expected);
    EXPECT_EQ(ftp_endpoint("host", "", "", ""), end_at("host"));
    EXPECT_EQ(ftp_endpoint("host", std::nullopt, std::nullopt, std::nullopt), end_at("host"));
}

TEST(FtpEndpointText, NoTextAtAll) {
    EXPECT_EQ(ftp_endpoint(std::nullopt, std::nullopt, std::nullopt, std::nullopt), end_at(""));
    EXPECT_EQ(ftp_endpoint(std::nullopt, "bob", std::nullopt, "21").port, 21);
}

TEST(FtpEndpointText, LongTextsStayWhole) {
    const std::string text(10000, 'x');
    EXPECT_EQ(ftp_endpoint(text + ":21/" + text, "", "", ""), end_at(text, 21, text));
    EXPECT_EQ(ftp_endpoint("host/" + text + std::string(10000, '/'), "", "", ""), end_below(text));
}

// ---- names below it --------------------------------------------------------------------------------------------

TEST(FtpNames, Joined) {
    const struct {
        const char *base;
        const char *relative;
        const char *expected;
    } cases[] = {
        {"base", "a", "base/a"},
        {"base/more", "a/b", "base/more/a/b"},
        {"base", "", "base"},
        {"", "a", "a"},
        {"", "a/b", "a/b"},
        {"", "/a/b", "a/b"},
        {"", "//a", "/a"}, // one slash goes
        {"", "/", ""},
        {"base", "/a", "base//a"},
        {"/", "a", "//a"},
        {"/", "", "/"},
        {"", "", "."},
        {"base", ".", "base/."},
        {"a b", "c%41", "a b/c%41"}, // nothing is escaped
    };
    for (const auto &test : cases)
        EXPECT_EQ(ftp_join(end_below(test.base), test.relative), test.expected) << test.base << ", " << test.relative;
}

TEST(FtpNames, AJoinedPathIsCut) {
    const std::string half(2047, 'x');
    EXPECT_EQ(ftp_join(end_below(half), half + "y"), half + "/" + half);
    EXPECT_EQ(ftp_join(end_below(half), half), half + "/" + half);
    const std::string longest(kLongest, 'x');
    for (const std::string &longer : {longest, longest + "y", longest + longest}) {
        EXPECT_EQ(ftp_join(end_below(longer), ""), longest);
        EXPECT_EQ(ftp_join(end_below(longer), "z"), longest);
        EXPECT_EQ(ftp_join(end_below(""), longer), longest);
        EXPECT_EQ(ftp_join(end_below(""), "/" + longer), longest);
    }
}

TEST(FtpNames, WhatCannotBeNamed) {
    const std::string longest(kLongest, 'x');
    const struct {
        const char *name;
        std::string base;
        std::string relative;
        bool expected;
    } cases[] = {
        {"an ordinary path", "base", "a", true},
        {"the base", "base", "", true},
        {"an empty base", "", "", true},
        {"awkward characters", "", " \t\x01#?%;[*\\\x7f\xff", true},
        {"the longest", "", longest, true},
        {"the longest base", longest, "", true},
        {"the longest without the slash that goes", "", "/" + longest, true},
        {"one more", "", longest + "y", false},
        {"a base with one more", longest + "y", "", false},
        {"a name that has no room", longest, "y", false},
        {"together the longest", longest.substr(2), "y", true},
        {"together one more", longest.substr(1), "y", false},
        {"a line end", "", "a\nDELE b", false},
        {"half a line end", "", "a\rDELE b", false},
        {"a line end at the end", "", "a\r\n", false},
        {"a line end in the base", "ba\nse", "a", false},
        {"a line end in the base alone", "ba\nse", "", false},
        {"a line end behind the cut", "", longest + "\n", false},
    };
    for (const auto &test : cases)
        EXPECT_EQ(ftp_can_name(end_below(test.base), test.relative), test.expected) << test.name;
}

TEST(FtpNames, Below) {
    EXPECT_EQ(ftp_below("", "name"), "name");
    EXPECT_EQ(ftp_below("a", "name"), "a/name");
    EXPECT_EQ(ftp_below("a/b", "name"), "a/b/name");
    EXPECT_EQ(ftp_below("a", ""), "a/");
    EXPECT_EQ(ftp_below("", ""), "");
}

// ---- addresses -------------------------------------------------------------------------------------------------

TEST(FtpAddress, Parts) {
    const struct {
        const char *base;
        const char *relative;
        const char *suffix;
        const char *expected;
    } cases[] = {
        {"", "", "", "ftp://host"},
        // Kept as it is: the bare host stands for the base, too. Commands name their paths themselves.
        {"base", "", "", "ftp://host"},
        {"base", "a", "", "ftp://host/base/a"},
        {"base", "a/b", "", "ftp://host/base/a/b"},
        {"base", "", "/*", "ftp://host/base/*"},
        {"base", "a", "/*", "ftp://host/base/a/*"},
        {"", "a", "", "ftp://host/a"},
        {"", "/a", "", "ftp://host/a"},
        {"", "a", "/*", "ftp://host/a/*"},
        {"", "", "/*", "ftp://host/./*"},
        {"/", "", "/*", "ftp://host///*"},
    };
    for (const auto &test : cases)
        EXPECT_EQ(ftp_url(end_below(test.base), test.relative, test.suffix), test.expected)
            << test.base << ", " << test.relative << ", " << test.suffix;
}

TEST(FtpAddress, ThePortIsNoPartOfIt) {
    EXPECT_EQ(ftp_url(end_at("host", 2121, "base"), "a", ""), "ftp://host/base/a");
}

TEST(FtpAddress, EscapesWhatWouldEndOrChangeThePath) {
    const struct {
        const char *text;
        const char *escaped;
    } cases[] = {
        {" ", "%20"},
        {"!", "%21"},
        {"*", "%2a"},
        {"'", "%27"},
        {"(", "%28"},
        {")", "%29"},
        {";", "%3b"},
        {":", "%3a"},
        {"@", "%40"},
        {"&", "%26"},
        {"=", "%3d"},
        {"+", "%2b"},
        {"$", "%24"},
        {",", "%2c"},
        {"?", "%3f"},
        {"%", "%25"},
        {"#", "%23"},
        {"[", "%5b"},
        {"]", "%5d"},
        {"\x80", "%80"},
        {"\xc3\xbc", "%c3%bc"},
        {"\xff", "%ff"},
        {"%41", "%2541"},
        {"a;type=a", "a%3btype%3da"},
        {"~", "~"},
        {"-._", "-._"},
        {"a/b", "a/b"},
        {"\\", "\\"},
        {"{}", "{}"},
        {"\"<>", "\"<>"},
        // The library refuses an address with these.
        {"\t\x01", "\t\x01"},
    };
    for (const auto &test : cases) {
        const std::string text = test.text;
        const std::string escaped = test.escaped;
        EXPECT_EQ(ftp_url(end_below(""), "a" + text, ""), "ftp://host/a" + escaped);
        EXPECT_EQ(ftp_url(end_below(text + "b"), text, "/*"), "ftp://host/" + escaped + "b/" + escaped + "/*");
    }
}

TEST(FtpAddress, TheSuffixStaysAPattern) {
    EXPECT_EQ(ftp_url(end_below("base*"), "[a]", "/*"), "ftp://host/base%2a/%5ba%5d/*");
}

// A cut address would lead to something else: only the path itself has a bound.
TEST(FtpAddress, IsNotCutBeyondItsPath) {
    const std::string blanks(kLongest, ' ');
    std::string escaped;
    for (std::size_t count = 0; count < kLongest; ++count)
        escaped += "%20";
    EXPECT_EQ(ftp_url(end_below(""), blanks, "/*"), "ftp://host/" + escaped + "/*");
    EXPECT_EQ(ftp_url(end_below(""), blanks + "x", "/*"), "ftp://host/" + escaped + "/*");
    const std::string host(5000, 'h');
    EXPECT_EQ(ftp_url(end_at(host, 0, "base"), "a", ""), "ftp://" + host + "/base/a");
}

} // namespace
} // namespace test
} // namespace tsbackup
