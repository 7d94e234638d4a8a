#include "Debug/StatTable.h"

#include <cstdio>

namespace Veltro::Ravelo {

namespace {

/// A text within quotes, as JSON and the metrics want it.
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

/// Adds to a list, with what stands between two elements of it.
void add(std::string& list, const char* between, const std::string& element) {
    if (!list.empty()) list += between;
    list += element;
}

std::string textOf(const std::string& table, const SStatRow& row) {
    std::string line = table;
    for (const auto& [label, value] : row.labels) line += " " + label + " " + value;
    std::string figures;
    for (const auto& [name, value] : row.values) add(figures, ", ", name + " " + std::to_string(value));
    return line + ": " + figures;
}

std::string jsonOf(const SStatRow& row) {
    std::string members;
    for (const auto& [label, value] : row.labels) add(members, ",", quoted(label) + ":" + quoted(value));
    for (const auto& [name, value] : row.values)
        add(members, ",", quoted(name) + ":" + std::to_string(value));
    return "{" + members + "}";
}

std::string jsonOf(const std::vector<SStatTable>& tables) {
    std::string members;
    for (const SStatTable& table : tables) {
        std::string rows;
        for (const SStatRow& row : table.rows) add(rows, ",", jsonOf(row));
        add(members, ",", quoted(table.name) + ":[" + rows + "]");
    }
    return "{" + members + "}";
}

/// One line for each figure: all lines of one figure stand together, as the format wants it.
void addMetrics(const SStatTable& table, std::vector<std::string>& lines) {
    if (table.rows.empty()) return;
    for (std::size_t i = 0; i < table.rows.front().values.size(); ++i) {
        const std::string metric = "ravelo_" + table.name + "_" + table.rows.front().values[i].first;
        lines.push_back("# TYPE " + metric + " gauge");
        for (const SStatRow& row : table.rows) {
            std::string labels;
            for (const auto& [label, value] : row.labels) add(labels, ",", label + "=" + quoted(value));
            if (!labels.empty()) labels = "{" + labels + "}";
            lines.push_back(metric + labels + " " + std::to_string(row.values[i].second));
        }
    }
}

}  // namespace

std::vector<std::string> statLines(const std::vector<SStatTable>& tables, EStatForm form) {
    if (form == EStatForm::Json) return {jsonOf(tables)};
    std::vector<std::string> lines;
    for (const SStatTable& table : tables) {
        if (form == EStatForm::Metrics) {
            addMetrics(table, lines);
            continue;
        }
        for (const SStatRow& row : table.rows) lines.push_back(textOf(table.name, row));
    }
    return lines;
}

}  // namespace Veltro::Ravelo
