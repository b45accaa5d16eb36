#pragma once

#include <map>
#include <string>
#include <tuple>

#include "platform/korv/api_table.h"

namespace korv {

// Which entry function serves which method.
class ApiRegistry {
public:
    // Adds the rows of `table` up to its null row. Throws std::runtime_error for a row with a missing part
    // and for a method that is there already: nothing of that table is added then.
    void Add(const KORV::APITableRow* table);

    // The entry of a method. Without one it is null, and `hasApi` tells whether the API itself is known in
    // that version.
    struct Lookup {
        KORV::APIEntry entry;
        bool hasApi;
    };
    [[nodiscard]] Lookup Find(const std::string& api, int version, const std::string& method) const;

private:
    using Key = std::tuple<std::string, std::intptr_t, std::string>;

    std::map<Key, KORV::APIEntry> m_entries;
};

// The registry of this process: the built-in tables, and those of the modules once they are loaded.
ApiRegistry& Registry();

}  // namespace korv
