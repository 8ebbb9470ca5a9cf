// tsbackup-check: says what is wrong or dangerous in a job file.

#include "display.h"
#include "job_check.h"
#include "job_file.h"
#include "read_start.h"
#include "tell.h"
#include "tsbackup/log.h"
#include "tsbackup/paths.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <getopt.h>
#include <string>
#include <sys/stat.h>

namespace tsbackup {

namespace {

constexpr char kName[] = "tsbackup-check";
constexpr int kFindings = 1;
constexpr int kTrouble = 2;

constexpr char kHelp[] =
    "usage: tsbackup-check [OPTION]... [FILE]\n"
    "\n"
    "Says what is wrong or dangerous in a job file (%s).\n"
    "\n"
    "  --help       show this text and end\n"
    "  --version    show the version and end\n"
    "\n"
    "The exit status is 0 when all is well, 1 when something is not, and 2 for a file that cannot\n"
    "be read or a wrong command line.\n";

/// The exit status when there is nothing more to do; the file otherwise.
struct Parsed {
    int status = -1;
    const char *file = paths::job_file;
};

Parsed wrong_usage(const std::string &message) {
    tell(LOG_ERR, "%s; see --help", display_text(message).c_str());
    return {kTrouble, nullptr};
}

Parsed parse(int argc, char **argv) {
    enum Option { kHelpOption = 1, kVersion };
    static constexpr std::array<option, 3> kOptions = {{
        {"help", no_argument, nullptr, kHelpOption},
        {"version", no_argument, nullptr, kVersion},
        {nullptr, 0, nullptr, 0},
    }};
    Parsed parsed;
    opterr = 0;
    for (int found = 0; (found = getopt_long(argc, argv, "", kOptions.data(), nullptr)) != -1;) {
        switch (found) {
        case kHelpOption:
            std::printf(kHelp, paths::job_file);
            return {0, nullptr};
        case kVersion:
            std::printf("%s %s\n", kName, TSBACKUP_VERSION);
            return {0, nullptr};
        default:
            return wrong_usage("unknown option \"" + std::string(argv[optind - 1]) + "\"");
        }
    }
    if (argc - optind > 1) return wrong_usage("unexpected argument \"" + std::string(argv[optind + 1]) + "\"");
    if (optind < argc) parsed.file = argv[optind];
    return parsed;
}

void check_mode(mode_t mode, CheckResult &result) {
    const auto report = [&result](const char *what) {
        result.findings.insert(result.findings.begin(), {0, false, std::nullopt, "", what});
    };
    if ((mode & S_IWOTH) != 0) report("every user of the system may change the file, and so what runs as root");
    if ((mode & S_IROTH) != 0 && result.holds_passwords)
        report("the file holds passwords and every user of the system may read it");
}

std::string finding_text(const std::string &file, const Finding &finding) {
    std::string text = file + ":";
    if (finding.line > 0) text += std::to_string(finding.line) + ":";
    if (finding.of_job) {
        text += finding.job_id ? " job " + std::to_string(*finding.job_id) : " job without a number";
        if (!finding.job_name.empty()) text += " \"" + display_cut(display_text(finding.job_name), 40) + "\"";
        text += ":";
    }
    return text + " " + display_text(finding.text) + "\n";
}

std::string counted(std::size_t count, const char *what) {
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

std::string report_text(const std::string &file, const CheckResult &result) {
    std::string text;
    for (const Finding &finding : result.findings)
        text += finding_text(file, finding);
    const std::string jobs = file + ": " + counted(result.jobs, "job") + ", ";
    return text + jobs + (result.findings.empty() ? "all is well" : counted(result.findings.size(), "finding")) + "\n";
}

int check(const char *path) {
    const std::string shown = display_text(path);
    const FileStart file = read_start(path, kLargestJobFile);
    if (!file.fault.empty()) {
        tell(LOG_ERR, "cannot read %s: %s", shown.c_str(), file.fault.c_str());
        return kTrouble;
    }
    if (!file.whole) {
        tell(LOG_ERR, "%s is larger than %d MiB, and no program reads it", shown.c_str(), kLargestJobFileMebibytes);
        return kTrouble;
    }
    CheckResult result = job_text_check(file.bytes);
    check_mode(file.mode, result);
    const std::string text = report_text(shown, result);
    if (std::fputs(text.c_str(), stdout) < 0 || std::fflush(stdout) != 0) {
        tell(LOG_ERR, "cannot write: %s", error_text(errno).c_str());
        return kTrouble;
    }
    return result.findings.empty() ? 0 : kFindings;
}

} // namespace

} // namespace tsbackup

int main(int argc, char **argv) {
    tsbackup::tell_as(tsbackup::kName);
    tsbackup::display_prepare();
    const tsbackup::Parsed parsed = tsbackup::parse(argc, argv);
    return parsed.status >= 0 ? parsed.status : tsbackup::check(parsed.file);
}
