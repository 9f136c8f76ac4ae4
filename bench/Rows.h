// What bench-compare compares with what.
#pragma once

#include <string>
#include <vector>

#include "Comparison.h"

namespace mendline::bench {

// Ticks and lists of processes: the floors, the library, the peers.
std::vector<Row> tickRows();

// Answers to requests, and what their floor is.
std::vector<Row> requestRows();

// The rows of the named programs, and of those that are there at all; every one of these when no
// name is given.
std::vector<Row> rowsOf(const std::vector<Row>& rows, const std::vector<std::string>& programs);

}  // namespace mendline::bench
