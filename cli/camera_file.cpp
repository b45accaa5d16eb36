#include "cli/camera_file.h"

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

using Columns = std::map<std::string, std::size_t>;

Columns ReadHeader(const CsvRow& header) {
    const auto refuse = [&header](const std::string& why) {
        throw InputError("line " + std::to_string(header.line) + ": " + why);
    };
    Columns columns;
    for (std::size_t i = 0; i < header.fields.size(); ++i) {
        const std::string& title = header.fields[i];
        if (title != kNameColumn && title != kPathColumn && title != kOwnerColumn) {
            refuse("unknown column '" + title + "' (known: name, recording_path, owner)");
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

int ReadOwner(const std::string& text, const std::string& place) {
    int owner = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, owner);
    if (error != std::errc() || stop != end || owner < 0) {
        throw InputError(place + ": owner '" + text + "' is no recording server's id");
    }
    return owner;
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
        const auto owner = columns.find(kOwnerColumn);
        if (owner != columns.end() && !row->fields[owner->second].empty()) {
            entry.camera["ownerRvId"] = ReadOwner(row->fields[owner->second], entry.place);
        }
        entries.push_back(std::move(entry));
    }
    return entries;
}

std::vector<CameraEntry> FromJson(std::string_view text) {
    Json::Value root;
    std::string problem;
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    if (!reader->parse(text.data(), text.data() + text.size(), &root, &problem)) {
        throw InputError("not valid JSON: " + problem);
    }
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

}  // namespace

std::vector<CameraEntry> ReadCameras(std::string_view text) {
    const std::size_t begin = text.find_first_not_of(" \t\r\n");
    const bool isJson = begin != std::string_view::npos && (text[begin] == '[' || text[begin] == '{');
    return isJson ? FromJson(text) : FromCsv(text);
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
