#include "checked_job.h"

#include "job_file.h"
#include "tsbackup_utils.h"

#include <algorithm>
#include <charconv>

namespace tsbackup {

namespace {

constexpr std::size_t kLongestQuote = 80;

bool is_control(char letter) { return static_cast<unsigned char>(letter) < 0x20 || letter == 0x7f; }

/// "; did you mean ...?" for an element whose name differs from a setting's in the case of its letters alone.
std::string hint(std::string element) {
    std::transform(element.begin(), element.end(), element.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    return job_setting_exists(element.c_str()) ? "; did you mean <" + element + ">?" : "";
}

/// What keeps the whole content of an element from being its value; null: nothing.
const char *form_fault(const xmlNode *node) {
    const xmlNode *first = first_child(node);
    if (first == nullptr) return nullptr;
    if (first->type == XML_COMMENT_NODE) return "begins with a comment, which the program takes as the value";
    if (first->type == XML_PI_NODE) return "begins with a processing instruction, which the program takes as the value";
    if (first->type == XML_ELEMENT_NODE) return "holds another element; the program takes the value as empty";
    if (first->type == XML_ENTITY_REF_NODE) return "begins with a reference to an entity of the document's own";
    if (first->next != nullptr)
        return "is in several pieces (a comment, an element, a CDATA section); the program uses the first one alone";
    return nullptr;
}

} // namespace

bool is_stray_text(const xmlNode *node) {
    return node->type == XML_CDATA_SECTION_NODE || (node->type == XML_TEXT_NODE && xmlIsBlankNode(node) == 0);
}

long line_of(const xmlNode *node) { return xmlGetLineNo(node); }

std::string quoted(const std::string &text) {
    return '"' + (text.size() > kLongestQuote ? text.substr(0, kLongestQuote) + "..." : text) + '"';
}

void check_value_form(const xmlNode *node, Findings &findings, Finding finding) {
    const char *fault = form_fault(node);
    if (fault == nullptr) return;
    finding.line = line_of(node);
    finding.text = std::string(node_name(node)) + ": " + fault;
    findings.push_back(std::move(finding));
}

CheckedJob::CheckedJob(const xmlNode *entry, Findings &findings)
    : findings_(findings), line_(line_of(entry)), record_(job_read(entry)) {
    for (const xmlNode *node = first_child(entry); node != nullptr; node = node->next) {
        if (node->type == XML_ELEMENT_NODE)
            read_setting(node);
        else if (is_stray_text(node))
            report_at(line_of(node), "text between the elements, which is ignored");
        else if (node->type == XML_ENTITY_REF_NODE)
            report_at(line_of(node), "a reference to an entity between the elements, which is ignored");
    }
}

void CheckedJob::read_setting(const xmlNode *node) {
    const std::string element = node_name(node);
    if (!job_setting_exists(element.c_str())) {
        report_at(line_of(node), "unknown element <" + element + ">, which is ignored" + hint(element));
        return;
    }
    const auto earlier = settings_.find(element);
    if (earlier != settings_.end())
        report_at(line_of(node), element + ": given before in line " + std::to_string(earlier->second.line) +
                                     "; this later one counts");
    const char *value = node_value(node);
    settings_[element] = {line_of(node), value != nullptr ? value : ""};
    check_value_form(node, findings_, {0, true, record_.job_id, text_or_empty(record_.name), ""});
    const std::string &text = *settings_[element].text;
    if (std::any_of(text.begin(), text.end(), is_control))
        report(element, "holds a line end, a tab or another control character");
}

const JobText &CheckedJob::text(const std::string &element) const {
    static const JobText kAbsent;
    const auto found = settings_.find(element);
    return found != settings_.end() ? found->second.text : kAbsent;
}

bool CheckedJob::is_given(const std::string &element) const { return *text_or_empty(text(element)) != '\0'; }

void CheckedJob::report(const std::string &element, const std::string &what) {
    const auto found = settings_.find(element);
    report_at(found != settings_.end() ? found->second.line : line_, element + ": " + what);
}

void CheckedJob::report_at(long line, const std::string &what) {
    const std::optional<std::int32_t> number = record_.job_id >= 0 ? std::optional(record_.job_id) : std::nullopt;
    findings_.push_back({line, true, number, text_or_empty(record_.name), what});
}

void CheckedJob::require(const std::string &element) {
    if (!text(element))
        report(element, "is missing");
    else if (!is_given(element))
        report(element, "is empty");
}

void CheckedJob::require_number(const std::string &element, long lowest, long highest) {
    if (!is_given(element)) return;
    const std::string &digits = *text(element);
    long number = 0;
    const auto result = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    const std::string range = std::to_string(lowest) + " to " + std::to_string(highest);
    if (result.ptr != digits.data() + digits.size() || result.ec == std::errc::invalid_argument)
        report(element, quoted(digits) + " is no number from " + range + "; it is taken as " +
                            std::to_string(decimal_value(digits.c_str())));
    else if (result.ec != std::errc() || number < lowest || number > highest)
        report(element, digits + " is out of range (" + range + ")");
}

} // namespace tsbackup
