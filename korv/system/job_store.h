#pragma once

#include <optional>
#include <string>
#include <vector>

#include "korv/system/process_identity.h"
#include "korv/system/share_change.h"
#include "korv/system/share_move.h"

// The rows of jobs in korv.db. All functions use korv::Database() and throw what it throws; those that change
// something expect the caller's WriteTransaction.
namespace korv {

enum class JobKind { kEncrypt, kDecrypt };
enum class JobState { kWaiting, kProgressing, kFinished, kCancelled, kFailed };

// A row of the table job.
struct JobRow {
    long long id = 0;
    JobKind kind = JobKind::kEncrypt;
    std::string shareToken;
    std::string share;  // its name when the job was made
    JobState state = JobState::kWaiting;
    bool isCancelAsked = false;
    ChangeEnd error = ChangeEnd::kDone;  // why it failed or waits
    int percent = 0;
    MoveState move;
    long long nextTry_s = 0;
    long long created_s = 0;
    long long ended_s = 0;
    ProcessIdentity runner;

    bool IsOver() const { return state >= JobState::kFinished; }
};

// As clients see them.
const char* NameOf(JobKind kind);
const char* NameOf(JobState state);

// Adds the row and sets its id. Of jobs that are over the latest thousand are kept.
void AddJob(JobRow& row);
// Writes everything but what a job is about and whether its end was asked for.
void SaveJob(const JobRow& row);
void AskJobToCancel(long long id);

std::optional<JobRow> FindJob(long long id);
// The one that is not over of the share with that token.
std::optional<JobRow> FindJobUnderWay(const std::string& shareToken);
// The newest first.
std::vector<JobRow> ListJobs();
// Those that are not over, the oldest first.
std::vector<JobRow> ListJobsUnderWay();
bool IsJobCancelAsked(long long id);

}  // namespace korv
