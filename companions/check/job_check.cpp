#include "job_check.h"

#include "checked_job.h"
#include "ends.h"
#include "job_file.h"
#include "tsbackup.h"
#include "tsbackup_utils.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <libxml/xmlerror.h>
#include <limits>
#include <map>
#include <string>

namespace tsbackup {

namespace {

constexpr char kButtonJobs[] = "backupButtonJobs";
constexpr char kButtonJob[] = "backupButtonJob";
constexpr long kMostOptions = 15;         ///< all bits of the rsync options
constexpr long kLongestWait = 1440;       ///< minutes; nobody waits longer than a day for a machine to wake
constexpr std::size_t kLongestName = 255; ///< a longer one may not fit into the messages about the job
constexpr std::size_t kLongestExcludes = 1023;

using JobLines = std::map<std::int32_t, long>; ///< the line of the first job of each number

void add_file_finding(long line, const std::string &text, Findings &findings) {
    findings.push_back({line, false, std::nullopt, "", text});
}

// ---- one job ---------------------------------------------------------------------------------------------------

void check_job_id(CheckedJob &job, JobLines &lines) {
    job.require("job_id");
    if (!job.is_given("job_id")) return;
    job.require_number("job_id", 1, std::numeric_limits<std::int32_t>::max());
    const auto [first, is_first] = lines.try_emplace(job.record().job_id, job.line());
    if (!is_first)
        job.report("job_id",
                   "the job in line " + std::to_string(first->second) + " has the same number; this one never runs");
}

void check_hardware_address(CheckedJob &job) {
    if (!job.is_given("wol_addr")) return;
    const std::string address = *job.text("wol_addr");
    const bool separated = address.size() == 17;
    bool is_address = separated || address.size() == 12;
    for (std::size_t i = 0; is_address && i < address.size(); ++i) {
        const bool is_separator = separated && i % 3 == 2;
        is_address = is_separator ? address[i] == address[2] && (address[i] == ':' || address[i] == '-')
                                  : std::isxdigit(static_cast<unsigned char>(address[i])) != 0;
    }
    if (!is_address) job.report("wol_addr", quoted(address) + " is no hardware address (six pairs of digits)");
    if (decimal_value(job.text("time_to_wait")) <= 0)
        job.report("time_to_wait", "no time to wait is set, so that the job starts before the machine is awake");
}

void check_options(CheckedJob &job) {
    job.require("opt_full_backup_freq");
    const std::string frequency = text_or_empty(job.text("opt_full_backup_freq"));
    if (!frequency.empty() && !full_policy_knows(frequency.c_str()))
        job.report("opt_full_backup_freq", "unknown keyword " + quoted(frequency) + "; every run would be full");
    job.require("opt_email_this_to_alert_email");
    for (const char *flag :
         {"enabled", "opt_remove_previous_backup", "opt_chown_to_share_owner", "opt_email_this_to_alert_email"})
        job.require_number(flag, 0, 1);
    job.require_number("opt_rsync_options", 0, kMostOptions);
    job.require_number("opt_max_log_lines", 1, std::numeric_limits<std::int32_t>::max());
    job.require_number("time_to_wait", 0, kLongestWait);
    if (job.is_given("opt_rsync_exclude") && job.text("opt_rsync_exclude")->size() > kLongestExcludes)
        job.report("opt_rsync_exclude", "is longer than " + std::to_string(kLongestExcludes) +
                                            " bytes and is cut, so that files are copied that should not be");
}

void check_name(CheckedJob &job) {
    job.require("name");
    if (job.text("name") && job.text("name")->size() > kLongestName)
        job.report("name", "is longer than " + std::to_string(kLongestName) + " bytes");
}

void check_job(const xmlNode *entry, JobLines &lines, CheckResult &result) {
    ++result.jobs;
    CheckedJob job(entry, result.findings);
    check_job_id(job, lines);
    check_name(job);
    check_ends(job);
    check_options(job);
    check_hardware_address(job);
    if (job.is_given("src_password") || job.is_given("dst_password")) result.holds_passwords = true;
}

// ---- button jobs -----------------------------------------------------------------------------------------------

void check_button_job(const xmlNode *node, const JobLines &jobs, JobLines &listed, Findings &findings) {
    const auto report = [&](const std::string &what) {
        add_file_finding(line_of(node), std::string(kButtonJob) + ": " + what, findings);
    };
    check_value_form(node, findings, {});
    const char *value = node_value(node);
    const std::string text = value != nullptr ? value : "";
    const std::int32_t job_id = decimal_value(text.c_str());
    if (text != std::to_string(job_id))
        report(quoted(text) + " is no job number");
    else if (!jobs.contains(job_id))
        report("there is no job " + text);
    else if (!listed.try_emplace(job_id, line_of(node)).second)
        report("job " + text + " is listed twice");
}

void check_button_list(const xmlNode *list, const JobLines &jobs, JobLines &listed, Findings &findings) {
    for (const xmlNode *node = first_child(list); node != nullptr; node = node->next) {
        if (node->type != XML_ELEMENT_NODE && !is_stray_text(node)) continue;
        if (std::strcmp(node_name(node), kButtonJob) == 0)
            check_button_job(node, jobs, listed, findings);
        else
            add_file_finding(line_of(node),
                             std::string(kButtonJobs) + ": unknown element <" + node_name(node) + ">, which is ignored",
                             findings);
    }
}

// ---- the document ----------------------------------------------------------------------------------------------

void report_malformed(Findings &findings) {
    const xmlError *error = xmlGetLastError();
    const long line = error != nullptr ? error->line : 0;
    std::string why = error != nullptr && error->message != nullptr ? error->message : "";
    trim_space(why);
    add_file_finding(line, "not well-formed, so that no job of the file can run" + (why.empty() ? "" : ": " + why),
                     findings);
}

bool is_button_list(const xmlNode *entry) {
    return entry->type == XML_ELEMENT_NODE && std::strcmp(node_name(entry), kButtonJobs) == 0;
}

} // namespace

CheckResult job_text_check(std::string_view content) {
    CheckResult result;
    xmlResetLastError();
    const UniqueXmlDoc document = job_text_parse(content);
    if (!document) {
        report_malformed(result.findings);
        return result;
    }

    JobLines jobs;
    for (const xmlNode *entry = first_entry(document.get()); entry != nullptr; entry = entry->next) {
        if (entry->type == XML_ELEMENT_NODE && !is_button_list(entry))
            check_job(entry, jobs, result);
        else if (is_stray_text(entry))
            add_file_finding(line_of(entry), "text between the jobs, which is ignored", result.findings);
    }
    JobLines listed;
    for (const xmlNode *entry = first_entry(document.get()); entry != nullptr; entry = entry->next)
        if (is_button_list(entry)) check_button_list(entry, jobs, listed, result.findings);

    std::stable_sort(result.findings.begin(), result.findings.end(),
                     [](const Finding &a, const Finding &b) { return a.line < b.line; });
    return result;
}

} // namespace tsbackup
