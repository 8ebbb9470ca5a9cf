#include "appliance_support.h"

#include <algorithm>
#include <regex>
#include <sstream>

namespace tsbackup::test {

namespace {

std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    if (!text.empty() && text.back() != '\n') lines.back() += "  (no line end)";
    return lines;
}

/// Length of the longest common run of lines of the two rests, for each pair of beginnings.
std::vector<std::vector<int>> common_lengths(const std::vector<std::string> &a, const std::vector<std::string> &b) {
    std::vector<std::vector<int>> length(a.size() + 1, std::vector<int>(b.size() + 1, 0));
    for (std::size_t i = a.size(); i-- > 0;)
        for (std::size_t j = b.size(); j-- > 0;)
            length[i][j] = a[i] == b[j] ? length[i + 1][j + 1] + 1 : std::max(length[i + 1][j], length[i][j + 1]);
    return length;
}

std::string difference(const std::string &expected, const std::string &actual) {
    const std::vector<std::string> a = lines_of(expected);
    const std::vector<std::string> b = lines_of(actual);
    const auto length = common_lengths(a, b);
    std::ostringstream out;
    std::size_t i = 0;
    std::size_t j = 0;
    while (i < a.size() || j < b.size()) {
        if (i < a.size() && j < b.size() && a[i] == b[j]) {
            out << "  " << a[i] << '\n';
            ++i;
            ++j;
        } else if (j == b.size() || (i < a.size() && length[i + 1][j] >= length[i][j + 1])) {
            out << "- " << a[i++] << '\n';
        } else {
            out << "+ " << b[j++] << '\n';
        }
    }
    return out.str();
}

} // namespace

std::string with_placeholders(std::string text, const std::vector<std::pair<std::string, std::string>> &more) {
    for (const auto &[from, to] : more) {
        if (from.empty()) continue;
        for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
            text.replace(at, from.size(), to);
    }
    static const std::regex epoch_seconds(R"(\b1[0-9]{9}\b)");
    return std::regex_replace(text, epoch_seconds, "TIME");
}

testing::AssertionResult same_text(const std::string &expected, const std::string &actual) {
    if (expected == actual) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "lines with - are missing, lines with + are too many:\n"
                                       << difference(expected, actual);
}

testing::AssertionResult matches_golden(const std::string &name, const std::string &text) {
    const std::string path = std::string(TSBACKUP_FIXTURES) + "/" + name;
    if (!file_exists(path))
        return testing::AssertionFailure() << "tests/fixtures/" << name << " is missing; the text was:\n" << text;
    testing::AssertionResult result = same_text(read_file(path), text);
    if (!result) return testing::AssertionFailure() << "tests/fixtures/" << name << ": " << result.message();
    return result;
}

} // namespace tsbackup::test
