#include "tsbackup.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace tsbackup {
namespace {

using Fault = CommandLineFault;

/// "kesmV" as far as they are set.
std::string flags_of(const CommandLine &line) {
    std::string flags;
    if (line.kill) flags += 'k';
    if (line.execute) flags += 'e';
    if (line.arrival_hook) flags += 's';
    if (line.import_worker) flags += 'm';
    if (line.transfer_trace) flags += 'V';
    return flags;
}

struct Case {
    std::vector<const char *> arguments;
    Fault fault;
    const char *flags;
    std::optional<std::int32_t> verbosity;
    const char *job_id;
};

const std::optional<std::int32_t> kUnset;

const Case kCases[] = {
    // accepted
    {{"7"}, Fault::none, "", kUnset, "7"},
    {{"0"}, Fault::none, "", kUnset, "0"},
    {{""}, Fault::none, "", kUnset, ""},
    {{"abc"}, Fault::none, "", kUnset, "abc"},
    {{" -1"}, Fault::none, "", kUnset, " -1"},
    {{"7", "-e"}, Fault::none, "", kUnset, "7"},
    {{"-e", "3"}, Fault::none, "e", kUnset, "3"},
    {{"-e", " -1"}, Fault::none, "e", kUnset, " -1"},
    {{"-e", ""}, Fault::none, "e", kUnset, ""},
    {{"-k", "3"}, Fault::none, "k", kUnset, "3"},
    {{"-k", "-e", "3"}, Fault::none, "ke", kUnset, "3"},
    {{"-e", "-k", "3"}, Fault::none, "ke", kUnset, "3"},
    {{"-e", "-e", "3"}, Fault::none, "e", kUnset, "3"},
    {{"-e", "3", "-k"}, Fault::none, "e", kUnset, "3"},
    {{"-s", "1"}, Fault::none, "s", kUnset, "1"},
    {{"-m", "1", "001", "005", "cam"}, Fault::none, "m", kUnset, "1"},
    {{"-s", "-m", "-V", "1"}, Fault::none, "smV", kUnset, "1"},
    {{"-V", "3"}, Fault::none, "V", kUnset, "3"},
    {{"-V", "-e", "3"}, Fault::none, "eV", kUnset, "3"},
    {{"-v", "7", "-e", "3"}, Fault::none, "e", 7, "3"},
    {{"-e", "-v", "7", "3"}, Fault::none, "e", 7, "3"},
    {{"-v", "7", "3"}, Fault::none, "", 7, "3"},
    {{"-v", "1", "-v", "6", "3"}, Fault::none, "", 6, "3"},
    {{"-v", "-1", "3"}, Fault::none, "", -1, "3"},
    {{"-v", "-e", "3"}, Fault::none, "", 0, "3"},
    {{"-v", "loud", "3"}, Fault::none, "", 0, "3"},
    {{"-v", "", "3"}, Fault::none, "", 0, "3"},
    {{"-v", "4294967303", "3"}, Fault::none, "", 7, "3"},
    {{"-x", "3"}, Fault::none, "", kUnset, "3"},
    {{"-ek", "3"}, Fault::none, "", kUnset, "3"},
    {{"-v5", "3"}, Fault::none, "", kUnset, "3"},
    {{"--", "3"}, Fault::none, "", kUnset, "3"},
    {{"-", "3"}, Fault::none, "", kUnset, "3"},
    {{"-E", "-K", "3"}, Fault::none, "", kUnset, "3"},
    {{"--help", "3"}, Fault::none, "", kUnset, "3"},
    // rejected
    {{}, Fault::no_arguments, "", kUnset, nullptr},
    {{"-e"}, Fault::missing_job_id, "e", kUnset, nullptr},
    {{"-k"}, Fault::missing_job_id, "k", kUnset, nullptr},
    {{"-s"}, Fault::missing_job_id, "s", kUnset, nullptr},
    {{"-V"}, Fault::missing_job_id, "V", kUnset, nullptr},
    {{"-1"}, Fault::missing_job_id, "", kUnset, nullptr},
    {{"-e", "-1"}, Fault::missing_job_id, "e", kUnset, nullptr},
    {{"--help"}, Fault::missing_job_id, "", kUnset, nullptr},
    {{"-v", "3"}, Fault::missing_job_id, "", 3, nullptr},
    {{"-v", "-1", "-e"}, Fault::missing_job_id, "e", -1, nullptr},
    {{"-v"}, Fault::missing_verbosity, "", kUnset, nullptr},
    {{"-e", "-v"}, Fault::missing_verbosity, "e", kUnset, nullptr},
    {{"-v", "2", "-v"}, Fault::missing_verbosity, "", 2, nullptr},
};

std::string shown(const Case &test) {
    std::string text = "tsbackup";
    for (const char *argument : test.arguments)
        text += std::string(" '") + argument + "'";
    return text;
}

std::vector<const char *> vector_of(const std::vector<const char *> &arguments) {
    std::vector<const char *> argv{"tsbackup"};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    argv.push_back(nullptr);
    return argv;
}

TEST(CommandLine, reads_options_up_to_the_job_id) {
    for (const Case &test : kCases) {
        SCOPED_TRACE(shown(test));
        const std::vector<const char *> argv = vector_of(test.arguments);
        const CommandLine line = command_line_parse(static_cast<int>(argv.size()) - 1, argv.data());
        EXPECT_EQ(line.fault, test.fault);
        EXPECT_EQ(flags_of(line), test.flags);
        EXPECT_EQ(line.verbosity, test.verbosity);
        if (test.job_id == nullptr)
            EXPECT_EQ(line.job_id, nullptr);
        else
            EXPECT_STREQ(line.job_id, test.job_id);
    }
}

TEST(CommandLine, an_empty_vector_is_a_command_line_without_arguments) {
    const char *const argv[] = {nullptr};
    EXPECT_EQ(command_line_parse(0, argv).fault, Fault::no_arguments);
}

TEST(CommandLine, usage_names_the_program_on_each_of_its_three_lines) {
    EXPECT_EQ(usage_text("/usr/sbin/tsbackup"),
              "/usr/sbin/tsbackup [-v N] [-V] -e jobid .... run backup job. (jobid must be 1 or larger)\n"
              "/usr/sbin/tsbackup [-v N] jobid         .... enqueue backup job. If jobid==0, then all button job will "
              "be queued.\n"
              "/usr/sbin/tsbackup [-v N] -k jobid      .... dequeue and kill backup job. If jobid==0, then all buton "
              "job will be killed.\n");
    EXPECT_EQ(usage_text(nullptr).substr(0, 10), " [-v N] [-");
    EXPECT_NE(usage_text("%d%s%n").find("%d%s%n [-v N] -k jobid"), std::string::npos);
}

TEST(CommandLine, the_import_worker_gets_its_arguments_by_position) {
    struct ImportCase {
        std::vector<const char *> arguments;
        std::vector<const char *> expected;
    };
    const ImportCase cases[] = {
        {{"-m", "1", "001", "005", "cam"}, {"1", "001", "005", "cam"}},
        {{"-m", "1", "001", "005", "cam", "more"}, {"1", "001", "005", "cam"}},
        {{"-v", "7", "-m", "1", "001", "005"}, {"7", "-m", "1", "001"}},
        {{"-m", "1", "001"}, {"1", "001", nullptr, nullptr}},
        {{"-m", "1"}, {"1", nullptr, nullptr, nullptr}},
        {{"-m"}, {nullptr, nullptr, nullptr, nullptr}},
        {{"-m", "", "-x", " ", ""}, {"", "-x", " ", ""}},
    };
    for (const ImportCase &test : cases) {
        const std::vector<const char *> argv = vector_of(test.arguments);
        const ImportArguments import = import_arguments(static_cast<int>(argv.size()) - 1, argv.data());
        const char *const got[] = {import.kind, import.bus, import.device, import.name};
        for (std::size_t index = 0; index < 4; ++index) {
            SCOPED_TRACE(index);
            EXPECT_STREQ(got[index], test.expected[index]);
        }
    }
}

} // namespace
} // namespace tsbackup
