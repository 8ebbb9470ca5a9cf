#include "report.h"

#include "tsbackup/owners.h"

#include <algorithm>
#include <cstdio>

namespace tsbackup::bench {

namespace {

double median(std::vector<double> values) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

const char *metric_name(Metric metric) {
    switch (metric) {
    case Metric::cpu:
        return "cpu";
    case Metric::wall:
        return "wall";
    case Metric::memory:
        return "memory";
    }
    return "";
}

const char *verdict(const Figure &figure) {
    if (!figure.met()) return "MISSED";
    if (figure.aim_met()) return "aim reached";
    return figure.required.must > 0 ? "ok" : "";
}

/// A limit, or what stands for none.
std::string limit_text(double limit, const char *none) {
    char text[16];
    std::snprintf(text, sizeof text, "%.2f", limit);
    return limit > 0 ? text : none;
}

} // namespace

Figure ratio_figure(const std::string &name, const std::string &against, const Requirement &required,
                    const std::vector<Round> &rounds) {
    std::vector<double> ours;
    std::vector<double> other;
    std::vector<double> ratios;
    std::vector<double> with_sync;
    for (const Round &round : rounds) {
        const bool cpu = required.metric == Metric::cpu;
        ours.push_back(cpu ? round.ours.cpu : round.ours.wall);
        other.push_back(cpu ? round.other.cpu : round.other.wall);
        ratios.push_back(other.back() / ours.back());
        with_sync.push_back((round.other.wall + round.other.sync) / (round.ours.wall + round.ours.sync));
    }
    Figure figure;
    figure.name = name;
    figure.against = against;
    figure.required = required;
    figure.ratio = median(ratios);
    figure.lowest = *std::min_element(ratios.begin(), ratios.end());
    figure.highest = *std::max_element(ratios.begin(), ratios.end());
    figure.ours = median(ours);
    figure.other = median(other);
    if (required.metric == Metric::wall) figure.ratio_with_sync = median(with_sync);
    return figure;
}

void print_table(const std::vector<Figure> &figures) {
    std::printf("%-11s %-7s %-10s %8s %8s %7s %14s %10s %6s %6s  %s\n", "case", "metric", "against", "ours", "other",
                "ratio", "lowest-highest", "with sync", "must", "aim", "");
    for (const Figure &figure : figures) {
        char range[32] = "";
        char with_sync[16] = "";
        if (figure.required.metric != Metric::memory)
            std::snprintf(range, sizeof range, "%.2f-%.2f", figure.lowest, figure.highest);
        if (figure.required.metric == Metric::wall)
            std::snprintf(with_sync, sizeof with_sync, "%.2f", figure.ratio_with_sync);
        std::printf("%-11s %-7s %-10s %8.2f %8.2f %7.2f %14s %10s %6s %6s  %s\n", figure.name.c_str(),
                    metric_name(figure.required.metric), figure.against.c_str(), figure.ours, figure.other,
                    figure.ratio, range, with_sync, limit_text(figure.required.must, "-").c_str(),
                    limit_text(figure.required.aim, "-").c_str(), verdict(figure));
    }
}

bool write_json(const std::string &path, const std::vector<Figure> &figures) {
    const UniqueFile file(std::fopen(path.c_str(), "we"));
    if (!file) {
        std::perror(path.c_str());
        return false;
    }
    std::fprintf(file.get(), "[");
    const char *separator = "\n";
    for (const Figure &figure : figures) {
        std::fprintf(file.get(),
                     "%s  {\"case\": \"%s\", \"metric\": \"%s\", \"against\": \"%s\", \"ratio\": %.3f, \"must\": %s, "
                     "\"aim\": %s, \"met\": %s, \"lowest\": %.3f, \"highest\": %.3f, \"ours\": %.4f, \"other\": %.4f",
                     separator, figure.name.c_str(), metric_name(figure.required.metric), figure.against.c_str(),
                     figure.ratio, limit_text(figure.required.must, "null").c_str(),
                     limit_text(figure.required.aim, "null").c_str(), figure.met() ? "true" : "false", figure.lowest,
                     figure.highest, figure.ours, figure.other);
        if (figure.required.metric == Metric::wall)
            std::fprintf(file.get(), ", \"ratio_with_sync\": %.3f", figure.ratio_with_sync);
        std::fprintf(file.get(), "}");
        separator = ",\n";
    }
    std::fprintf(file.get(), "\n]\n");
    return true;
}

} // namespace tsbackup::bench
