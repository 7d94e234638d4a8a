// The figures of the stream tools: senders and media buffers.
#pragma once

#include <cstddef>
#include <vector>

#include "Debug/StatTable.h"

namespace Veltro::Ravelo::StatTools {

/// How many of the worst are shown where not all are asked for.
constexpr std::size_t FEW = 5;
/// How many are shown at most.
constexpr std::size_t MANY = 10'000;

// Each adds two tables for a kind of tool: one row of what all have done, those included that have gone, and
// a row for each of the first ones. Nothing that sends waits meanwhile. Any thread; may throw std::bad_alloc.
// @param at_most how many rows the second table has at most; 0 leaves it out.

/// Stream senders and media senders: first who has stalled longest at present, then who has stalled most.
void addSenders(std::vector<SStatTable>& tables, std::size_t at_most);
/// Media buffers: first what holds most.
void addBuffers(std::vector<SStatTable>& tables, std::size_t at_most);

}  // namespace Veltro::Ravelo::StatTools
