#include "cli/camera_file.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <map>
#include <memory>
#include <utility>

#include "cli/client.h"
#include "cli/csv.h"
#include "cli/input_error.h"

namespace cli {

namespace {

constexpr const char* kNameColumn = "name";
constexpr const char* kPathColumn = "recording_path";
constexpr const char* kOwnerColumn = "owner";
constexpr const char* kAddressColumn = "ip";
constexpr const char* kOccupiedColumn = "occupied_mb";
constexpr const char* kRotationColumn = "rotation_mb";  // empty = not rotated by space
constexpr std::array<const char*, 6> kColumns{kNameColumn,    kPathColumn,     kOwnerColumn,
                                              kAddressColumn, kOccupiedColumn, kRotationColumn};

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
constexpr const char* kRange = " (0 to 2147483647)";

using Columns = std::map<std::string, std::size_t>;

Columns ReadHeader(const CsvRow& header) {
    const auto refuse = [&header](const std::string& why) {
        throw InputError("line " + std::to_string(header.line) + ": " + why);
    };
    Columns columns;
    for (std::size_t i = 0; i < header.fields.size(); ++i) {
        const std::string& title = header.fields[i];
        if (std::find(kColumns.begin(), kColumns.end(), title) == kColumns.end()) {
            refuse("unknown column '" + title +
                   "' (known: name, recording_path, owner, ip, occupied_mb, rotation_mb)");
        }
        if (!columns.emplace(title, i).second) {
            refuse("column '" + title + "' stands there twice");
        }
    }
    if (columns.count(kNameColumn) == 0 || columns.count(kPathColumn) == 0) {
        refuse("the header must have the columns name and recording_path");
    }
    return columns;
}

// A whole number from 0 on; `meaning` completes "... is no".
int ReadNumber(const std::string& column, const std::string& text, const char* meaning,
               const std::string& place) {
    int number = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || stop != end || number < 0) {
        throw InputError(place + ": " + column + " '" + text + "' is no " + meaning + kRange);
    }
    return number;
}

// The columns that a file may leave out, and fields that it may leave empty.
void ReadOptional(const CsvRow& row, const Columns& columns, CameraEntry& entry) {
    const auto field = [&](const char* column) {
        const auto found = columns.find(column);
        return found != columns.end() ? row.fields[found->second] : std::string();
    };
    if (const std::string owner = field(kOwnerColumn); !owner.empty()) {
        entry.camera["ownerRvId"] = ReadNumber(kOwnerColumn, owner, "recording server's id", entry.place);
    }
    if (const std::string address = field(kAddressColumn); !address.empty()) {
        entry.camera["ip"] = address;
    }
    if (const std::string occupied = field(kOccupiedColumn); !occupied.empty()) {
        entry.camera["occupiedMB"] = ReadNumber(kOccupiedColumn, occupied, "size in MB", entry.place);
    }
    if (const std::string rotation = field(kRotationColumn); !rotation.empty()) {
        entry.camera["rotatedBySpace"] = true;
        entry.camera["rotationBySpaceMB"] = ReadNumber(kRotationColumn, rotation, "size in MB", entry.place);
    }
}

std::vector<CameraEntry> FromCsv(std::string_view text) {
    const std::vector<CsvRow> rows = ParseCsv(text);
    if (rows.empty()) {
        throw InputError("the file is empty");
    }
    const Columns columns = ReadHeader(rows.front());
    std::vector<CameraEntry> entries;
    for (auto row = rows.begin() + 1; row != rows.end(); ++row) {
        CameraEntry entry{"line " + std::to_string(row->line), Json::Value(Json::objectValue)};
        if (row->fields.size() != columns.size()) {
            throw InputError(entry.place + ": " + std::to_string(row->fields.size()) +
                             " fields, but the header has " + std::to_string(columns.size()));
        }
        entry.camera["name"] = row->fields[columns.at(kNameColumn)];
        entry.camera["recordingPath"] = row->fields[columns.at(kPathColumn)];
        ReadOptional(*row, columns, entry);
        entries.push_back(std::move(entry));
    }
    return entries;
}

Json::Value ParseJson(std::string_view text) {
    constexpr int kDeepest = 16;  // a list of cameras has 3 levels
    Json::Value root;
    std::string problem;
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder["stackLimit"] = kDeepest;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    try {
        if (!reader->parse(text.data(), text.data() + text.size(), &root, &problem)) {
            throw InputError("not valid JSON: " + problem);
        }
    } catch (const Json::Exception&) {  // thrown for the stack limit alone
        throw InputError("not valid JSON: it is nested too deeply");
    }
    return root;
}

std::vector<CameraEntry> FromJson(std::string_view text) {
    const Json::Value root = ParseJson(text);
    const Json::Value& cameras = root.isObject() ? root["cameras"] : root;
    if (!cameras.isArray()) {
        throw InputError("the file must be an array of cameras, or an object that has one under \"cameras\"");
    }
    std::vector<CameraEntry> entries;
    for (Json::ArrayIndex i = 0; i < cameras.size(); ++i) {
        CameraEntry entry{"camera " + std::to_string(i + 1), cameras[i]};
        if (!entry.camera.isObject()) {
            throw InputError(entry.place + " is no object");
        }
        entry.camera.removeMember("id");  // the server gives its own
        entries.push_back(std::move(entry));
    }
    return entries;
}

// Of two cameras that are one for the server the first would be lost. What has no proper name or owner is
// left to the server to judge.
void RefuseTwins(const std::vector<CameraEntry>& entries) {
    std::map<std::pair<int, std::string>, const CameraEntry*> known;
    for (const CameraEntry& entry : entries) {
        const Json::Value owner = entry.camera.get("ownerRvId", 0);
        const Json::Value name = entry.camera["name"];
        if (!owner.isInt() || !name.isString()) {
            continue;
        }
        const auto [first, isNew] = known.try_emplace({owner.asInt(), name.asString()}, &entry);
        if (!isNew) {
            throw InputError(entry.place + ": the camera '" + name.asString() + "' of server " +
                             owner.asString() + " stands in " + first->second->place + " already");
        }
    }
}

}  // namespace

std::vector<CameraEntry> ReadCameras(std::string_view text) {
    if (text.substr(0, kByteOrderMark.size()) == kByteOrderMark) {
        text.remove_prefix(kByteOrderMark.size());
    }
    const std::size_t begin = text.find_first_not_of(" \t\r\n");
    const bool isJson = begin != std::string_view::npos && (text[begin] == '[' || text[begin] == '{');
    std::vector<CameraEntry> entries = isJson ? FromJson(text) : FromCsv(text);
    RefuseTwins(entries);
    return entries;
}

void CheckLengths(const std::vector<CameraEntry>& entries, std::size_t limit_bytes) {
    for (const CameraEntry& entry : entries) {
        if (RequestText(entry.camera).size() > limit_bytes) {
            throw InputError(entry.place + ": the camera is too long for a request of " +
                             std::to_string(limit_bytes) + " bytes");
        }
    }
}

std::size_t BatchLength(const std::vector<CameraEntry>& entries, std::size_t first, std::size_t limit_bytes) {
    std::size_t length = 0;
    std::size_t bytes = 0;
    for (std::size_t i = first; i < entries.size(); ++i) {
        bytes += RequestText(entries[i].camera).size() + 1;
        if (length > 0 && bytes > limit_bytes) {
            break;
        }
        ++length;
    }
    return length;
}

}  // namespace cli
