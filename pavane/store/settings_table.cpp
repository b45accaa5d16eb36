#include "pavane/store/settings_table.h"

#include <soci/soci.h>

#include "pavane/store/database.h"

namespace pavane {

namespace {

struct SettingByName : KeptQuery {
    explicit SettingByName(soci::session& session) {
        Prepare((session.prepare << "select value from setting where name = :name", soci::into(value),
                 soci::use(name)));
    }
    std::string name;
    std::string value;
};

}  // namespace

std::string GetSetting(const std::string& name, const std::string& fallback) {
    auto& query = AppDatabase().Kept<SettingByName>();
    query.name = name;
    return query.Run() ? query.value : fallback;
}

void SetSetting(const std::string& name, const std::string& value) {
    AppDatabase().Session() << "insert into setting (name, value) values (:name, :value)"
                               " on conflict (name) do update set value = excluded.value",
        soci::use(name), soci::use(value);
}

}  // namespace pavane
