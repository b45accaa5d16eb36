#include "korv/system/job_store.h"

#include <array>
#include <cstddef>
#include <stdexcept>

#include <soci/soci.h>

#include "korv/system/database.h"

namespace korv {

namespace {

constexpr std::array<const char*, 2> kKinds{"encrypt", "decrypt"};
constexpr std::array<const char*, 5> kStates{"waiting", "progressing", "finished", "cancelled", "failed"};

template <class Value, std::size_t kCount>
Value ValueOf(const std::array<const char*, kCount>& names, const std::string& name) {
    for (std::size_t i = 0; i < kCount; ++i) {
        if (name == names[i]) {
            return static_cast<Value>(i);
        }
    }
    throw std::runtime_error("a job in the database is of an unknown kind or state");
}

// One row as the database types it.
struct JobCells {
    std::string kind, state;
    int isCancelAsked = 0, error = 0, step = 0, reason = 0;
    long long total = 0, copied = 0, verified = 0;
    JobRow row;

    JobRow Row() const {
        JobRow result = row;
        result.kind = ValueOf<JobKind>(kKinds, kind);
        result.state = ValueOf<JobState>(kStates, state);
        result.error = static_cast<ChangeEnd>(error);
        result.isCancelAsked = isCancelAsked != 0;
        result.move.step = static_cast<MoveStep>(step);
        result.move.reason = static_cast<MoveEnd>(reason);
        result.move.total_bytes = static_cast<std::uint64_t>(total);
        result.move.copied_bytes = static_cast<std::uint64_t>(copied);
        result.move.verified_bytes = static_cast<std::uint64_t>(verified);
        return result;
    }
};

// Runs "select ... from job <rest>"; `value` stands for ":value" in it, which must be there.
std::vector<JobRow> Select(const std::string& rest, const std::string& value) {
    JobCells cells;
    JobRow& row = cells.row;
    soci::statement statement =
        (Database().prepare
             << "select id, kind, share_token, share, state, is_cancel_asked, error, percent, step, reason,"
                " total_bytes, copied_bytes, verified_bytes, changed_since_s, switched_s, next_try_s, "
                "created_s,"
                " ended_s, runner_pid, runner_start, runner_boot_id from job "
             << rest,
         soci::into(row.id), soci::into(cells.kind), soci::into(row.shareToken), soci::into(row.share),
         soci::into(cells.state), soci::into(cells.isCancelAsked), soci::into(cells.error),
         soci::into(row.percent), soci::into(cells.step), soci::into(cells.reason), soci::into(cells.total),
         soci::into(cells.copied), soci::into(cells.verified), soci::into(row.move.changedSince_s),
         soci::into(row.move.switched_s), soci::into(row.nextTry_s), soci::into(row.created_s),
         soci::into(row.ended_s), soci::into(row.runner.pid), soci::into(row.runner.start),
         soci::into(row.runner.bootId), soci::use(value, "value"));
    statement.execute();
    std::vector<JobRow> rows;
    while (statement.fetch()) {
        rows.push_back(cells.Row());
    }
    return rows;
}

std::optional<JobRow> First(const std::vector<JobRow>& rows) {
    return rows.empty() ? std::nullopt : std::optional(rows.front());
}

constexpr const char* kUnderWay = "state in ('waiting', 'progressing')";

}  // namespace

const char* NameOf(JobKind kind) { return kKinds.at(static_cast<std::size_t>(kind)); }
const char* NameOf(JobState state) { return kStates.at(static_cast<std::size_t>(state)); }

void AddJob(JobRow& row) {
    const std::string kind = NameOf(row.kind);
    const std::string state = NameOf(row.state);
    Database() << "insert into job (kind, share_token, share, state, created_s)"
                  " values (:kind, :token, :share, :state, :created)",
        soci::use(kind), soci::use(row.shareToken), soci::use(row.share), soci::use(state),
        soci::use(row.created_s);
    Database() << "select last_insert_rowid()", soci::into(row.id);
    Database() << "delete from job where state not in ('waiting', 'progressing') and id not in"
                  " (select id from job order by id desc limit 1000)";
}

void SaveJob(const JobRow& row) {
    const std::string state = NameOf(row.state);
    const int error = static_cast<int>(row.error), step = static_cast<int>(row.move.step),
              reason = static_cast<int>(row.move.reason);
    const auto total = static_cast<long long>(row.move.total_bytes),
               copied = static_cast<long long>(row.move.copied_bytes),
               verified = static_cast<long long>(row.move.verified_bytes);
    const long long changedSince_s = row.move.changedSince_s, switched_s = row.move.switched_s;
    Database()
        << "update job set state = :state, error = :error, percent = :percent, step = :step,"
           " reason = :reason, total_bytes = :total, copied_bytes = :copied, verified_bytes = :verified,"
           " changed_since_s = :changed, switched_s = :switched, next_try_s = :next_try, ended_s = :ended, "
           "runner_pid = :pid,"
           " runner_start = :start, runner_boot_id = :boot_id where id = :id",
        soci::use(state), soci::use(error), soci::use(row.percent), soci::use(step), soci::use(reason),
        soci::use(total), soci::use(copied), soci::use(verified), soci::use(changedSince_s),
        soci::use(switched_s), soci::use(row.nextTry_s), soci::use(row.ended_s), soci::use(row.runner.pid),
        soci::use(row.runner.start), soci::use(row.runner.bootId), soci::use(row.id);
}

void AskJobToCancel(long long id) {
    Database() << "update job set is_cancel_asked = 1, next_try_s = 0 where id = :id", soci::use(id);
}

std::optional<JobRow> FindJob(long long id) {
    return First(Select("where id = cast(:value as integer)", std::to_string(id)));
}

std::optional<JobRow> FindJobUnderWay(const std::string& shareToken) {
    return First(Select(std::string("where share_token = :value and ") + kUnderWay, shareToken));
}

std::vector<JobRow> ListJobs() { return Select("where :value = '' order by id desc", ""); }

std::vector<JobRow> ListJobsUnderWay() {
    return Select(std::string("where :value = '' and ") + kUnderWay + " order by id", "");
}

bool IsJobCancelAsked(long long id) {
    int isAsked = 0;
    Database() << "select is_cancel_asked from job where id = :id", soci::use(id), soci::into(isAsked);
    return isAsked != 0;
}

}  // namespace korv
