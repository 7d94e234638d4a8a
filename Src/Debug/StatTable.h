// Figures with names, as text, as JSON and as a page of metrics.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace Veltro::Ravelo {

/// One thing that has figures: what it is called, by label, and its figures, by name.
struct SStatRow {
    std::vector<std::pair<std::string, std::string>> labels;
    std::vector<std::pair<std::string, std::int64_t>> values;
};

/// Things of one kind.
struct SStatTable {
    std::string name;
    std::vector<SStatRow> rows;
};

/// How figures are written: lines for persons, one JSON object, or lines of the text format that Prometheus
/// reads.
enum class EStatForm { Text, Json, Metrics };

/// The lines, without their ends. May throw std::bad_alloc.
std::vector<std::string> statLines(const std::vector<SStatTable>& tables, EStatForm form);

}  // namespace Veltro::Ravelo
