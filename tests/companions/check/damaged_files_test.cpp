// A job file may hold anything.

#include "damage.h"
#include "job_check.h"
#include "job_texts.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace tsbackup::test {
namespace {

void expect_checked(const std::string &text, std::size_t &well_formed) {
    const CheckResult result = job_text_check(text);
    well_formed += result.jobs > 0 ? 1 : 0;
    long line = 0;
    for (const Finding &finding : result.findings) {
        EXPECT_GE(finding.line, line);
        line = finding.line;
        EXPECT_FALSE(finding.text.empty());
        EXPECT_LT(finding.text.size(), 10000U);
    }
}

/// What XML can carry.
std::string printable(const std::string &text) {
    std::string kept;
    for (const char letter : text)
        if (letter == '\n' || (letter >= ' ' && letter < 0x7f)) kept += letter;
    return kept;
}

TEST(DamagedJobFiles, AreCheckedAllTheSame) {
    std::size_t well_formed = 0;
    for (std::uint32_t round = 0; round < 2000 && !HasFailure(); ++round) {
        SCOPED_TRACE(round);
        Damage damage(round);
        const AcceptedCase &job = kAcceptedJobs[round % kAcceptedJobs.size()];
        const std::string list = "<backupButtonJobs><backupButtonJob>7</backupButtonJob></backupButtonJobs>";
        expect_checked(damage.damaged(job_text(job.changes, "", list)), well_formed);
    }
    EXPECT_GT(well_formed, 10U);
}

TEST(DamagedJobFiles, DamagedValuesAreCheckedAllTheSame) {
    std::size_t well_formed = 0;
    for (std::uint32_t round = 0; round < 2000 && !HasFailure(); ++round) {
        SCOPED_TRACE(round);
        Damage damage(round);
        Changes changes = kAcceptedJobs[round % kAcceptedJobs.size()].changes;
        for (const char *element : {"src_path", "dst_share_proto", "dst_path", "src_login", "wol_addr", "src_type"}) {
            const auto is_element = [element](const auto &change) { return change.first == element; };
            const auto found = std::find_if(changes.begin(), changes.end(), is_element);
            std::string value = found != changes.end() ? found->second.value_or("") : "share/../x:y";
            if (round % 3 == 0) value = damage.damaged(std::move(value));
            std::erase_if(changes, is_element);
            changes.emplace_back(element, printable(value));
        }
        expect_checked(job_text(changes), well_formed);
    }
    EXPECT_EQ(well_formed, 2000U);
}

} // namespace
} // namespace tsbackup::test
