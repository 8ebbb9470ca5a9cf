#include "job_file.h"
#include "tsbackup.h"
#include "tsbackup_utils.h"

#include <cstring>

namespace tsbackup {

namespace {

void collect(const xmlNode *list, std::vector<std::int32_t> &jobs) {
    for (const xmlNode *node = first_child(list); node != nullptr; node = node->next) {
        if (std::strcmp(node_name(node), "backupButtonJob") != 0) continue;
        const char *value = node_value(node);
        jobs.push_back(value != nullptr ? decimal_value(value) : 0);
    }
}

} // namespace

std::vector<std::int32_t> button_jobs_find(const xmlDoc *document) {
    std::vector<std::int32_t> jobs;
    for (const xmlNode *entry = first_entry(document); entry != nullptr; entry = entry->next)
        if (std::strcmp(node_name(entry), "backupButtonJobs") == 0) collect(entry, jobs);
    return jobs;
}

std::vector<std::int32_t> button_jobs_load() { return button_jobs_find(job_file_parse().get()); }

} // namespace tsbackup
