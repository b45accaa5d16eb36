#include "platform/pavane/application.h"

#include <exception>

#include "pavane/log_line.h"
#include "pavane/recorder/application_store.h"
#include "pavane/store/database.h"

namespace {

struct ApplicationName {
    const char* english;
    const char* german;
};

// By application id. Rows of the table shared_folder_storage hold these ids: none is ever given again.
constexpr std::array<ApplicationName, kApplicationCount> kNames{{
    {"Recording", "Aufnahme"},
    {"Snapshots", "Schnappschüsse"},
    {"Time lapse", "Zeitraffer"},
    {"Archive", "Archiv"},
    {"Export", "Export"},
    {"Evidence", "Beweissicherung"},
    {"Live broadcast", "Live-Übertragung"},
    {"Site maps", "Lagepläne"},
    {"Video wall", "Videowand"},
    {"Face search", "Gesichtssuche"},
    {"Licence plates", "Kennzeichen"},
    {"People counting", "Personenzählung"},
    {"Intrusion detection", "Einbruchserkennung"},
    {"Motion search", "Bewegungssuche"},
    {"Audio recordings", "Tonaufnahmen"},
    {"Access control", "Zutrittskontrolle"},
    {"Visitor book", "Besucherbuch"},
    {"Cash register data", "Kassendaten"},
    {"Sensors", "Sensoren"},
    {"Intercom", "Gegensprechanlage"},
    {"Patrols", "Rundgänge"},
    {"Event rules", "Ereignisregeln"},
    {"Reports", "Berichte"},
    {"Failover", "Ausfallschutz"},
    {"Remote sites", "Außenstellen"},
    {"Training data", "Trainingsdaten"},
}};

std::map<int, pavane::ApplicationFlags> ReadFlags(bool& isRead) {
    try {
        isRead = true;
        return pavane::ReadApplicationFlags();
    } catch (const std::exception& failure) {
        PV_LOG_LINE("pavane/recorder/application", "Failed to read the applications: %s\n",
                    pavane::DescribeFailure(failure).c_str());
        isRead = false;
        return {};
    }
}

}  // namespace

Json::Value PVJson::JsonConverter<MultilangString, void>::ToJson(const MultilangString& text) {
    Json::Value languages(Json::objectValue);
    for (const auto& [language, words] : text.GetTexts()) {
        languages[language] = words;
    }
    return languages;
}

// What can't be read is not said to run.
std::array<ApplicationTrait, kApplicationCount> ApplicationTraits() {
    bool isRead = false;
    const auto flags = ReadFlags(isRead);
    std::array<ApplicationTrait, kApplicationCount> traits;
    for (std::size_t i = 0; i < kApplicationCount; ++i) {
        const auto found = flags.find(static_cast<int>(i));
        const pavane::ApplicationFlags own =
            found != flags.end() ? found->second : pavane::ApplicationFlags{};
        traits[i] = ApplicationTrait(MultilangString({{"enu", kNames[i].english}, {"ger", kNames[i].german}}),
                                     own.isCompatible && isRead, own.isEnabled && isRead);
    }
    return traits;
}
