#include "table.h"

#include "display.h"
#include "result.h"
#include "tsbackup/paths.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <ctime>
#include <string_view>

namespace tsbackup {

namespace {

constexpr std::size_t kWidestName = 32;
constexpr std::size_t kWidestText = 100;
constexpr std::size_t kGap = 2;
constexpr char kNothing[] = "-";

constexpr char kRed[] = "31";
constexpr char kGreen[] = "32";
constexpr char kYellow[] = "33";
constexpr char kCyan[] = "36";

struct Cell {
    std::string text;
    const char *colour = nullptr;
};

using Row = std::vector<Cell>;

struct Column {
    const char *heading;
    bool to_the_right = false;
};

// ---- values ----------------------------------------------------------------------------------------------------

std::string time_text(std::optional<std::int64_t> seconds) {
    if (!seconds) return kNothing;
    const std::time_t time = *seconds;
    std::tm parts{};
    std::array<char, 64> text{};
    if (localtime_r(&time, &parts) == nullptr || std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M", &parts) == 0)
        return kNothing;
    return text.data();
}

std::string duration_text(std::optional<std::int64_t> seconds) {
    if (!seconds) return kNothing;
    const long long days = *seconds / 86400;
    const long long hours = *seconds / 3600 % 24;
    const long long minutes = *seconds / 60 % 60;
    const std::optional<std::string> clock = str_printf("%lld:%02lld:%02lld", hours, minutes, *seconds % 60LL);
    return (days > 0 ? std::to_string(days) + "d " : "") + clock.value_or("");
}

std::string bytes_text(double bytes, const char *behind = "") {
    static constexpr std::array<const char *, 7> kUnits = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    if (!(bytes >= 0) || std::isinf(bytes)) return kNothing;
    std::size_t unit = 0;
    while (bytes >= 1024 && unit + 1 < kUnits.size()) {
        bytes /= 1024;
        ++unit;
    }
    return str_printf("%.*f %s%s", unit == 0 ? 0 : 1, bytes, kUnits.at(unit), behind).value_or(kNothing);
}

std::string full_text(std::optional<bool> full) {
    if (!full) return kNothing;
    return *full ? "full" : "incremental";
}

std::string shown(const std::string &text, std::size_t widest) { return display_cut(display_text(text), widest); }

std::string name_text(const JobStatus &job) {
    if (job.job_id == 0 && !job.configured) return job.name.empty() ? "(backup button)" : shown(job.name, kWidestName);
    if (job.configured) return shown(job.name, kWidestName);
    constexpr std::string_view kRemoved = "(removed)";
    if (job.name.empty()) return std::string(kRemoved);
    return shown(job.name, kWidestName - kRemoved.size() - 1) + " " + std::string(kRemoved);
}

Cell state_cell(const JobStatus &job) {
    const char *colour = nullptr;
    if (job.status) {
        switch (job.status->code) {
        case BackupStatusCode::failed:
            colour = kRed;
            break;
        case BackupStatusCode::completed:
            colour = kGreen;
            break;
        case BackupStatusCode::cancelling:
        case BackupStatusCode::cancelled:
            colour = kYellow;
            break;
        case BackupStatusCode::in_progress:
        case BackupStatusCode::in_queue:
        case BackupStatusCode::wol_waking:
            colour = kCyan;
            break;
        }
    }
    return {state_in_words(job), colour};
}

// ---- layout ----------------------------------------------------------------------------------------------------

template <std::size_t count>
void add_table(const std::array<Column, count> &columns, std::vector<Row> rows, std::vector<TableLine> &lines) {
    Row headings;
    for (const Column &column : columns)
        headings.push_back({column.heading});
    rows.insert(rows.begin(), std::move(headings));

    std::array<std::size_t, count> widths{};
    for (const Row &row : rows)
        for (std::size_t i = 0; i < count; ++i)
            widths[i] = std::max(widths[i], display_width(row[i].text));

    for (const Row &row : rows) {
        TableLine line;
        for (std::size_t i = 0; i < count; ++i) {
            if (i > 0) line.text.append(kGap, ' ');
            if (row[i].colour != nullptr) {
                line.colour = row[i].colour;
                line.colour_at = line.text.size();
                line.colour_length = row[i].text.size();
            }
            line.text += display_padded(row[i].text, widths[i], columns[i].to_the_right);
        }
        line.text.erase(line.text.find_last_not_of(' ') + 1);
        lines.push_back(std::move(line));
    }
}

Row job_row(const JobStatus &job, std::int64_t now) {
    const bool moving = job.progress.has_value();
    const HistoryEntry *last = job.last_run();
    return {{std::to_string(job.job_id)},
            {name_text(job)},
            state_cell(job),
            {time_text(job.since())},
            {full_text(job.full())},
            {moving ? bytes_text(static_cast<double>(job.progress->bytes)) : kNothing},
            {moving ? bytes_text(job.progress->rate, "/s") : kNothing},
            {duration_text(job.elapsed(now))},
            {last != nullptr ? result_in_words(last->status) : kNothing},
            {job.errors.lines.empty() ? "" : shown(job.errors.lines.front(), kWidestText)}};
}

void add_jobs(const Overview &overview, std::vector<TableLine> &lines) {
    static constexpr std::array<Column, 10> kColumns = {{{"JOB", true},
                                                         {"NAME"},
                                                         {"STATE"},
                                                         {"SINCE"},
                                                         {"KIND"},
                                                         {"BYTES", true},
                                                         {"RATE", true},
                                                         {"ELAPSED", true},
                                                         {"LAST RESULT"},
                                                         {"ERRORS"}}};
    if (overview.jobs.empty()) {
        lines.push_back({"no jobs"});
        return;
    }
    std::vector<Row> rows;
    for (const JobStatus &job : overview.jobs)
        rows.push_back(job_row(job, overview.now));
    add_table(kColumns, std::move(rows), lines);
}

Row import_row(const ImportStatus &import) {
    Row row = {
        {shown(import.device, kWidestName)}, {state_in_words(import)}, {kNothing}, {kNothing}, {kNothing}, {kNothing}};
    if (!import.status) return row;
    const MtpBackupStatistics &statistics = import.status->statistics;
    row[2].text = time_text(import.status->timestamp);
    row[3].text = std::to_string(statistics.copied_files) + " of " + std::to_string(statistics.total_files);
    row[4].text = bytes_text(static_cast<double>(statistics.copied_bytes)) + " of " +
                  bytes_text(static_cast<double>(statistics.total_bytes));
    row[5].text = bytes_text(statistics.rate, "/s");
    return row;
}

void add_imports(const Overview &overview, std::vector<TableLine> &lines) {
    static constexpr std::array<Column, 6> kColumns = {
        {{"CAMERA"}, {"STATE"}, {"SINCE"}, {"FILES", true}, {"BYTES", true}, {"RATE", true}}};
    if (overview.imports.empty()) return;
    std::vector<Row> rows;
    for (const ImportStatus &import : overview.imports)
        rows.push_back(import_row(import));
    lines.push_back({""});
    add_table(kColumns, std::move(rows), lines);
}

void add_field(const char *label, const std::string &value, std::vector<TableLine> &lines) {
    lines.push_back({display_padded(label, 13) + display_text(value)});
}

void add_state(const JobStatus &job, std::int64_t now, std::vector<TableLine> &lines) {
    add_field("state", "", lines);
    const Cell state = state_cell(job);
    TableLine &line = lines.back();
    line.colour = state.colour;
    line.colour_at = line.text.size();
    line.colour_length = state.text.size();
    line.text += state.text;
    if (job.since()) line.text += ", since " + time_text(job.since());
    if (!job.is_running()) return;
    add_field("kind", full_text(job.full()), lines);
    add_field("elapsed", duration_text(job.elapsed(now)), lines);
    if (!job.progress) return;
    add_field("copied",
              bytes_text(static_cast<double>(job.progress->bytes)) + ", " + bytes_text(job.progress->rate, "/s"),
              lines);
    add_field("last sign", time_text(job.updated), lines);
}

void add_runs(const JobStatus &job, std::vector<TableLine> &lines) {
    static constexpr std::array<Column, 6> kColumns = {
        {{"START"}, {"FINISH"}, {"ELAPSED", true}, {"KIND"}, {"PROTOCOL"}, {"RESULT"}}};
    if (job.history.empty()) return;
    std::vector<Row> rows;
    for (const HistoryEntry &run : job.history) {
        const std::int64_t elapsed = std::int64_t{run.finish} - run.start;
        rows.push_back({{time_text(run.start)},
                        {time_text(run.finish)},
                        {duration_text(elapsed < 0 ? std::nullopt : std::optional(elapsed))},
                        {full_text(run.full)},
                        {shown(run.protocol, kWidestName)},
                        {result_in_words(run.status)}});
    }
    lines.push_back({""});
    add_table(kColumns, std::move(rows), lines);
    if (job.history_goes_on) lines.push_back({"older runs: " + paths::history(job.job_id)});
}

void add_errors(const JobStatus &job, std::vector<TableLine> &lines) {
    if (job.errors.lines.empty()) return;
    lines.push_back({""});
    lines.push_back({job.is_running() ? "Errors of the run in progress:" : "Errors of the last run:"});
    for (const std::string &line : job.errors.lines)
        lines.push_back({"  " + shown(line, 2 * kWidestText)});
    if (job.errors.more) lines.push_back({"more errors: " + paths::error_log(job.job_id)});
}

} // namespace

std::vector<TableLine> overview_table(const Overview &overview) {
    std::vector<TableLine> lines;
    add_jobs(overview, lines);
    add_imports(overview, lines);
    return lines;
}

std::vector<TableLine> job_table(const JobStatus &job, std::int64_t now) {
    std::vector<TableLine> lines;
    add_field("job", std::to_string(job.job_id), lines);
    lines.push_back({display_padded("name", 13) + name_text(job)});
    if (job.configured) {
        add_field("source", job.source, lines);
        add_field("destination", job.destination, lines);
    }
    add_state(job, now, lines);
    add_runs(job, lines);
    add_errors(job, lines);
    return lines;
}

std::string table_line_text(const TableLine &line, std::size_t columns, bool coloured) {
    std::string text = columns > 0 ? display_cut(line.text, columns) : line.text;
    const std::size_t colour_end = line.colour_at + line.colour_length;
    const bool is_whole = text.compare(0, colour_end, line.text, 0, colour_end) == 0;
    if (!coloured || line.colour == nullptr || !is_whole) return text;
    text.insert(colour_end, "\033[0m");
    text.insert(line.colour_at, std::string("\033[") + line.colour + "m");
    return text;
}

} // namespace tsbackup
