// `pavane share lock`, `unlock` and `export-key`: encrypted shares.

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string>
#include <system_error>

#include <CLI/CLI.hpp>
#include <sys/stat.h>

#include "cli/base64.h"
#include "cli/command.h"
#include "cli/input_error.h"
#include "cli/password.h"
#include "cli/whole_number.h"

namespace cli {

namespace {

constexpr const char* kCryptoApi = "KORV.Core.Share.Crypto";
constexpr const char* kShareApi = "KORV.Pavane.Share";

struct KeyOptions {
    std::string name;
    std::string file;
    int server = 0;
    PasswordSource password;
};

// A key is for its owner's eyes; a file that is there is never overwritten.
void WriteKey(const std::string& path, const std::string& content) {
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (file < 0) {
        throw InputError(path + ": " + std::system_category().message(errno));
    }
    const bool isWritten =
        write(file, content.data(), content.size()) == static_cast<ssize_t>(content.size());
    const bool isKept = fsync(file) == 0;
    const int error = errno;
    close(file);
    if (!isWritten || !isKept) {
        unlink(path.c_str());
        throw InputError(path + ": " + std::system_category().message(error));
    }
}

// A host can have another server open a folder by its key file; for the rest it has no method.
void RefuseOtherServer(const KeyOptions& options, const std::string& command) {
    if (options.server != 0) {
        throw InputError(command +
                         " only works on the server that has the folder: run it against recording server " +
                         std::to_string(options.server) + " itself, by --url or PAVANE_URL");
    }
}

void Lock(const Context& context, const KeyOptions& options) {
    RefuseOtherServer(options, "share lock");
    Json::Value parameters(Json::objectValue);
    parameters["name"] = options.name;
    context.MakeClient().Call(kCryptoApi, "lock", parameters);
    if (!context.json) {
        PrintLine(options.name + " is locked");
    }
}

void Unlock(const Context& context, const KeyOptions& options) {
    Json::Value parameters(Json::objectValue);
    parameters["name"] = options.name;
    if (options.file.empty()) {
        RefuseOtherServer(options, "share unlock without --key-file");
        parameters["password"] = options.password.Read("Password of the encrypted share: ");
        context.MakeClient().Call(kCryptoApi, "decrypt", parameters);
    } else {
        parameters["rvId"] = options.server;
        context.MakeClient().CallWithFile(kShareApi, "DecryptByFile", parameters, "password_file_tmp",
                                          options.file);
    }
    if (!context.json) {
        PrintLine(options.name + " is unlocked");
    }
}

// The user says where the key goes, by --out or by the share's name: no server names a file here.
std::string KeyFileOf(const KeyOptions& options) {
    if (!options.file.empty()) {
        return options.file;
    }
    if (options.name.empty() || options.name.front() == '.' || options.name.find('/') != std::string::npos) {
        throw InputError("no file can be named after this share; choose one with --out");
    }
    return options.name + ".key";
}

void Export(const Context& context, const KeyOptions& options) {
    RefuseOtherServer(options, "share export-key");
    const std::string path = KeyFileOf(options);
    Json::Value parameters(Json::objectValue);
    parameters["name"] = options.name;
    parameters["password"] = options.password.Read("Password of the encrypted share: ");
    const Json::Value data = context.MakeClient().Call(kCryptoApi, "export", parameters);
    WriteKey(path, DecodeBase64(data["content"].asString()));
    if (!context.json) {
        PrintLine("the key of " + options.name + " is in " + path);
    }
}

// A command with the name of a share and the server that has it.
CLI::App* AddCommand(CLI::App& share, Context& context, const char* name, const char* description,
                     const char* serverDescription, const std::shared_ptr<KeyOptions>& options,
                     void (*action)(const Context&, const KeyOptions&)) {
    CLI::App* const command = share.add_subcommand(name, description);
    command->add_option("name", options->name, "Name of the shared folder")->required();
    command->add_option("--server", options->server, serverDescription)->transform(Id());
    command->callback([&context, options, action] {
        context.chosen = [&context, options, action] { action(context, *options); };
    });
    return command;
}

}  // namespace

void AddShareKeyCommands(CLI::App& share, Context& context) {
    constexpr const char* kOnlyThere =
        "0 is this server. A recording server's folder: run the command against that server itself";
    AddCommand(share, context, "lock", "Lock an encrypted shared folder", kOnlyThere,
               std::make_shared<KeyOptions>(), Lock);

    const auto unlocking = std::make_shared<KeyOptions>();
    CLI::App* const unlock = AddCommand(
        share, context, "unlock", "Unlock an encrypted shared folder",
        "Id of the recording server that has it, with --key-file; 0 is this server", unlocking, Unlock);
    unlock->add_option("--key-file", unlocking->file, "Exported key file, instead of the password")
        ->check(CLI::ExistingFile);
    unlocking->password.AddOptions(*unlock);

    const auto exporting = std::make_shared<KeyOptions>();
    CLI::App* const exported =
        AddCommand(share, context, "export-key", "Write the key of an encrypted shared folder into a file",
                   kOnlyThere, exporting, Export);
    exported->add_option("--out", exporting->file, "The file; without it NAME.key in the current folder");
    exporting->password.AddOptions(*exported);
}

}  // namespace cli
