#pragma once

#include <functional>
#include <string>

#include "cli/client.h"
#include "cli/table.h"

namespace CLI {
class App;
}

namespace cli {

// What every command needs.
struct Context {
    std::string url = "http://127.0.0.1:5080";  // of the server
    std::string certificateFile;                // authorities for https; empty = the machine's own
    bool json = false;                          // answer as raw data for programs
    bool hasFailed = false;        // set by a command whose answer is no error, but no good news either
    std::function<void()> chosen;  // what the command line asked for; set by the command that was parsed

    [[nodiscard]] Client MakeClient() const;
};

// Each adds its commands to `app`; when one of them is parsed it leaves its action in `context.chosen`.
void AddSessionCommands(CLI::App& app, Context& context);
void AddShareCommands(CLI::App& app, Context& context);
void AddShareUseCommands(CLI::App& share, Context& context);  // of the group "share"
void AddShareKeyCommands(CLI::App& share, Context& context);
void AddShareChangeCommands(CLI::App& share, Context& context);
void AddJobCommands(CLI::App& app, Context& context);
void AddCandidatesCommand(CLI::App& app, Context& context);
void AddApplicationCommands(CLI::App& app, Context& context);
void AddArchiveCommands(CLI::App& app, Context& context);
void AddCameraCommands(CLI::App& app, Context& context);
void AddEventCommands(CLI::App& app, Context& context);
void AddLogCommands(CLI::App& app, Context& context);
void AddMountCommands(CLI::App& app, Context& context);
void AddServerCommands(CLI::App& app, Context& context);
void AddServiceCommands(CLI::App& app, Context& context);
void AddSnapshotCommands(CLI::App& app, Context& context);

// Prints the server's data as they are. Everything beyond ASCII is escaped.
void PrintJson(const Json::Value& data);
void PrintTable(const Table& table);
// One sentence for people; made printable.
void PrintLine(const std::string& text);

// The text or the whole number under `key` as a table shows it; "" when it is absent.
std::string Cell(const Json::Value& row, const char* key);

// What the server's code means and what to do about it, for standard error.
std::string DescribeRefusal(const Refused& refused);

}  // namespace cli
