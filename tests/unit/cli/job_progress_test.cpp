#include "cli/job_progress.h"

#include <gtest/gtest.h>

namespace {

Json::Value Job(const std::string& kind, const std::string& state, int percent, int error) {
    Json::Value job(Json::objectValue);
    job["kind"] = kind;
    job["share"] = "rec";
    job["state"] = state;
    job["percent"] = percent;
    job["error"] = error;
    return job;
}

constexpr int kNoSpace = 3306;

}  // namespace

TEST(JobProgress, TheBarGrowsByThirtyCells) {
    EXPECT_EQ(cli::ProgressLine(Job("encrypt", "progressing", 0, 0)),
              "[..............................]   0 %  encrypting rec");
    EXPECT_EQ(cli::ProgressLine(Job("encrypt", "progressing", 50, 0)),
              "[###############...............]  50 %  encrypting rec");
    EXPECT_EQ(cli::ProgressLine(Job("decrypt", "progressing", 99, 0)),
              "[#############################.]  99 %  decrypting rec");
    EXPECT_EQ(cli::ProgressLine(Job("decrypt", "progressing", 100, 0)),
              "[##############################] 100 %  decrypting rec");
}

TEST(JobProgress, AShareThatIsOutOfRangeStaysInTheBar) {
    EXPECT_EQ(cli::ProgressLine(Job("encrypt", "progressing", -1, 0)),
              "[..............................]   0 %  encrypting rec");
    EXPECT_EQ(cli::ProgressLine(Job("encrypt", "progressing", 1000, 0)),
              "[##############################] 100 %  encrypting rec");
}

TEST(JobProgress, OnlyAJobThatFailedBeforeIsSaidToWait) {
    EXPECT_EQ(cli::ProgressLine(Job("encrypt", "waiting", 10, 0)),
              "[###...........................]  10 %  encrypting rec");
    EXPECT_EQ(cli::ProgressLine(Job("encrypt", "waiting", 10, kNoSpace)),
              "[###...........................]  10 %  encrypting rec, waiting");
}

TEST(JobProgress, TheEndTellsTheReason) {
    EXPECT_EQ(cli::JobEndText(Job("encrypt", "finished", 100, 0)), "encrypting rec is finished");
    EXPECT_EQ(cli::JobEndText(Job("decrypt", "cancelled", 20, 0)), "decrypting rec cancelled");
    const std::string failed = cli::JobEndText(Job("encrypt", "failed", 20, kNoSpace));
    EXPECT_EQ(failed.rfind("encrypting rec failed: ", 0), 0U) << failed;
    EXPECT_GT(failed.size(), std::string("encrypting rec failed: ").size());
}

TEST(JobProgress, AWaitingJobSaysWhatItWaitsFor) {
    EXPECT_EQ(cli::JobStateText(Job("encrypt", "progressing", 10, 0)), "encrypting rec goes on");
    EXPECT_EQ(cli::JobStateText(Job("encrypt", "waiting", 0, 0)), "encrypting rec is about to begin");
    EXPECT_EQ(cli::JobStateText(Job("decrypt", "waiting", 10, 3328)),
              "decrypting rec waits until the shared folder is unlocked");
    EXPECT_EQ(cli::JobStateText(Job("encrypt", "waiting", 10, 3305)),
              "encrypting rec waits until nobody uses its files and nothing is mounted in it");
    EXPECT_EQ(cli::JobStateText(Job("encrypt", "waiting", 10, kNoSpace)),
              "encrypting rec waits for free space on its volume");
}

TEST(JobProgress, OnlyAJobThatIsNotOverIsUnderWay) {
    Json::Value job = Job("encrypt", "waiting", 0, 0);
    job["finish"] = false;
    EXPECT_TRUE(cli::IsUnderWay(job));
    job["finish"] = true;
    EXPECT_FALSE(cli::IsUnderWay(job));
    EXPECT_FALSE(cli::IsUnderWay(Json::Value()));
}
