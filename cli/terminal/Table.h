// Text in lines and columns. All functions are pure.
#pragma once

#include <string>
#include <vector>

namespace cli
{

using Row = std::vector<std::string>;

// One value a line, escaped.
std::string FormatLines(const Row& values);

// Formats rows, all with the same number of cells, as lines with aligned columns. An empty cell becomes
// a dash, so that scripts see the same number of columns in each row. Nothing if there are no rows.
std::string FormatTable(const Row& headings, std::vector<Row> rows, bool withHeadings);

// Returns a size in the format of lsblk: "100M", "1.5T".
std::string DescribeSize(unsigned long long bytes);

} // namespace cli
