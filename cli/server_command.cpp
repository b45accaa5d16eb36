// `pavane server`: the recording servers of a host.

#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <iostream>
#include <memory>
#include <string>

#include <CLI/CLI.hpp>

#include "cli/command.h"
#include "cli/input_error.h"
#include "cli/password.h"
#include "cli/printable.h"
#include "cli/whole_number.h"

namespace cli {

namespace {

constexpr const char* kApi = "KORV.Pavane.CMS";

struct AddOptions {
    std::string address;
    std::string account;
    std::string fingerprint;
    bool trust = false;
    PasswordSource password;
};

struct FailoverOptions {
    int id = 0;
    bool standby = false;
    bool noStandby = false;
    bool takenOver = false;
    bool notTakenOver = false;
};

struct CheckOptions {
    int id = 0;
    bool repair = false;
};

Json::Value WithId(int id) {
    Json::Value parameters(Json::objectValue);
    parameters["id"] = id;
    return parameters;
}

// What a word of the server's about a state means to a person.
std::string ProblemText(const std::string& problem) {
    if (problem == "unreachable") {
        return "no connection to it";
    }
    if (problem == "no_answer") {
        return "it gives no answer";
    }
    if (problem == "bad_answer") {
        return "what answers there is no recorder";
    }
    if (problem == "other_server") {
        return "what answers is another server than was paired";
    }
    if (problem == "key_changed") {
        return "it shows another key than when it was paired";
    }
    if (problem == "unpaired") {
        return "it does not know this server; pair it again";
    }
    if (problem == "clock") {
        return "its clock is more than 5 minutes off; set both clocks";
    }
    if (problem == "version") {
        return "it runs another version";
    }
    if (problem == "busy") {
        return "it answers with an error";
    }
    if (problem == "failed") {
        return "this server could not ask it; see its log";
    }
    if (problem == "not_asked") {
        return "this server is no host and asks nobody";
    }
    return problem;
}

// How long ago something was, in words; "never" for 0.
std::string AgeText(const Json::Value& time) {
    constexpr Json::Int64 kMinute_s = 60;
    constexpr Json::Int64 kHour_s = 3600;
    const Json::Int64 then_s = time.isIntegral() ? time.asInt64() : 0;
    if (then_s == 0) {
        return "never";
    }
    const Json::Int64 age_s = std::max<Json::Int64>(static_cast<Json::Int64>(std::time(nullptr)) - then_s, 0);
    if (age_s < kMinute_s) {
        return std::to_string(age_s) + " s ago";
    }
    return age_s < kHour_s ? std::to_string(age_s / kMinute_s) + " min ago"
                           : std::to_string(age_s / kHour_s) + " h ago";
}

// Whether the person at the terminal takes this key for that of the server. Throws InputError when nobody can
// be asked.
void Confirm(const std::string& address, const std::string& fingerprint) {
    PrintLine(address + " shows the key");
    PrintLine("  " + fingerprint);
    if (isatty(STDIN_FILENO) == 0) {
        throw InputError(
            "compare the key with what `pavane server status` prints there, then give it with --fingerprint, "
            "or --trust to take it as it is");
    }
    std::cout << "Is it the one that `pavane server status` prints there? [yes/no] " << std::flush;
    std::string answer;
    if (!std::getline(std::cin, answer) || answer != "yes") {
        throw InputError("not confirmed; nothing was changed");
    }
}

std::string FingerprintFor(Client& client, const AddOptions& options) {
    if (!options.fingerprint.empty()) {
        return options.fingerprint;
    }
    Json::Value parameters(Json::objectValue);
    parameters["address"] = options.address;
    std::string shown = Cell(client.Call(kApi, "fingerprint", parameters), "fingerprint");
    if (options.trust) {
        std::cerr << "pavane: trusting the key " << MakePrintable(shown).text << '\n';
    } else {
        Confirm(options.address, shown);
    }
    return shown;
}

void Add(const Context& context, const AddOptions& options) {
    Client client = context.MakeClient();
    Json::Value parameters(Json::objectValue);
    parameters["address"] = options.address;
    parameters["account"] = options.account;
    parameters["fingerprint"] = FingerprintFor(client, options);
    parameters["passwd"] = options.password.Read("Password of " + options.account + " on that server: ");
    const Json::Value data = client.Call(kApi, "add", parameters);
    if (context.json) {
        PrintJson(data);
        return;
    }
    PrintLine("recording server " + Cell(data, "id") + ": " + Cell(data, "name") + ", " +
              Cell(data, "statusName"));
    if (!Cell(data, "problem").empty()) {
        PrintLine("  it is paired, but " + ProblemText(Cell(data, "problem")));
    }
    if (!Cell(data, "wayBack").empty()) {
        PrintLine("  it is paired, but as it sees this host: " + ProblemText(Cell(data, "wayBack")));
    }
}

void List(const Context& context) {
    const Json::Value data = context.MakeClient().Call(kApi, "list");
    if (context.json) {
        PrintJson(data);
        return;
    }
    Table table({{"ID", Align::kRight},
                 {"NAME"},
                 {"ADDRESS"},
                 {"ENABLED"},
                 {"STATUS"},
                 {"ASKED"},
                 {"ANSWERED"},
                 {"VERSION"},
                 {"FAILOVER"},
                 {"PROBLEM"}});
    for (const Json::Value& server : data["servers"]) {
        table.Add({Cell(server, "id"), Cell(server, "name"), Cell(server, "address"),
                   server["enabled"].asBool() ? "yes" : "no", Cell(server, "statusName"),
                   AgeText(server["checkedTime"]), AgeText(server["seenTime"]), Cell(server, "version"),
                   server["takenOver"].asBool() ? "taken over"
                   : server["standby"].asBool() ? "standby"
                                                : "",
                   ProblemText(Cell(server, "problem"))});
    }
    PrintTable(table);
}

void Remove(const Context& context, int id) {
    const Json::Value data = context.MakeClient().Call(kApi, "remove", WithId(id));
    if (context.json) {
        PrintJson(data);
    } else if (!data["told"].asBool()) {
        PrintLine("removed here; the server could not be told: run `pavane server leave` there");
    }
}

void Status(const Context& context) {
    const Json::Value data = context.MakeClient().Call(kApi, "status");
    if (context.json) {
        PrintJson(data);
        return;
    }
    const std::string role = Cell(data, "role");
    PrintLine("role:        " + std::string(role == "rec_server" ? "recording server" : role));
    PrintLine("name:        " + Cell(data, "name"));
    PrintLine("serial:      " + Cell(data, "serial"));
    PrintLine("version:     " + Cell(data, "version"));
    PrintLine("fingerprint: " + Cell(data, "fingerprint"));
    if (!data["reachable"].asBool()) {
        PrintLine("It has no listener for paired servers (`peer.listen`).");
    }
    if (data.isMember("host")) {
        const Json::Value& host = data["host"];
        const std::string problem = Cell(host, "problem");
        PrintLine("host:        " + Cell(host, "name") + ", " + Cell(host, "address") + ", answered " +
                  AgeText(host["seenTime"]) + (problem.empty() ? "" : ": " + ProblemText(problem)));
    }
}

void SetFailover(const Context& context, const FailoverOptions& options) {
    Json::Value parameters = WithId(options.id);
    if (options.standby || options.noStandby) {
        parameters["standby"] = options.standby;
    }
    if (options.takenOver || options.notTakenOver) {
        parameters["takenOver"] = options.takenOver;
    }
    context.MakeClient().Call(kApi, "set_failover", parameters);
}

std::string Describe(const Json::Value& difference) {
    const std::string kind = Cell(difference, "kind");
    if (kind == "missing") {
        return "the host has no record of this share";
    }
    if (kind == "stale") {
        return "the server has no such share";
    }
    std::string fields;
    for (const Json::Value& field : difference["fields"]) {
        fields += (fields.empty() ? "" : ", ") + field.asString();
    }
    return "not alike: " + fields;
}

// Whether differences of this server were found, and not all of them could be put right.
bool IsRepairFailed(const Json::Value& data, const Json::Value& server, bool repairs) {
    const Json::Value& all = data["differences"];
    return repairs && !server["repaired"].asBool() &&
           std::any_of(all.begin(), all.end(), [&server](const Json::Value& difference) {
               return difference["rvId"] == server["id"];
           });
}

// Ends with the status of a refusal when something is, and stays, not as it should be.
void Check(Context& context, const CheckOptions& options) {
    const Json::Value data =
        context.MakeClient().Call(kApi, options.repair ? "repair" : "check", WithId(options.id));
    bool isGood = options.repair || data["differences"].empty();
    for (const Json::Value& server : data["servers"]) {
        isGood = isGood && server["answered"].asBool() && !IsRepairFailed(data, server, options.repair);
    }
    if (context.json) {
        PrintJson(data);
    } else {
        Table table({{"SERVER", Align::kRight}, {"PATH"}, {"DIFFERENCE"}});
        for (const Json::Value& difference : data["differences"]) {
            table.Add({Cell(difference, "rvId"), Cell(difference, "sharePath"), Describe(difference)});
        }
        if (!data["differences"].empty()) {
            PrintTable(table);
        }
        for (const Json::Value& server : data["servers"]) {
            const std::string name = "server " + Cell(server, "id");
            if (!server["answered"].asBool()) {
                PrintLine(name + " gives no answer; it was not checked");
            } else if (server["repaired"].asBool()) {
                PrintLine(name + ": the host's records are repaired");
            } else if (IsRepairFailed(data, server, options.repair)) {
                PrintLine(name +
                          ": the host's records could not be repaired; pavane.log on the host tells why");
            }
        }
        if (isGood && data["differences"].empty()) {
            PrintLine("no differences");
        }
    }
    if (!isGood) {
        context.hasFailed = true;
    }
}

void AddIdCommand(CLI::App& server, Context& context, const char* name, const char* text,
                  void (*run)(const Context& context, int id)) {
    const auto id = std::make_shared<int>(0);
    CLI::App* const command = server.add_subcommand(name, text);
    command->add_option("id", *id, "Id of the recording server")
        ->required()
        ->transform(WholeNumber(1, kMostNumber));
    command->callback([&context, id, run] { context.chosen = [&context, id, run] { run(context, *id); }; });
}

void AddAdd(CLI::App& server, Context& context) {
    const auto options = std::make_shared<AddOptions>();
    CLI::App* const add = server.add_subcommand("add", "Pair a recording server with this host");
    add->add_option("address", options->address, "Its listener for paired servers: https://HOST:PORT")
        ->required();
    add->add_option("--account", options->account, "An administrator of that server; used once, not kept")
        ->required();
    CLI::Option* const fingerprint =
        add->add_option("--fingerprint", options->fingerprint,
                        "The key that it must show, as `pavane server status` prints it there");
    add->add_flag("--trust", options->trust, "Take the key that it shows, whatever it is")
        ->excludes(fingerprint);
    options->password.AddOptions(*add);
    add->callback([&context, options] { context.chosen = [&context, options] { Add(context, *options); }; });
}

void AddFailover(CLI::App& server, Context& context) {
    const auto options = std::make_shared<FailoverOptions>();
    CLI::App* const failover = server.add_subcommand("failover", "Say which server takes over for others");
    failover->add_option("id", options->id, "Id of the recording server")
        ->required()
        ->transform(WholeNumber(1, kMostNumber));
    CLI::Option* const standby =
        failover->add_flag("--standby", options->standby, "It takes over for others");
    failover->add_flag("--no-standby", options->noStandby, "It does not")->excludes(standby);
    CLI::Option* const taken =
        failover->add_flag("--taken-over", options->takenOver, "Another one does its work at the moment");
    failover->add_flag("--not-taken-over", options->notTakenOver, "It does its work itself")->excludes(taken);
    failover->callback(
        [&context, options] { context.chosen = [&context, options] { SetFailover(context, *options); }; });
}

void AddCheck(CLI::App& server, Context& context) {
    const auto options = std::make_shared<CheckOptions>();
    CLI::App* const check =
        server.add_subcommand("check", "Compare the host's records with what each recording server has");
    check->add_option("id", options->id, "Only this recording server")
        ->transform(WholeNumber(1, kMostNumber));
    check->add_flag("--repair", options->repair, "Make the host's records what they should be");
    check->callback(
        [&context, options] { context.chosen = [&context, options] { Check(context, *options); }; });
}

}  // namespace

void AddServerCommands(CLI::App& app, Context& context) {
    CLI::App* const server = app.add_subcommand("server", "Recording servers of a host");
    server->require_subcommand(1);
    AddAdd(*server, context);
    AddIdCommand(*server, context, "remove", "End the pairing with a recording server", &Remove);
    server->add_subcommand("list", "List the recording servers")->callback([&context] {
        context.chosen = [&context] { List(context); };
    });
    AddIdCommand(*server, context, "enable", "Include it in requests to all servers again, and let it relay",
                 [](const Context& used, int id) { used.MakeClient().Call(kApi, "enable", WithId(id)); });
    AddIdCommand(*server, context, "disable",
                 "Leave it out of requests to all servers and refuse what it relays; requests that name it "
                 "still go there",
                 [](const Context& used, int id) { used.MakeClient().Call(kApi, "disable", WithId(id)); });
    AddFailover(*server, context);
    AddCheck(*server, context);
    server->add_subcommand("status", "Tell this server's role, key and pairing")->callback([&context] {
        context.chosen = [&context] { Status(context); };
    });
    server->add_subcommand("leave", "End this recording server's pairing with its host")
        ->callback([&context] { context.chosen = [&context] { context.MakeClient().Call(kApi, "leave"); }; });
    for (const char* role : {"host", "none"}) {
        const std::string name = std::string("role-") + role;
        server
            ->add_subcommand(name, role == std::string("host") ? "Make this server a host"
                                                               : "Switch central management off")
            ->callback([&context, role] {
                context.chosen = [&context, role] {
                    Json::Value parameters(Json::objectValue);
                    parameters["role"] = role;
                    context.MakeClient().Call(kApi, "set_role", parameters);
                };
            });
    }
}

}  // namespace cli
