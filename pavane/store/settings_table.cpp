#include "pavane/store/settings_table.h"

#include <soci/soci.h>

#include "pavane/store/database.h"

namespace pavane {

std::string GetSetting(const std::string& name, const std::string& fallback) {
    soci::session& session = AppDatabase().Session();
    std::string value;
    session << "select value from setting where name = :name", soci::into(value), soci::use(name);
    return session.got_data() ? value : fallback;
}

void SetSetting(const std::string& name, const std::string& value) {
    AppDatabase().Session() << "insert into setting (name, value) values (:name, :value)"
                               " on conflict (name) do update set value = excluded.value",
        soci::use(name), soci::use(value);
}

}  // namespace pavane
