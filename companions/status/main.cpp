// tsbackup-status: the state of all backup jobs, or the runs of one, from the files that the jobs write.

#include "collect.h"
#include "display.h"
#include "json.h"
#include "screen.h"
#include "table.h"
#include "tell.h"

#include <array>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <getopt.h>
#include <limits>
#include <string_view>
#include <unistd.h>

namespace tsbackup {

namespace {

constexpr char kName[] = "tsbackup-status";
constexpr int kIncomplete = 1;
constexpr int kWrongUsage = 2;
constexpr std::size_t kRunsOfOneJob = 20;
constexpr std::size_t kMostRuns = 1'000'000;

constexpr char kHelp[] = "usage: tsbackup-status [OPTION]... [JOB]\n"
                         "\n"
                         "Shows the state of all backup jobs, or the runs of one.\n"
                         "\n"
                         "  --json       write JSON for scripts\n"
                         "  --runs N     show the last N runs (%zu for one job, 1 for all)\n"
                         "  --watch      show a live view until q is pressed\n"
                         "  --help       show this text and end\n"
                         "  --version    show the version and end\n"
                         "\n"
                         "The exit status is 0, 1 when something could not be read or there is no such job, and 2\n"
                         "for a wrong command line.\n";

struct CommandLine {
    bool json = false;
    bool watch = false;
    std::optional<std::size_t> runs;
    std::optional<std::int32_t> job_id;
};

/// The exit status when there is nothing more to do; the settings otherwise.
struct Parsed {
    int status = -1;
    CommandLine line;
};

/// A number of digits alone, up to `largest`.
template <typename Number> std::optional<Number> number_of(std::string_view text, Number largest) {
    Number number{};
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool whole = result.ec == std::errc() && result.ptr == text.data() + text.size();
    if (!whole || number > largest || text.front() == '-') return std::nullopt;
    return number;
}

Parsed wrong_usage(const std::string &message) {
    tell(LOG_ERR, "%s", display_text(message).c_str());
    return {kWrongUsage, {}};
}

std::string quoted(const char *argument) { return "\"" + std::string(argument) + "\""; }

Parsed parse(int argc, char **argv) {
    enum Option { kJson = 1, kRuns, kWatch, kHelpOption, kVersion };
    static constexpr std::array<option, 6> kOptions = {{
        {"json", no_argument, nullptr, kJson},
        {"runs", required_argument, nullptr, kRuns},
        {"watch", no_argument, nullptr, kWatch},
        {"help", no_argument, nullptr, kHelpOption},
        {"version", no_argument, nullptr, kVersion},
        {nullptr, 0, nullptr, 0},
    }};
    Parsed parsed;
    opterr = 0;
    for (int found = 0; (found = getopt_long(argc, argv, ":", kOptions.data(), nullptr)) != -1;) {
        switch (found) {
        case kJson:
            parsed.line.json = true;
            break;
        case kRuns:
            parsed.line.runs = number_of<std::size_t>(optarg, kMostRuns);
            if (!parsed.line.runs) return wrong_usage(quoted(optarg) + " is no number of runs");
            break;
        case kWatch:
            parsed.line.watch = true;
            break;
        case kHelpOption:
            std::printf(kHelp, kRunsOfOneJob);
            return {0, {}};
        case kVersion:
            std::printf("%s %s\n", kName, TSBACKUP_VERSION);
            return {0, {}};
        case ':':
            return wrong_usage(quoted(argv[optind - 1]) + " needs a value; see --help");
        default:
            return wrong_usage("unknown option " + quoted(argv[optind - 1]) + "; see --help");
        }
    }
    if (argc - optind > 1) return wrong_usage("unexpected argument " + quoted(argv[optind + 1]) + "; see --help");
    if (optind < argc) {
        parsed.line.job_id = number_of<std::int32_t>(argv[optind], std::numeric_limits<std::int32_t>::max());
        if (!parsed.line.job_id) return wrong_usage(quoted(argv[optind]) + " is no job number");
    }
    if (parsed.line.watch && parsed.line.json) return wrong_usage("--watch and --json exclude one another");
    if (parsed.line.watch && isatty(STDOUT_FILENO) == 0) return wrong_usage("--watch needs a terminal");
    return parsed;
}

bool is_coloured() {
    const char *terminal = std::getenv("TERM");
    return isatty(STDOUT_FILENO) != 0 && std::getenv("NO_COLOR") == nullptr &&
           !(terminal != nullptr && std::strcmp(terminal, "dumb") == 0);
}

/// What is not written to its end is a failure, too: the reader of a cut document must learn of it.
int written(const std::string &text, bool complete) {
    const bool whole = std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0;
    if (!whole) tell(LOG_ERR, "cannot write: %s", std::strerror(errno));
    return whole && complete ? 0 : kIncomplete;
}

std::string table_text(const std::vector<TableLine> &lines) {
    std::string text;
    for (const TableLine &line : lines)
        text += table_line_text(line, 0, is_coloured()) + "\n";
    return text;
}

void tell_problems(const std::vector<std::string> &problems) {
    for (const std::string &problem : problems)
        tell(LOG_ERR, "%s", display_text(problem).c_str());
}

std::vector<TableLine> problem_lines(const std::vector<std::string> &problems) {
    std::vector<TableLine> lines;
    lines.reserve(problems.size());
    for (const std::string &problem : problems)
        lines.push_back({display_text(problem)});
    return lines;
}

std::vector<TableLine> current_lines(const CommandLine &line) {
    std::vector<std::string> problems;
    std::vector<TableLine> table;
    if (line.job_id) {
        const std::optional<JobStatus> job = collect_job(*line.job_id, line.runs.value_or(kRunsOfOneJob), problems);
        table = job ? job_table(*job, std::time(nullptr)) : std::vector<TableLine>{{"no such job"}};
    } else {
        Overview overview = collect_all(line.runs.value_or(1));
        table = overview_table(overview);
        problems = std::move(overview.problems);
    }
    std::vector<TableLine> lines = problem_lines(problems);
    lines.insert(lines.end(), table.begin(), table.end());
    return lines;
}

int show_job(const CommandLine &line, std::int32_t job_id) {
    std::vector<std::string> problems;
    const std::optional<JobStatus> job = collect_job(job_id, line.runs.value_or(kRunsOfOneJob), problems);
    tell_problems(problems);
    if (!job) {
        tell(LOG_ERR, "there is no job %d", job_id);
        return kIncomplete;
    }
    const std::int64_t now = std::time(nullptr);
    return written(line.json ? job_json(*job, now) : table_text(job_table(*job, now)), problems.empty());
}

int show_all(const CommandLine &line) {
    const Overview overview = collect_all(line.runs.value_or(1));
    tell_problems(overview.problems);
    return written(line.json ? overview_json(overview) : table_text(overview_table(overview)),
                   overview.problems.empty());
}

int run(const CommandLine &line) {
    if (line.watch) return screen_watch([&line] { return current_lines(line); }, is_coloured());
    return line.job_id ? show_job(line, *line.job_id) : show_all(line);
}

} // namespace

} // namespace tsbackup

int main(int argc, char **argv) {
    tsbackup::tell_as(tsbackup::kName);
    tsbackup::display_prepare();
    const tsbackup::Parsed parsed = tsbackup::parse(argc, argv);
    return parsed.status >= 0 ? parsed.status : tsbackup::run(parsed.line);
}
