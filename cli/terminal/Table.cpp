#include "cli/terminal/Table.h"

#include "standalone/helpers/Text.h"

#include <algorithm>
#include <array>

namespace cli
{

std::string FormatLines(const Row& values)
{
    std::string text;
    for (const std::string& value : values)
        text += znlib::Printable(value) + '\n';
    return text;
}

std::string FormatTable(const Row& headings, std::vector<Row> rows, bool withHeadings)
{
    for (Row& row : rows)
        for (std::string& cell : row)
            cell = cell.empty() ? "-" : znlib::Printable(cell);
    if (!rows.empty() && withHeadings)
        rows.insert(rows.begin(), headings);
    std::vector<std::size_t> widths(headings.size());
    for (const Row& row : rows)
        for (std::size_t column = 0; column < row.size(); ++column)
            widths[column] = std::max(widths[column], row[column].size());
    std::string table;
    for (const Row& row : rows)
    {
        for (std::size_t column = 0; column + 1 < row.size(); ++column)
            table.append(row[column]).append(widths[column] + 2 - row[column].size(), ' ');
        table.append(row.back()).append("\n");
    }
    return table;
}

std::string DescribeSize(unsigned long long bytes)
{
    constexpr std::array<char, 6> kUnits{'K', 'M', 'G', 'T', 'P', 'E'};
    constexpr unsigned long long kStep = 1024;
    constexpr unsigned long long kRoundedUp = 1048525; // 1023.95, which would be shown as 1024.0
    if (bytes < kStep)
        return std::to_string(bytes) + 'B';
    std::size_t unit = 0;
    for (; bytes >= kRoundedUp; bytes /= kStep) // counts in the unit below
        ++unit;
    const unsigned long long tenths = (bytes * 10 + kStep / 2) / kStep;
    const std::string fraction = tenths % 10 == 0 ? "" : '.' + std::to_string(tenths % 10);
    return std::to_string(tenths / 10) + fraction + kUnits.at(unit);
}

} // namespace cli
