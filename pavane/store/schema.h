#pragma once

#include <string>
#include <vector>

#include "pavane/store/database.h"

namespace pavane {

// One step of an upgrade: what turns a database of version `to` - 1 into one of version `to`.
struct SchemaUpgrade {
    int to;
    const char* script;
};

// The tables that a program expects.
//   version  counts up by one with each upgrade
//   fresh    makes them in an empty database
//   upgrades steps, ascending, without a gap
struct Schema {
    int version;
    const char* fresh;
    std::vector<SchemaUpgrade> upgrades;
};

// The schema of this program.
const Schema& CurrentSchema();

// Makes the tables in an empty database, or upgrades those of an earlier version; several processes may do so
// at once. All or nothing. Throws, also when the database is of a later version than `schema`.
void BringUpToDate(Database& database, const Schema& schema);

// The version that the database is of; 0 for one without tables.
int SchemaVersion(Database& database);

}  // namespace pavane
