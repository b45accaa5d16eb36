#pragma once

#include <string>

// The application database, SQLite or PostgreSQL. Implemented in pavane/store/pvdb.cpp.
// One connection per process, opened at first use; not safe for use from several threads.

namespace PVDB {

// Which database: one so far.
enum DBInstance : int {
    DB_DEFAULT = 0,
};

// The rows of an executed statement; opaque, freed with PVDBFreeResult.
struct DBResult;

// Runs one SQL statement.
//   result       out: the rows (empty for a statement without any); null after a failure. May itself be null.
//   multiple     true: `statement` holds several statements separated by ";"
//   retryOnBusy  true: wait for a lock that another process holds, within the platform's deadline
//   logFailure   true: the platform logs the database's own error text
//   reconnect    true: a connection that was lost is opened anew once
// 0 on success, non-zero otherwise; a failed statement changes nothing.
int Execute(DBInstance instance, const std::string& statement, DBResult** result, bool multiple,
            bool retryOnBusy, bool logFailure, bool reconnect);

// `text` as an SQL text literal, quotes included, for both databases. A NUL byte ends the text.
std::string QuoteEscape(const std::string& text);

}  // namespace PVDB

// The number of rows of a result.
int PVDBNumRows(const PVDB::DBResult* result);

// Steps to the next row: 0 while a row is there, non-zero after the last.
//   row  out: the row's number, for PVDBFetchField
int PVDBFetchRow(PVDB::DBResult* result, int* row);

// The cell of `column` in `row` as text; null for SQL's null and for a column that the result lacks. Whole
// numbers come in decimal, booleans as 1 or 0. Valid until the result is freed.
const char* PVDBFetchField(const PVDB::DBResult* result, int row, const char* column);

// Frees a result; null is allowed.
void PVDBFreeResult(PVDB::DBResult* result);
