#include "json.h"

#include "result.h"

#include <nlohmann/json.hpp>

namespace tsbackup {

namespace {

using Json = nlohmann::ordered_json;

/// A state for scripts: "in_progress".
template <typename Status> std::string state_word(const Status &status) {
    std::string word = state_in_words(status);
    replace_char(word, ' ', '_');
    return word;
}

template <typename Value> Json value_or_null(const std::optional<Value> &value) {
    return value ? Json(*value) : Json(nullptr);
}

Json run_value(const HistoryEntry &run) {
    return {{"name", run.name},
            {"full", value_or_null(run.full)},
            {"protocol", run.protocol},
            {"source", run.source},
            {"destination", run.destination},
            {"start", run.start},
            {"finish", run.finish},
            {"status", run.status},
            {"result", result_in_words(run.status)}};
}

Json progress_value(const std::optional<BackupProgress> &progress) {
    if (!progress) return nullptr;
    return {{"bytes", progress->bytes}, {"rate", progress->rate}, {"elapsed", progress->elapsed}};
}

Json job_value(const JobStatus &job, std::int64_t now) {
    Json runs = Json::array();
    for (const HistoryEntry &run : job.history)
        runs.push_back(run_value(run));
    return {{"job_id", job.job_id},
            {"name", job.name},
            {"configured", job.configured},
            {"source", job.configured ? Json(job.source) : Json(nullptr)},
            {"destination", job.configured ? Json(job.destination) : Json(nullptr)},
            {"state", state_word(job)},
            {"since", value_or_null(job.since())},
            {"updated", job.has_status_file ? Json(job.updated) : Json(nullptr)},
            {"full", value_or_null(job.full())},
            {"elapsed", value_or_null(job.elapsed(now))},
            {"progress", progress_value(job.progress)},
            {"runs", runs},
            {"more_runs", job.history_goes_on},
            {"errors_of", job.is_running() ? "running" : "last"},
            {"errors", job.errors.lines},
            {"more_errors", job.errors.more}};
}

Json import_value(const ImportStatus &import) {
    Json value = {{"device", import.device}, {"state", state_word(import)}, {"updated", import.updated}};
    if (!import.status) return value;
    const MtpBackupStatistics &statistics = import.status->statistics;
    value["since"] = import.status->timestamp;
    value["total_bytes"] = statistics.total_bytes;
    value["copied_bytes"] = statistics.copied_bytes;
    value["total_files"] = statistics.total_files;
    value["copied_files"] = statistics.copied_files;
    value["rate"] = statistics.rate;
    return value;
}

std::string document(const Json &value) { return value.dump(2, ' ', true, Json::error_handler_t::replace) + "\n"; }

} // namespace

std::string overview_json(const Overview &overview) {
    Json jobs = Json::array();
    for (const JobStatus &job : overview.jobs)
        jobs.push_back(job_value(job, overview.now));
    Json imports = Json::array();
    for (const ImportStatus &import : overview.imports)
        imports.push_back(import_value(import));
    return document({{"now", overview.now}, {"jobs", jobs}, {"imports", imports}, {"problems", overview.problems}});
}

std::string job_json(const JobStatus &job, std::int64_t now) { return document(job_value(job, now)); }

} // namespace tsbackup
