// `pavane job list`, `follow` and `cancel`: long work on shared folders.

#include <array>
#include <ctime>
#include <memory>
#include <string>

#include <CLI/CLI.hpp>

#include "cli/command.h"
#include "cli/job_progress.h"
#include "include/error_table.h"

namespace cli {

namespace {

constexpr const char* kApi = "KORV.Core.Job";

std::string TimeText(const Json::Value& time_s) {
    const std::time_t time = time_s.asInt64();
    std::tm parts{};
    std::array<char, 32> text{};
    if (time == 0 || localtime_r(&time, &parts) == nullptr) {
        return "-";
    }
    return {text.data(), std::strftime(text.data(), text.size(), "%F %T", &parts)};
}

std::string StateText(const Json::Value& job) {
    return Cell(job, "state") + (job["cancelling"].asBool() ? ", being cancelled" : "");
}

std::string ReasonText(const Json::Value& job) {
    const ErrorTableRow* const row = FindError("KORV.Core.Share", job["error"].asInt());
    return row != nullptr ? row->meaning : "";
}

void List(const Context& context) {
    const Json::Value data = context.MakeClient().Call(kApi, "list");
    if (context.json) {
        PrintJson(data);
        return;
    }
    Table table({{"ID", Align::kRight},
                 {"KIND"},
                 {"SHARE"},
                 {"STATE"},
                 {"DONE", Align::kRight},
                 {"STARTED"},
                 {"ENDED"},
                 {"REASON"}});
    for (const Json::Value& job : data["jobs"]) {
        table.Add({Cell(job, "id"), Cell(job, "kind"), Cell(job, "share"), StateText(job),
                   Cell(job, "percent") + " %", TimeText(job["created_s"]), TimeText(job["ended_s"]),
                   ReasonText(job)});
    }
    PrintTable(table);
}

void Cancel(const Context& context, const std::string& id) {
    Json::Value parameters(Json::objectValue);
    parameters["id"] = id;
    const Json::Value data = context.MakeClient().Call(kApi, "cancel", parameters);
    if (context.json) {
        PrintJson(data);
    } else {
        PrintLine("job " + id + " is being cancelled; the shared folder stays as it was");
    }
}

CLI::App* AddCommand(CLI::App& job, const char* name, const char* description,
                     const std::shared_ptr<std::string>& id) {
    CLI::App* const command = job.add_subcommand(name, description);
    command->add_option("id", *id, "Id of the job")->required();
    return command;
}

}  // namespace

void AddJobCommands(CLI::App& app, Context& context) {
    CLI::App* const job = app.add_subcommand("job", "Long work on shared folders");
    job->require_subcommand(1);
    job->add_subcommand("list", "List the jobs, the newest first")->callback([&context] {
        context.chosen = [&context] { List(context); };
    });
    const auto id = std::make_shared<std::string>();
    AddCommand(*job, "cancel", "Undo a job that is not over", id)->callback([&context, id] {
        context.chosen = [&context, id] { Cancel(context, *id); };
    });
    AddCommand(*job, "follow", "Show how far a job is until it is over", id)->callback([&context, id] {
        context.chosen = [&context, id] {
            Client client = context.MakeClient();
            context.hasFailed = !FollowJob(client, *id);
        };
    });
}

}  // namespace cli
