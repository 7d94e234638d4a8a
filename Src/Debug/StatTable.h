// Figures with names, as text, as JSON and as a page of metrics.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace Veltro::Ravelo {

/// What a number is: of a moment, or one that only grows.
enum class EStatKind { Gauge, Counter };

/// One figure of a table.
struct SStatFigure {
    const char* name;  ///< a time ends in "_us", microseconds; "count" is how many of the table's things are
                       ///< there
    const char* help;  ///< one line without its full stop
    EStatKind kind = EStatKind::Gauge;
};

/// One thing that has figures: what it is called, by label, and a value for each of the table's figures.
struct SStatRow {
    std::vector<std::pair<std::string, std::string>> labels;
    std::vector<std::int64_t> values;
};

/// How persons see a table: a few lines for each row, or a row in a line below a title and the names.
enum class EStatLayout { Lines, Columns };

/// Things of one kind.
struct SStatTable {
    std::string name;  ///< of one thing
    std::vector<SStatFigure> figures;
    std::vector<SStatRow> rows{};
    EStatLayout layout = EStatLayout::Lines;
    std::string title{};  ///< of columns
};

/// How figures are written: lines for persons, one JSON object, or lines of the text format that Prometheus
/// reads.
///
/// Lines for persons fit 80 columns, unless a single label or figure does not. In columns numbers are
/// rounded: "12.3M", "4.56s". In metrics times are seconds, what only grows ends in "_total", and "count"
/// stands as the table's name in the plural.
enum class EStatForm { Text, Json, Metrics };

/// The lines, without their ends. May throw std::bad_alloc.
std::vector<std::string> statLines(const std::vector<SStatTable>& tables, EStatForm form);

/// The lines of one table for persons.
void addText(const SStatTable& table, std::vector<std::string>& lines);

/// Adds to a list, with what stands between two elements of it.
void addTo(std::string& list, const char* between, const std::string& element);

}  // namespace Veltro::Ravelo
