#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <list>
#include <string>

#include "platform/pavane/database.h"
#include "platform/pavane/log.h"

namespace PVDB {

// A text usable as a template argument.
template <std::size_t Size>
struct FixedText {
    char text[Size]{};

    consteval FixedText(const char (&literal)[Size]) { std::copy_n(literal, Size, text); }
};

inline void ReadField(std::string& field, const char* cell) { field = cell != nullptr ? cell : ""; }
inline void ReadField(int& field, const char* cell) {
    constexpr int kDecimal = 10;
    field = cell != nullptr ? static_cast<int>(std::strtol(cell, nullptr, kDecimal)) : 0;
}

// One column of a table and the member of a record that holds it. A null cell reads as "" or 0.
template <FixedText Name, auto Member>
struct Column {
    static constexpr const char* kName = Name.text;

    template <class Record>
    static void Read(Record& record, DBResult* result, int row) {
        ReadField(record.*Member, PVDBFetchField(result, row, kName));
    }
};

// Reads the rows of one table as records; `Columns` gives the columns in the order of the select list.
// Holds no connection; one object may serve every caller of a process.
template <class Record, class... Columns>
class DBMapping {
public:
    DBMapping(DBInstance instance, const char* table) : m_instance(instance), m_table(table) {}

    // Replaces `records` by the table's rows, in the database's order.
    //   condition, order, limit  texts appended to the statement one after another, unchanged; may be empty.
    //                            The caller quotes what they hold (PVDB::QuoteEscape) and starts them with a
    //                            blank
    // 0 on success; otherwise the database's result, and `records` is as it was. Blocks for one statement.
    int Enum(std::list<Record>& records, const std::string& condition, const std::string& order,
             const std::string& limit) const {
        const std::string statement =
            "SELECT " + ColumnList() + " FROM " + m_table + condition + order + limit;
        DBResult* result = nullptr;
        const int executed = Execute(m_instance, statement, &result, false, true, true, true);
        if (executed != 0) {
            PVPrintf(LOG_TYPE_DEFAULT, nullptr, nullptr, "include/dbmapping", __LINE__, "Enum",
                     "Failed to execute command: %s\n", statement.c_str());
            return executed;
        }
        records.clear();
        int row = 0;
        while (PVDBFetchRow(result, &row) == 0) {
            Record& record = records.emplace_back();
            (Columns::Read(record, result, row), ...);
        }
        PVDBFreeResult(result);
        return 0;
    }

private:
    static std::string ColumnList() {
        std::string list;
        ((list += list.empty() ? "" : ",", list += Columns::kName), ...);
        return list;
    }

    DBInstance m_instance;
    const char* m_table;
};

}  // namespace PVDB
