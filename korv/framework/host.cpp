#include "korv/framework/host.h"

#include <algorithm>
#include <exception>
#include <map>
#include <utility>
#include <vector>

#include "platform/korv/host.h"

#include "korv/framework/log.h"

namespace {

using HealthCheck = std::function<std::string()>;

std::map<std::string, HealthCheck>& HealthChecks() {
    static std::map<std::string, HealthCheck> checks;
    return checks;
}

KORV::PairCheck& RegisteredPairCheck() {
    static KORV::PairCheck check;
    return check;
}

using MountObserver = std::function<void(const std::string&, bool)>;

std::vector<MountObserver>& MountObservers() {
    static std::vector<MountObserver> observers;
    return observers;
}

std::map<std::string, korv::PeriodicJob>& RegisteredJobs() {
    static std::map<std::string, korv::PeriodicJob> jobs;
    return jobs;
}

}  // namespace

void KORV::RegisterMountObserver(std::function<void(const std::string& mountPoint, bool isNormal)> observer) {
    MountObservers().push_back(std::move(observer));
}

void korv::AnnounceMountState(const std::string& mountPoint, bool isNormal) {
    for (const MountObserver& observer : MountObservers()) {
        try {
            observer(mountPoint, isNormal);
        } catch (const std::exception& error) {
            LogLine(std::string("an observer of mounts threw: ") + error.what());
        }
    }
}

void KORV::RegisterHealthCheck(const std::string& name, std::function<std::string()> check) {
    HealthChecks()[name] = std::move(check);
}

void KORV::RegisterPairCheck(PairCheck check) { RegisteredPairCheck() = std::move(check); }

void KORV::RegisterPeriodicJob(const std::string& name, int interval_s, JobLength length,
                               std::function<void()> job) {
    RegisteredJobs()[name] = {std::max(interval_s, 1), length, std::move(job)};
}

const std::map<std::string, korv::PeriodicJob>& korv::PeriodicJobs() { return RegisteredJobs(); }

std::string korv::FailedHealthCheck() {
    for (const auto& [name, check] : HealthChecks()) {
        try {
            const std::string problem = check();
            if (!problem.empty()) {
                return std::string(name).append(": ").append(problem);
            }
        } catch (const std::exception& error) {
            return std::string(name).append(": ").append(error.what());
        }
    }
    return {};
}

bool korv::IsPairedPeer(const std::string& pairKey, const std::string& stamp, const std::string& api,
                        const Json::Value& params) {
    const KORV::PairCheck& check = RegisteredPairCheck();
    return check != nullptr && check(pairKey, stamp, api, params);
}
