#include "korv/system/schema.h"

#include <algorithm>
#include <stdexcept>

#include "korv/system/database.h"
#include "korv/system/schema_sql.h"

namespace korv {

namespace {

constexpr int kSchemaVersion = 1;

int VersionOf(soci::session& session) {
    int version = 0;
    session << "pragma user_version", soci::into(version);
    return version;
}

void Upgrade(soci::session& session, const Schema& schema, int version) {
    while (version < schema.version) {
        const auto step = std::find_if(schema.upgrades.begin(), schema.upgrades.end(),
                                       [version](const SchemaUpgrade& each) { return each.from == version; });
        if (step == schema.upgrades.end()) {
            throw std::runtime_error("the database is of version " + std::to_string(version) +
                                     ", which this program no longer upgrades");
        }
        ExecuteScript(session, step->script);
        ++version;
    }
}

}  // namespace

const Schema& CurrentSchema() {
    static const Schema schema{kSchemaVersion, kSchemaSql, {}};
    return schema;
}

void ApplySchema(soci::session& session, const Schema& schema) {
    if (VersionOf(session) == schema.version) {
        return;
    }
    WriteTransaction transaction(session);
    const int version = VersionOf(session);
    if (version > schema.version) {
        throw std::runtime_error("the database is of version " + std::to_string(version) +
                                 ", newer than this program's " + std::to_string(schema.version));
    }
    if (version == 0) {
        ExecuteScript(session, schema.fresh);
    } else {
        Upgrade(session, schema, version);
    }
    session << "pragma user_version = " << schema.version;
    transaction.Commit();
}

}  // namespace korv
