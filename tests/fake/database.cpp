// The application database: the rows of a scripted statement are handed out as a result that must be freed
// once.

#include "platform/pavane/database.h"

#include <memory>
#include <set>

#include "platform/pavane/shared_folder_storage.h"

#include "tests/fake/database.h"
#include "tests/fake/director.h"

struct PVDB::DBResult {
    Json::Value rows;
    int next = 0;
    std::list<std::string> cells;  // what was handed out; lives as long as the result
};

namespace {

std::set<PVDB::DBResult*>& OpenResults() {
    static std::set<PVDB::DBResult*> results;
    return results;
}

}  // namespace

namespace fake {

std::size_t OpenResultCount() { return OpenResults().size(); }

void DropOpenResults() {
    for (PVDB::DBResult* result : OpenResults()) {
        const std::unique_ptr<PVDB::DBResult> dropped(result);
    }
    OpenResults().clear();
}

}  // namespace fake

namespace PVDB {

int Execute(DBInstance instance, const std::string& statement, DBResult** result, bool multiple,
            bool retryOnBusy, bool logFailure, bool reconnect) {
    const Json::Value reply = fake::Ask(
        "PVDB::Execute",
        fake::Args(static_cast<int>(instance), statement, multiple, retryOnBusy, logFailure, reconnect));
    const int executed = reply["result"].asInt();
    if (result != nullptr) {
        *result = nullptr;
        if (executed == 0) {
            auto rows = std::make_unique<DBResult>();
            rows->rows = reply["rows"];
            *result = rows.release();
            OpenResults().insert(*result);
        }
    }
    return executed;
}

std::string QuoteEscape(const std::string& text) {
    return fake::Ask("PVDB::QuoteEscape", fake::Args(text)).asString();
}

}  // namespace PVDB

int PVDBNumRows(const PVDB::DBResult* result) { return static_cast<int>(result->rows.size()); }

int PVDBFetchRow(PVDB::DBResult* result, int* row) {
    if (result->next >= PVDBNumRows(result)) {
        return 1;
    }
    *row = result->next++;
    return 0;
}

const char* PVDBFetchField(const PVDB::DBResult* result, int row, const char* column) {
    const Json::Value& cell = result->rows[row][column];
    if (cell.isNull()) {
        return nullptr;
    }
    return const_cast<PVDB::DBResult*>(result)->cells.emplace_back(cell.asString()).c_str();
}

void PVDBFreeResult(PVDB::DBResult* result) {
    if (result == nullptr) {
        return;
    }
    if (OpenResults().erase(result) == 0) {
        fake::CurrentDirector()->Misuse("PVDBFreeResult: the result is not open");
        return;
    }
    const std::unique_ptr<PVDB::DBResult> freed(result);
}

decltype(SharedFolderStorage::m_DBAccess) SharedFolderStorage::m_DBAccess(PVDB::DB_DEFAULT,
                                                                          "shared_folder_storage");
