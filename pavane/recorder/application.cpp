#include "platform/pavane/application.h"

#include <exception>
#include <optional>

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

// Nothing when they can't be read.
std::optional<pavane::ApplicationFlagsById> ReadFlags() {
    try {
        return pavane::ReadApplicationFlags();
    } catch (const std::exception& failure) {
        PV_LOG_LINE("pavane/recorder/application", "Failed to read the applications: %s\n",
                    pavane::DescribeFailure(failure).c_str());
        return std::nullopt;
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

// An application that is said to be unable to run would vanish from the lists of what uses a share, and the
// share would look free to be deleted.
std::array<ApplicationTrait, kApplicationCount> ApplicationTraits() {
    constexpr pavane::ApplicationFlags kUnread{true, false};
    const std::optional<pavane::ApplicationFlagsById> flags = ReadFlags();
    std::array<ApplicationTrait, kApplicationCount> traits;
    for (std::size_t i = 0; i < kApplicationCount; ++i) {
        const pavane::ApplicationFlags own =
            flags.has_value() ? pavane::FlagsOf(*flags, static_cast<int>(i)) : kUnread;
        traits[i] = ApplicationTrait(MultilangString({{"enu", kNames[i].english}, {"ger", kNames[i].german}}),
                                     own.isCompatible, own.isEnabled);
    }
    return traits;
}
