// Figures as persons read them.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string_view>

#include "Debug/StatTable.h"

namespace Veltro::Ravelo {

namespace {

constexpr std::size_t WIDTH = 80;
constexpr char INDENT[] = "  ";

/// A number with a unit, in at most three digits before the point and three digits in all.
std::string rounded(double value, const char* unit) {
    char text[32];
    std::snprintf(text, sizeof text, "%.*f%s", value < 9.995 ? 2 : value < 99.95 ? 1 : 0, value, unit);
    return text;
}

/// Exact up to 99999.
std::string shortNumber(std::int64_t number) {
    if (std::abs(number) < 100'000) return std::to_string(number);
    static constexpr const char* UNITS[] = {"k", "M", "G", "T", "P", "E"};
    auto value = static_cast<double>(number);
    std::size_t unit = 0;
    for (value /= 1000; std::abs(value) >= 999.5 && unit + 1 < std::size(UNITS); value /= 1000) ++unit;
    return rounded(value, UNITS[unit]);
}

std::string shortTime(std::int64_t us) {
    const auto value = static_cast<double>(us);
    if (us == 0) return "0";
    if (us < 1000) return std::to_string(us) + "us";
    if (value < 999.5e3) return rounded(value / 1e3, "ms");
    if (value < 999.5e6) return rounded(value / 1e6, "s");
    if (value < 999.5 * 3600e6) return rounded(value / 3600e6, "h");
    return shortNumber(us / 86'400'000'000) + "d";
}

bool isTime(std::string_view name) {
    return name.ends_with("_us");
}

/// A column's name: the unit of a time stands at each value.
std::string headOf(const SStatFigure& figure) {
    const std::string_view name = figure.name;
    return std::string(isTime(name) ? name.substr(0, name.size() - 3) : name);
}

std::string cellOf(const SStatFigure& figure, std::int64_t value) {
    return isTime(figure.name) ? shortTime(value) : shortNumber(value);
}

using Cells = std::vector<std::string>;

/// Right-aligned cells with two blanks between them.
std::string alignedLine(const Cells& cells, const std::vector<std::size_t>& widths) {
    std::string line;
    for (std::size_t i = 0; i < cells.size(); ++i) {
        if (i > 0) line += "  ";
        line += std::string(widths[i] - cells[i].size(), ' ') + cells[i];
    }
    return line;
}

void addColumns(const SStatTable& table, std::vector<std::string>& lines) {
    if (table.rows.empty()) return;
    std::vector<Cells> grid(1);
    for (const auto& [label, value] : table.rows.front().labels) grid[0].push_back(label);
    for (const SStatFigure& figure : table.figures) grid[0].push_back(headOf(figure));
    for (const SStatRow& row : table.rows) {
        Cells& cells = grid.emplace_back();
        for (const auto& [label, value] : row.labels) cells.push_back(value);
        for (std::size_t i = 0; i < row.values.size(); ++i) {
            cells.push_back(cellOf(table.figures[i], row.values[i]));
        }
    }
    std::vector<std::size_t> widths(grid[0].size(), 0);
    for (const Cells& cells : grid) {
        for (std::size_t i = 0; i < cells.size(); ++i) widths[i] = std::max(widths[i], cells[i].size());
    }
    if (!table.title.empty()) lines.push_back(table.title);
    for (const Cells& cells : grid) lines.push_back(INDENT + alignedLine(cells, widths));
}

/// "pool number 0: threads 2, queued 0", and what does not fit in lines below it.
void addRow(const SStatTable& table, const SStatRow& row, std::vector<std::string>& lines) {
    std::string line = table.name;
    for (const auto& [label, value] : row.labels) line += " " + label + " " + value;
    line += ":";
    for (std::size_t i = 0; i < row.values.size(); ++i) {
        const bool is_last = i + 1 == row.values.size();
        const std::string figure =
            std::string(table.figures[i].name) + " " + std::to_string(row.values[i]) + (is_last ? "" : ",");
        if (line.size() + 1 + figure.size() > WIDTH) {
            lines.push_back(line);
            line = " ";
        }
        line += " " + figure;
    }
    lines.push_back(line);
}

}  // namespace

void addText(const SStatTable& table, std::vector<std::string>& lines) {
    if (table.layout == EStatLayout::Columns) {
        addColumns(table, lines);
        return;
    }
    for (const SStatRow& row : table.rows) addRow(table, row, lines);
}

}  // namespace Veltro::Ravelo
