#include "pavane/webapi/health.h"

#include <exception>

#include "pavane/store/database.h"
#include "pavane/store/schema.h"

namespace pavane {

std::string CheckAppDatabase() {
    try {
        if (!AppDatabase().IsAlive()) {
            CloseAppDatabase();
        }
        return SchemaVersion(AppDatabase()) > 0 ? "" : "the application database has no tables";
    } catch (const std::exception& failure) {
        return DescribeFailure(failure);
    }
}

}  // namespace pavane
