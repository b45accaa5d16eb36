#include <algorithm>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/pavane/database.h"

#include "pavane/log_line.h"
#include "pavane/store/cell.h"
#include "pavane/store/database.h"
#include "pavane/store/statement_list.h"

struct PVDB::DBResult {
    std::vector<std::string> columns;
    std::vector<std::vector<std::optional<std::string>>> rows;
    std::size_t next = 0;
};

namespace {

using pavane::Database;

constexpr const char* kSource = "pavane/store/pvdb";

struct ExecuteOptions {
    bool retryOnBusy;
    bool reconnect;
};

void ReadColumns(const soci::row& row, PVDB::DBResult& result) {
    for (std::size_t i = 0; i < row.size(); ++i) {
        result.columns.push_back(row.get_properties(i).get_name());
    }
}

std::unique_ptr<PVDB::DBResult> RunStatement(Database& database, const std::string& statementText) {
    const std::string text = database.Kind() == pavane::DatabaseKind::kPostgresql
                                 ? pavane::WithPlainBackslashes(statementText)
                                 : statementText;
    auto result = std::make_unique<PVDB::DBResult>();
    soci::row row;
    soci::statement statement = (database.Session().prepare << text, soci::into(row));
    bool more = statement.execute(true);
    ReadColumns(row, *result);
    for (; more && row.size() > 0; more = statement.fetch()) {
        auto& cells = result->rows.emplace_back();
        for (std::size_t i = 0; i < row.size(); ++i) {
            cells.push_back(pavane::CellText(row, i));
        }
    }
    return result;
}

// The rows of the last statement. One statement is a transaction by itself.
std::unique_ptr<PVDB::DBResult> RunAll(Database& database, const std::vector<std::string>& statements) {
    if (statements.size() == 1) {
        return RunStatement(database, statements.front());
    }
    pavane::WriteTransaction transaction(database);
    std::unique_ptr<PVDB::DBResult> result;
    for (const std::string& statement : statements) {
        result = RunStatement(database, statement);
    }
    transaction.Commit();
    return result;
}

// Waits for locks as long as usual again when it is left.
class ImpatientStretch {
public:
    explicit ImpatientStretch(Database& database) : m_database(database) { m_database.SetPatience(false); }
    ~ImpatientStretch() {
        try {
            m_database.SetPatience(true);
        } catch (const std::exception& failure) {
            PV_LOG_LINE(kSource, "Failed to restore the wait for locks: %s\n",
                        pavane::DescribeFailure(failure).c_str());
        }
    }
    ImpatientStretch(const ImpatientStretch&) = delete;
    ImpatientStretch& operator=(const ImpatientStretch&) = delete;

private:
    Database& m_database;
};

std::unique_ptr<PVDB::DBResult> RunOnce(const std::vector<std::string>& statements,
                                        const ExecuteOptions& options) {
    Database& database = pavane::AppDatabase();
    std::optional<ImpatientStretch> impatient;
    if (!options.retryOnBusy) {
        impatient.emplace(database);
    }
    return RunAll(database, statements);
}

// A connection that was lost is noticed by the statement that needs it. Nothing of it has been committed
// then, unless it was lost between the commit and its answer; so only what reads is run again.
bool IsWorthAnotherTry(const std::vector<std::string>& statements, bool reconnect) {
    constexpr std::string_view kRead = "select";
    const std::string& statement = statements.front();
    const std::size_t begin = statement.find_first_not_of(" \t\r\n(");
    const bool reads =
        begin != std::string::npos && statements.size() == 1 &&
        std::equal(kRead.begin(), kRead.end(), statement.begin() + static_cast<std::ptrdiff_t>(begin),
                   [](char a, char b) { return a == (b | ' '); });
    return reconnect && reads;
}

std::unique_ptr<PVDB::DBResult> Run(const std::vector<std::string>& statements,
                                    const ExecuteOptions& options) {
    try {
        if (options.reconnect && !pavane::AppDatabase().IsAlive()) {
            pavane::CloseAppDatabase();
        }
        return RunOnce(statements, options);
    } catch (const soci::soci_error&) {
        if (!IsWorthAnotherTry(statements, options.reconnect) || pavane::AppDatabase().IsAlive()) {
            throw;
        }
    }
    pavane::CloseAppDatabase();
    return RunOnce(statements, options);
}

// Text with a NUL would reach the two databases differently.
std::vector<std::string> Statements(const std::string& text, bool multiple) {
    std::vector<std::string> statements = pavane::SplitStatements(text);
    if (statements.empty() || text.find('\0') != std::string::npos || (!multiple && statements.size() > 1)) {
        statements.clear();
    }
    return statements;
}

}  // namespace

int PVDB::Execute(DBInstance /*instance*/, const std::string& statement, DBResult** result, bool multiple,
                  bool retryOnBusy, bool logFailure, bool reconnect) {
    constexpr int kFailure = -1;
    if (result != nullptr) {
        *result = nullptr;
    }
    const std::vector<std::string> statements = Statements(statement, multiple);
    if (statements.empty()) {
        PV_LOG_LINE(kSource, "Refused a text that is not %s.\n",
                    multiple ? "SQL statements" : "one SQL statement");
        return kFailure;
    }
    try {
        std::unique_ptr<DBResult> rows = Run(statements, {retryOnBusy, reconnect});
        if (result != nullptr) {
            *result = rows.release();
        }
        return 0;
    } catch (const std::exception& failure) {
        if (logFailure) {
            PV_LOG_LINE(kSource, "A statement failed: %s\n", pavane::DescribeFailure(failure).c_str());
        }
        return kFailure;
    }
}

// Both databases take a backslash inside plain quotes as it stands.
std::string PVDB::QuoteEscape(const std::string& text) {
    std::string quoted = "'";
    for (const char byte : text) {
        if (byte == '\0') {
            break;
        }
        if (byte == '\'') {
            quoted += '\'';
        }
        quoted += byte;
    }
    quoted += '\'';
    return quoted;
}

int PVDBNumRows(const PVDB::DBResult* result) {
    return result != nullptr ? static_cast<int>(result->rows.size()) : 0;
}

int PVDBFetchRow(PVDB::DBResult* result, int* row) {
    if (result == nullptr || result->next >= result->rows.size()) {
        return -1;
    }
    *row = static_cast<int>(result->next++);
    return 0;
}

const char* PVDBFetchField(const PVDB::DBResult* result, int row, const char* column) {
    if (result == nullptr || row < 0 || static_cast<std::size_t>(row) >= result->rows.size()) {
        return nullptr;
    }
    const auto found = std::find(result->columns.begin(), result->columns.end(), column);
    if (found == result->columns.end()) {
        return nullptr;
    }
    const auto& cell =
        result
            ->rows[static_cast<std::size_t>(row)][static_cast<std::size_t>(found - result->columns.begin())];
    return cell.has_value() ? cell->c_str() : nullptr;
}

void PVDBFreeResult(PVDB::DBResult* result) { delete result; }
