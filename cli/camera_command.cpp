// `pavane camera import`, `list` and `migrate`.

#include <cerrno>
#include <charconv>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include <CLI/CLI.hpp>

#include "cli/camera_file.h"
#include "cli/command.h"
#include "cli/input_error.h"
#include "cli/size_text.h"
#include "cli/whole_number.h"

namespace cli {

namespace {

constexpr const char* kApi = "KORV.Pavane.Camera";
constexpr std::size_t kBatch_bytes = 900UL * 1024;  // the server takes requests of 1 MiB

struct MigrationOptions {
    int camera = 0;
    std::string source;
};

std::string ReadFile(const std::string& path) {
    constexpr std::size_t kPiece_bytes = 65536;
    std::ifstream file;
    errno = 0;
    if (path != "-") {
        file.open(path, std::ios::binary);
    }
    std::istream& input = path == "-" ? std::cin : file;
    std::string text;
    std::string piece(kPiece_bytes, '\0');
    while (input) {
        input.read(piece.data(), static_cast<std::streamsize>(piece.size()));
        text.append(piece, 0, static_cast<std::size_t>(input.gcount()));
    }
    if (!input.eof()) {
        throw InputError("cannot read " + path + ": " + std::generic_category().message(errno));
    }
    return text;
}

// The server names a camera by its place in the request ("cameras[3].name"); people know it by its place in
// the file.
void PointIntoFile(Refused& refused, const std::vector<CameraEntry>& entries, std::size_t first) {
    static const std::string kPrefix = "cameras[";
    const std::string parameter = refused.details.isObject() ? Cell(refused.details, "param1") : "";
    std::size_t index = 0;
    const char* const end = parameter.data() + parameter.size();
    if (parameter.compare(0, kPrefix.size(), kPrefix) == 0 &&
        std::from_chars(parameter.data() + kPrefix.size(), end, index).ec == std::errc() &&
        index < entries.size() - first) {
        const std::size_t dot = parameter.find('.');
        refused.details["param1"] =
            entries[first + index].place + (dot == std::string::npos ? "" : ": " + parameter.substr(dot + 1));
    }
}

// After a request that failed, `unanswered` the cameras of one that may have been served all the same.
void TellImported(std::size_t done, std::size_t unanswered) {
    if (done == 0) {
        return;
    }
    std::cerr << "pavane: the first " << done << " cameras were imported";
    if (unanswered > 0) {
        std::cerr << "; whether the " << unanswered << " after them were is not known";
    }
    std::cerr << '\n';
}

void Import(const Context& context, const std::string& path) {
    const std::vector<CameraEntry> entries = ReadCameras(ReadFile(path));
    CheckLengths(entries, kBatch_bytes);
    Client client = context.MakeClient();
    std::size_t done = 0;
    while (done < entries.size()) {
        const std::size_t end = done + BatchLength(entries, done, kBatch_bytes);
        Json::Value parameters(Json::objectValue);
        Json::Value& cameras = parameters["cameras"] = Json::Value(Json::arrayValue);
        for (std::size_t i = done; i < end; ++i) {
            cameras.append(entries[i].camera);
        }
        try {
            client.Call(kApi, "import", parameters);
        } catch (Refused& refused) {
            PointIntoFile(refused, entries, done);
            TellImported(done, 0);
            throw;
        } catch (...) {
            TellImported(done, end - done);
            throw;
        }
        done = end;
    }
    if (context.json) {
        Json::Value data(Json::objectValue);
        data["imported"] = Json::UInt64{done};
        PrintJson(data);
    } else {
        PrintLine(std::to_string(done) + (done == 1 ? " camera" : " cameras") + " imported");
    }
}

// What is special about a camera, in words.
std::string StateOf(const Json::Value& camera) {
    constexpr int kFolderNotInUse = 1;
    const std::string source = Cell(camera, "migratingFrom");
    std::string state = camera["recStorageStatus"].asInt() == kFolderNotInUse ? "not in use" : "";
    if (!source.empty()) {
        state += (state.empty() ? "" : ", ") + std::string("migrates from ") + source;
    }
    return state;
}

void List(const Context& context) {
    const Json::Value all = context.MakeClient().CallForAll(kApi, "list", "cameras");
    if (context.json) {
        PrintJson(all);
        return;
    }
    Table table({{"ID", Align::kRight},
                 {"NAME"},
                 {"SERVER", Align::kRight},
                 {"FOLDER"},
                 {"ADDRESS"},
                 {"OCCUPIED", Align::kRight},
                 {"KEEPS FREE", Align::kRight},
                 {"STATE"}});
    for (const Json::Value& camera : all["cameras"]) {
        table.Add({Cell(camera, "id"), Cell(camera, "name"), Cell(camera, "ownerRvId"),
                   Cell(camera, "recordingPath"), Cell(camera, "ip"), SizeText(camera["occupiedMB"]),
                   camera["rotatedBySpace"].asBool() ? SizeText(camera["rotationBySpaceMB"]) : "-",
                   StateOf(camera)});
    }
    PrintTable(table);
}

void StartMigration(const Context& context, const MigrationOptions& options) {
    Json::Value parameters(Json::objectValue);
    parameters["id"] = options.camera;
    if (!options.source.empty()) {
        parameters["sourceDir"] = options.source;
    }
    const Json::Value data = context.MakeClient().Call(kApi, "migrate_start", parameters);
    if (context.json) {
        PrintJson(data);
    } else {
        PrintLine("camera " + std::to_string(options.camera) + " migrates from " + Cell(data, "sourceDir"));
    }
}

void StopMigration(const Context& context, int camera) {
    Json::Value parameters(Json::objectValue);
    parameters["id"] = camera;
    const Json::Value data = context.MakeClient().Call(kApi, "migrate_stop", parameters);
    if (context.json) {
        PrintJson(data);
    } else {
        PrintLine("camera " + std::to_string(camera) +
                  (data["wasMigrating"].asBool() ? " migrates no more" : " was not migrating"));
    }
}

void AddMigration(CLI::App& camera, Context& context) {
    CLI::App* const migrate = camera.add_subcommand(
        "migrate", "Note that a camera's recordings are being moved to another place, or no more");
    migrate->require_subcommand(1);
    const auto options = std::make_shared<MigrationOptions>();
    CLI::App* const start = migrate->add_subcommand("start", "Its recordings are being moved");
    start->add_option("id", options->camera, "Id of the camera")->required()->transform(Id());
    start->add_option("--from", options->source,
                      "The folder they are moved from; by default the camera's own");
    start->callback(
        [&context, options] { context.chosen = [&context, options] { StartMigration(context, *options); }; });
    const auto id = std::make_shared<int>();
    CLI::App* const stop = migrate->add_subcommand("stop", "They are not, or no more");
    stop->add_option("id", *id, "Id of the camera")->required()->transform(Id());
    stop->callback([&context, id] { context.chosen = [&context, id] { StopMigration(context, *id); }; });
}

}  // namespace

void AddCameraCommands(CLI::App& app, Context& context) {
    CLI::App* const camera = app.add_subcommand("camera", "Cameras that record into the shares");
    camera->require_subcommand(1);
    const auto path = std::make_shared<std::string>();
    CLI::App* const importing = camera->add_subcommand("import", "Register cameras from a CSV or JSON file");
    importing
        ->add_option(
            "file", *path,
            "The file; CSV has the header name,recording_path[,owner,ip,occupied_mb,rotation_mb], JSON "
            "an array of objects with name, recordingPath, ownerRvId, ip, occupiedMB, rotatedBySpace, "
            "rotationBySpaceMB, recStorageStatus (or what `camera list --json` prints); - = standard "
            "input")
        ->required();
    importing->callback([&context, path] { context.chosen = [&context, path] { Import(context, *path); }; });
    camera->add_subcommand("list", "List the cameras")->callback([&context] {
        context.chosen = [&context] { List(context); };
    });
    AddMigration(*camera, context);
}

}  // namespace cli
