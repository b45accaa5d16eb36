// This server's role in central management. Settings: "cms_enabled" (0 or 1), "cms_role" ("host",
// "rec_server" or nothing), "rec_server_status" (a number, 0 = in order).

#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <string>

#include <soci/soci.h>

#include "platform/pavane/cms.h"

#include "pavane/log_line.h"
#include "pavane/store/database.h"
#include "pavane/store/settings_table.h"

namespace {

constexpr const char* kSource = "pavane/cms/role";
constexpr const char* kHostRole = "host";
constexpr const char* kRecServerRole = "rec_server";
constexpr const char* kUnknownRole = "this server's role in central management can't be read";

// The setting, or `fallback` when there is none.
std::string Setting(const char* name, const char* fallback) {
    try {
        return pavane::GetSetting(name, fallback);
    } catch (const std::exception& failure) {
        PV_LOG_LINE(kSource, "Failed to read the setting %s: %s\n", name,
                    pavane::DescribeFailure(failure).c_str());
        throw std::runtime_error(kUnknownRole);
    }
}

bool HasHost() {
    try {
        int hosts = 0;
        pavane::AppDatabase().Session() << "select count(*) from cms_host where pair_secret <> ''",
            soci::into(hosts);
        return hosts > 0;
    } catch (const std::exception& failure) {
        PV_LOG_LINE(kSource, "Failed to read the pairing with the host: %s\n",
                    pavane::DescribeFailure(failure).c_str());
        throw std::runtime_error(kUnknownRole);
    }
}

}  // namespace

bool IsEnableCms() { return Setting("cms_enabled", "0") == "1"; }

bool IsCmsHost() { return IsEnableCms() && Setting("cms_role", "") == kHostRole; }

bool IsCmsPaired() { return IsEnableCms() && Setting("cms_role", "") == kRecServerRole && HasHost(); }

int GetRecServerOwnStatus() {
    constexpr int kDecimal = 10;
    return static_cast<int>(std::strtol(Setting("rec_server_status", "0").c_str(), nullptr, kDecimal));
}
