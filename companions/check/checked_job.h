// One job while it is checked.

#pragma once

#include "findings.h"
#include "tsbackup/job.h"

#include <libxml/tree.h>
#include <map>
#include <string>

namespace tsbackup {

class CheckedJob {
  public:
    /// Reads the settings of an entry of the job file and reports what is wrong with their form.
    CheckedJob(const xmlNode *entry, Findings &findings);

    const BackupJob &record() const { return record_; }
    long line() const { return line_; }

    /// The text of a setting; no value when the job has no such element.
    const JobText &text(const std::string &element) const;
    bool is_given(const std::string &element) const; ///< there, and not empty

    /// Reports something about a setting, at its line; at the job's line when the job has no such element.
    void report(const std::string &element, const std::string &what);
    /// The same about the job as a whole, at any line.
    void report_at(long line, const std::string &what);

    /// Reports a setting that is absent or empty.
    void require(const std::string &element);
    /// Reports a setting that is given and is no decimal number between the two.
    void require_number(const std::string &element, long lowest, long highest);

  private:
    struct Setting {
        long line = 0;
        JobText text;
    };

    void read_setting(const xmlNode *node);

    Findings &findings_;
    long line_ = 0;
    BackupJob record_;
    std::map<std::string, Setting> settings_;
};

/// The line of a node in its file.
long line_of(const xmlNode *node);

/// Whether a node is text that the program ignores and nobody meant: other than blanks between elements.
bool is_stray_text(const xmlNode *node);

/// Reports what is wrong with the form of an element's value: the program uses the first piece of it alone.
void check_value_form(const xmlNode *node, Findings &findings, Finding finding);

/// The text between quotation marks.
std::string quoted(const std::string &text);

} // namespace tsbackup
