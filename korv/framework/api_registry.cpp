#include "korv/framework/api_registry.h"

#include <stdexcept>

#include "korv/framework/builtin_tables.h"

namespace korv {

void ApiRegistry::Add(const KORV::APITableRow* table) {
    std::map<Key, KORV::APIEntry> entries = m_entries;
    for (const KORV::APITableRow* row = table;
         row->api != nullptr || row->version != 0 || row->method != nullptr || row->entry != nullptr; ++row) {
        if (row->api == nullptr || row->method == nullptr || row->entry == nullptr) {
            throw std::runtime_error("a row of a method table lacks its API, method or entry");
        }
        if (!entries.emplace(Key{row->api, row->version, row->method}, row->entry).second) {
            throw std::runtime_error(std::string("the method ") + row->api + " " + row->method +
                                     " stands in two method tables");
        }
    }
    m_entries = std::move(entries);
}

ApiRegistry::Lookup ApiRegistry::Find(const std::string& api, int version, const std::string& method) const {
    const auto found = m_entries.lower_bound(Key{api, version, method});
    if (found != m_entries.end() && found->first == Key{api, version, method}) {
        return {found->second, true};
    }
    const auto first = m_entries.lower_bound(Key{api, version, ""});
    const bool hasApi =
        first != m_entries.end() && std::get<0>(first->first) == api && std::get<1>(first->first) == version;
    return {nullptr, hasApi};
}

ApiRegistry& Registry() {
    static ApiRegistry registry = [] {
        ApiRegistry builtIn;
        for (const KORV::APITableRow* table : BuiltInTables()) {
            builtIn.Add(table);
        }
        return builtIn;
    }();
    return registry;
}

}  // namespace korv
