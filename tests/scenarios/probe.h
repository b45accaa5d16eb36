#pragma once

#include <json/json.h>

#include "webapi/include/pvwebapihandler.h"

namespace scenario {

class Probe;

using ProbeAction = int (Probe::*)(CmsRelayParams&, CmsRelayTarget&, Json::Value&);
using ProbePreCheck = int (Probe::*)(CmsRelayParams&);
using ProbePostStep = int (Probe::*)(CmsRelayParams&, CmsRelayTarget&, bool);

// A relayable handler that a scenario plays: what the frame passes to it is recorded like a platform call,
// and what it does stands in the reply.
class Probe : public PVWebAPIHandler<Probe, ProbeAction, ProbePreCheck, ProbePostStep> {
public:
    using PVWebAPIHandler::PVWebAPIHandler;

    int Act(CmsRelayParams& params, CmsRelayTarget& target, Json::Value& data);
    int CheckBefore(CmsRelayParams& params);
    int StepAfter(CmsRelayParams& params, CmsRelayTarget& target, bool ok);

    using PVWebAPIHandler::errorCode;
    using PVWebAPIHandler::errorParams;

private:
    int Play(const Json::Value& reply);
};

}  // namespace scenario
