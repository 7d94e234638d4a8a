#include "Debug/StatTable.h"

#include <cinttypes>
#include <cstdio>
#include <string_view>

namespace Veltro::Ravelo {

namespace {

constexpr std::string_view MICROSECONDS = "_us";
constexpr std::int64_t US_IN_A_SECOND = 1'000'000;

/// A text within quotes, as JSON wants it.
std::string quoted(const std::string& text) {
    std::string result = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            result += '\\';
            result += c;
        } else if (static_cast<unsigned char>(c) < ' ') {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(c));
            result += escaped;
        } else {
            result += c;
        }
    }
    return result + "\"";
}

/// The same as the metrics want it, which know three escapes only.
std::string labelValue(const std::string& text) {
    std::string result = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') result += '\\';
        result += c == '\n' ? std::string("\\n") : std::string(1, c);
    }
    return result + "\"";
}

std::string jsonOf(const SStatTable& table, const SStatRow& row) {
    std::string members;
    for (const auto& [label, value] : row.labels) addTo(members, ",", quoted(label) + ":" + quoted(value));
    for (std::size_t i = 0; i < row.values.size(); ++i) {
        addTo(members, ",", quoted(table.figures[i].name) + ":" + std::to_string(row.values[i]));
    }
    return "{" + members + "}";
}

std::string jsonOf(const std::vector<SStatTable>& tables) {
    std::string members;
    for (const SStatTable& table : tables) {
        std::string rows;
        for (const SStatRow& row : table.rows) addTo(rows, ",", jsonOf(table, row));
        addTo(members, ",", quoted(table.name) + ":[" + rows + "]");
    }
    return "{" + members + "}";
}

bool isTime(std::string_view name) {
    return name.ends_with(MICROSECONDS);
}

std::string metricName(const SStatTable& table, const SStatFigure& figure) {
    std::string name = figure.name;
    if (name == "count") return "ravelo_" + table.name + "s";
    if (isTime(name)) name.replace(name.size() - MICROSECONDS.size(), MICROSECONDS.size(), "_seconds");
    if (figure.kind == EStatKind::Counter) name += "_total";
    return "ravelo_" + table.name + "_" + name;
}

std::string metricValue(const SStatFigure& figure, std::int64_t value) {
    if (!isTime(figure.name)) return std::to_string(value);
    char text[32];
    std::snprintf(text, sizeof text, "%" PRId64 ".%06d", value / US_IN_A_SECOND,
                  static_cast<int>(value % US_IN_A_SECOND));
    return text;
}

/// All lines of one figure stand together, as the format wants it.
void addMetrics(const SStatTable& table, std::vector<std::string>& lines) {
    if (table.rows.empty()) return;
    for (std::size_t i = 0; i < table.figures.size(); ++i) {
        const SStatFigure& figure = table.figures[i];
        const std::string metric = metricName(table, figure);
        lines.push_back("# HELP " + metric + " " + figure.help + ".");
        lines.push_back("# TYPE " + metric + (figure.kind == EStatKind::Counter ? " counter" : " gauge"));
        for (const SStatRow& row : table.rows) {
            std::string labels;
            for (const auto& [label, value] : row.labels) addTo(labels, ",", label + "=" + labelValue(value));
            if (!labels.empty()) labels = "{" + labels + "}";
            lines.push_back(metric + labels + " " + metricValue(figure, row.values[i]));
        }
    }
}

}  // namespace

void addTo(std::string& list, const char* between, const std::string& element) {
    if (!list.empty()) list += between;
    list += element;
}

std::vector<std::string> statLines(const std::vector<SStatTable>& tables, EStatForm form) {
    if (form == EStatForm::Json) return {jsonOf(tables)};
    std::vector<std::string> lines;
    for (const SStatTable& table : tables) {
        form == EStatForm::Metrics ? addMetrics(table, lines) : addText(table, lines);
    }
    return lines;
}

}  // namespace Veltro::Ravelo
