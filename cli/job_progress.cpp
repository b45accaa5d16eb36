#include "cli/job_progress.h"

#include <unistd.h>

#include <algorithm>
#include <iostream>

#include "cli/command.h"
#include "cli/printable.h"
#include "include/error_table.h"

namespace cli {

namespace {

constexpr const char* kApi = "KORV.Core.Job";
constexpr const char* kShareApi = "KORV.Core.Share";
constexpr int kCells = 30;
constexpr int kAll = 100;
constexpr unsigned int kPause_s = 1;

Json::Value FindJob(Client& client, const std::string& id) {
    const Json::Value data = client.Call(kApi, "list");
    for (const Json::Value& job : data["jobs"]) {
        if (Cell(job, "id") == id) {
            return job;
        }
    }
    throw Refused(kApi, 3314, Json::Value());
}

std::string WhatItDoes(const Json::Value& job) {
    return std::string(Cell(job, "kind") == "encrypt" ? "encrypting " : "decrypting ") + Cell(job, "share");
}

std::string Reason(const Json::Value& job) {
    const ErrorTableRow* const row = FindError(kShareApi, job["error"].asInt());
    return row != nullptr ? std::string(": ") + row->meaning : "";
}

// A job waits when something kept it from going on; it tries again by itself.
std::string WaitText(int error) {
    constexpr int kVolumeAway = 3304, kInUse = 3305, kNoSpace = 3306, kLocked = 3328;
    switch (error) {
        case kVolumeAway:
            return "for its volume, which can't be written";
        case kInUse:
            return "until nobody uses its files and nothing is mounted in it";
        case kNoSpace:
            return "for free space on its volume";
        case kLocked:
            return "until the shared folder is unlocked";
        default:
            return "after a failure, to try again; korvd.log on the server tells more";
    }
}

// Where bars are drawn, a line of its own is for what a bar can't say.
void ShowState(const Json::Value& job, bool isTerminal, std::string& shown) {
    const std::string text = JobStateText(job);
    const bool isNews = text != shown && (!isTerminal || job["error"].asInt() != 0);
    shown = text;
    if (isNews) {
        std::cout << (isTerminal ? "\r\x1b[K" : "");
        PrintLine(text);
        std::cout << std::flush;
    }
}

}  // namespace

std::string JobStateText(const Json::Value& job) {
    const std::string what = WhatItDoes(job);
    if (Cell(job, "state") != "waiting") {
        return what + " goes on";
    }
    const int error = job["error"].asInt();
    return what + (error == 0 ? " is about to begin" : " waits " + WaitText(error));
}

Json::Value NewestJob(Client& client, const std::string& share) {
    constexpr int kNotAllowed = 105;
    Json::Value jobs;
    try {
        jobs = client.Call(kApi, "list")["jobs"];
    } catch (const Refused& refused) {
        if (refused.code != kNotAllowed) {
            throw;
        }
    }
    const auto job = std::find_if(jobs.begin(), jobs.end(),
                                  [&](const auto& each) { return Cell(each, "share") == share; });
    return job == jobs.end() ? Json::Value() : *job;
}

bool IsUnderWay(const Json::Value& job) { return job.isObject() && !job["finish"].asBool(); }

std::string ProgressLine(const Json::Value& job) {
    const int percent = std::clamp(job["percent"].asInt(), 0, kAll);
    const int full = percent * kCells / kAll;
    std::string text = std::to_string(percent);
    text.insert(0, 3 - std::min<std::size_t>(text.size(), 3), ' ');
    return "[" + std::string(static_cast<std::size_t>(full), '#') +
           std::string(static_cast<std::size_t>(kCells - full), '.') + "] " + text + " %  " +
           WhatItDoes(job) +
           (Cell(job, "state") == "waiting" && job["error"].asInt() != 0 ? ", waiting" : "");
}

std::string JobEndText(const Json::Value& job) {
    const std::string state = Cell(job, "state");
    return WhatItDoes(job) + (state == "finished" ? " is finished" : " " + state) +
           (state == "finished" ? "" : Reason(job));
}

bool FollowJob(Client& client, const std::string& id) {
    const bool isTerminal = isatty(STDOUT_FILENO) != 0;
    Json::Value job = FindJob(client, id);
    std::string shown;
    while (IsUnderWay(job)) {
        ShowState(job, isTerminal, shown);
        if (isTerminal) {
            std::cout << '\r' << MakePrintable(ProgressLine(job)).text << "\x1b[K" << std::flush;
        }
        sleep(kPause_s);
        job = FindJob(client, id);
    }
    std::cout << (isTerminal ? "\r\x1b[K" : "");
    PrintLine(JobEndText(job));
    return Cell(job, "state") == "finished";
}

}  // namespace cli
