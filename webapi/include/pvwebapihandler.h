#pragma once

#include <list>
#include <map>
#include <memory>
#include <string>

#include <json/json.h>

#include "platform/korv/api_request.h"
#include "platform/korv/api_response.h"
#include "platform/korv/app_privilege.h"
#include "platform/korv/process_environment.h"
#include "platform/pavane/camera.h"
#include "platform/pavane/cms.h"
#include "platform/pavane/log.h"
#include "platform/pavane/services.h"

#include "webapi/include/cms_relay.h"
#include "webapi/include/json_text.h"
#include "webapi/include/log_gate.h"
#include "webapi/include/pv_mutex.h"
#include "webapi/include/pv_webapi_err_code.h"

// The application whose privilege admits a caller, and the account that it runs as.
inline constexpr const char* kPavaneApp = "KORV.KRX.Pavane";
inline constexpr const char* kPavaneUser = "Pavane";

// What this source is called in log entries.
inline constexpr const char* kHandlerFrameSource = "webapi/include/pvwebapihandler";

// Something a handler keeps for the length of its request.
struct PVWebAPICache {
    virtual ~PVWebAPICache() = default;
};

// The frame of one request: who calls, what went wrong, what is answered, and the relay between servers.
//   Handler    the class derived from this one
//   Action     int (Handler::*)(CmsRelayParams&, CmsRelayTarget&, Json::Value&): prepares a relay (needRelay;
//              0 = relay, -1 = act here, -2 = stop) or acts and fills the answer's data (0 = done)
//   PreCheck   int (Handler::*)(CmsRelayParams&): non-zero stops the request before anything runs
//   PostStep   int (Handler::*)(CmsRelayParams&, CmsRelayTarget&, bool): told whether all went well; non-zero
//              turns the answer into an error
// One object per request, on the stack, used by one thread. Borrows the request and the response.
template <class Handler, class Action, class PreCheck, class PostStep>
class PVWebAPIHandler {
public:
    PVWebAPIHandler(KORV::APIRequest* request, KORV::APIResponse* response);
    virtual ~PVWebAPIHandler();
    PVWebAPIHandler(const PVWebAPIHandler&) = delete;
    PVWebAPIHandler& operator=(const PVWebAPIHandler&) = delete;

    // True when this server may change the camera: it is a host, or the camera is its own.
    virtual bool IsCamAvailiable(int camId);
    virtual Json::Value GetRedirectPrivData(int camId);

    // Whether the caller may use the API at all; sets pairAuthenticated for an admitted peer.
    bool Authenticate();

    // {"api", "method", "version"} of the request, the start of a request to relay.
    Json::Value GetAPIInfo() const;

    // The id of the recording server whose serial the request names, 0 when none has it.
    int GetSlaveRVId() const;

    // Remembers why the request fails; a later call replaces an earlier one.
    void SetErrorCode(PV_WEBAPI_ERR_CODE code, const std::string& param1, const std::string& param2);

    // Answers the remembered error with `data` (an object or null) plus "param1" and "param2".
    void WriteErrorResponse(Json::Value data);

    // Judges another server's or web API's reply: 0 no error, -2 for 405, -3 for 102 (neither is remembered),
    // -1 for any other, which is remembered with its params.
    int CheckErrorInfo(const Json::Value& reply);

    // Decides whether the request is relayed, relays it, acts, and answers.
    void CmsRelayWebApi(Action action, PreCheck preCheck, PostStep postStep);

protected:
    KORV::APIRequest* request;
    KORV::APIResponse* response;
    bool relayedFromHost = false;
    bool relayedCmd = false;
    bool pairAuthenticated = false;
    int errorCode = PV_WEBAPI_ERR_NONE;
    std::unique_ptr<PVWebAPICache> cache;
    std::map<int, std::string> errorParams;
    PVMutex mutex;

private:
    // What follows a phase of the relay.
    enum class Next { kFinish, kActHere, kHostUnreachable, kAnsweredByHost };

    bool IsPairedPeer();
    bool IsValidCmsRequest(const CmsRelayParams& params);
    static bool NeedsRelay(const CmsRelayParams& params);
    void PrepareRelayAndAct(Action action, CmsRelayParams& params, CmsRelayTarget& target, Json::Value& data);
    Next Relay(const CmsRelayParams& params, CmsRelayTarget& target, Json::Value& reply);
    Next RelayToHost(const CmsRelayParams& params, CmsRelayTarget& target, Json::Value& reply);
    Next RelayToRecServers(const CmsRelayParams& params, CmsRelayTarget& target, Json::Value& reply);
    bool AreAllOnline(const std::list<int>& rvIds);
    void ActHere(Action action, CmsRelayParams& params, CmsRelayTarget& target, Json::Value& data);
    void Finish(PostStep postStep, CmsRelayParams& params, CmsRelayTarget& target, Json::Value& data);
    Handler& Self() { return static_cast<Handler&>(*this); }
};

// Error parameters by their place in the answer.
inline constexpr int kErrorParam1 = 1;
inline constexpr int kErrorParam2 = 2;

#include "webapi/include/pvwebapihandler_caller.inl"
#include "webapi/include/pvwebapihandler_relay.inl"
