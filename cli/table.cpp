#include "cli/table.h"

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <utility>

#include "cli/printable.h"

namespace cli {

namespace {

constexpr const char* kGap = "  ";

std::string Padded(const Printable& cell, std::size_t width, Align align) {
    const std::string blanks(width - cell.width, ' ');
    return align == Align::kLeft ? cell.text + blanks : blanks + cell.text;
}

}  // namespace

Table::Table(std::vector<TableColumn> columns) : m_columns(std::move(columns)) {}

void Table::Add(std::vector<std::string> cells) {
    assert(cells.size() <= m_columns.size());
    cells.resize(m_columns.size());
    m_rows.push_back(std::move(cells));
}

std::string Table::Render() const {
    std::vector<std::vector<Printable>> lines(1);
    for (const TableColumn& column : m_columns) {
        lines[0].push_back(MakePrintable(column.title));
    }
    for (const std::vector<std::string>& row : m_rows) {
        std::vector<Printable>& line = lines.emplace_back();
        std::transform(row.begin(), row.end(), std::back_inserter(line), MakePrintable);
    }
    std::vector<std::size_t> widths(m_columns.size(), 0);
    for (const std::vector<Printable>& line : lines) {
        for (std::size_t i = 0; i < line.size(); ++i) {
            widths[i] = std::max(widths[i], line[i].width);
        }
    }
    std::string text;
    for (const std::vector<Printable>& line : lines) {
        std::string shown;
        for (std::size_t i = 0; i < line.size(); ++i) {
            shown += (i == 0 ? "" : kGap) + Padded(line[i], widths[i], m_columns[i].align);
        }
        shown.erase(shown.find_last_not_of(' ') + 1);
        text += shown + "\n";
    }
    return text;
}

}  // namespace cli
