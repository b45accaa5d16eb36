#include "pavane/recorder/application_store.h"

#include <soci/soci.h>

#include "pavane/store/database.h"

namespace pavane {

std::map<int, ApplicationFlags> ReadApplicationFlags() {
    int id = 0;
    int compatible = 0;
    int enabled = 0;
    soci::statement statement =
        (AppDatabase().Session().prepare << "select id, compatible, enabled from application", soci::into(id),
         soci::into(compatible), soci::into(enabled));
    std::map<int, ApplicationFlags> flags;
    for (bool more = statement.execute(true); more; more = statement.fetch()) {
        flags[id] = {compatible != 0, enabled != 0};
    }
    return flags;
}

void WriteApplicationFlags(int applicationId, const ApplicationFlags& flags) {
    const int compatible = flags.isCompatible ? 1 : 0;
    const int enabled = flags.isEnabled ? 1 : 0;
    AppDatabase().Session() << "insert into application (id, compatible, enabled) values (:id, :compatible,"
                               " :enabled) on conflict (id) do update set compatible = excluded.compatible,"
                               " enabled = excluded.enabled",
        soci::use(applicationId), soci::use(compatible), soci::use(enabled);
}

}  // namespace pavane
