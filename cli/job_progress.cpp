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

}  // namespace

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
    while (!job["finish"].asBool()) {
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
