#pragma once

#include <span>
#include <string>

#include <soci/soci.h>

namespace korv {

// One upgrade step: brings a database of version `from` to `from` + 1.
struct SchemaUpgrade {
    int from;
    const char* script;
};

// What a database must look like.
//   fresh     makes an empty database one of `version`
//   upgrades  a step for every older version that is still read
struct Schema {
    int version;
    const char* fresh;
    std::span<const SchemaUpgrade> upgrades;
};

// The schema of korv.db.
const Schema& CurrentSchema();

// Makes or upgrades the tables of `session` in one transaction; several processes may do so at once. The
// version stands in "pragma user_version". Throws std::runtime_error when the database is newer than `schema`
// or too old for its steps; the database is unchanged then.
void ApplySchema(soci::session& session, const Schema& schema);

}  // namespace korv
