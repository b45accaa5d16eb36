#pragma once

#include <string>
#include <vector>

namespace cli {

enum class Align { kLeft, kRight };

struct TableColumn {
    std::string title;
    Align align = Align::kLeft;
};

// A table for people: columns as wide as their widest cell, two blanks between them, cells made printable.
class Table {
public:
    explicit Table(std::vector<TableColumn> columns);

    // Adds a row; missing cells are empty, cells beyond the columns are a programmer's error (assertion).
    void Add(std::vector<std::string> cells);

    // The whole table, a line each, no blanks at the ends of lines; only the titles when it has no rows.
    [[nodiscard]] std::string Render() const;

private:
    std::vector<TableColumn> m_columns;
    std::vector<std::vector<std::string>> m_rows;
};

}  // namespace cli
