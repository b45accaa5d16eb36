// Who calls, and what went wrong. Included by pvwebapihandler.h only.

template <class Handler, class Action, class PreCheck, class PostStep>
PVWebAPIHandler<Handler, Action, PreCheck, PostStep>::PVWebAPIHandler(KORV::APIRequest* apiRequest,
                                                                      KORV::APIResponse* apiResponse)
    : request(apiRequest), response(apiResponse) {
    relayedFromHost = request->GetParam("relayedCmd", false).asBool() && IsCmsHost();
    PVTaskSet::SetAffinity("");
    const std::string cookie = request->GetCookie("pav_dual_auth", "");
    DualAuth::CheckToSetEnv(cookie, request->GetSessionID());
}

// The order is part of the contract: the cache may still use what comes after it.
template <class Handler, class Action, class PreCheck, class PostStep>
PVWebAPIHandler<Handler, Action, PreCheck, PostStep>::~PVWebAPIHandler() {
    cache.reset();
    errorParams.clear();
}

template <class Handler, class Action, class PreCheck, class PostStep>
bool PVWebAPIHandler<Handler, Action, PreCheck, PostStep>::IsCamAvailiable(int camId) {
    constexpr int kLogLine = 608;
    if (IsCmsHost() || GetCamOwnerRvId(camId) == 0) {
        return true;
    }
    PVPrintf(LOG_TYPE_DEFAULT, nullptr, nullptr, kHandlerFrameSource, kLogLine, "IsCamAvailiable",
             "Camera[%d]: Modify detection param while CMS closed.\n", camId);
    return false;
}

template <class Handler, class Action, class PreCheck, class PostStep>
Json::Value PVWebAPIHandler<Handler, Action, PreCheck, PostStep>::GetRedirectPrivData(int /*camId*/) {
    return Json::Value();
}

template <class Handler, class Action, class PreCheck, class PostStep>
bool PVWebAPIHandler<Handler, Action, PreCheck, PostStep>::Authenticate() {
    if (!request->IsAuthorized()) {
        return IsPairedPeer();
    }
    if (request->HasAppPriv(kPavaneApp) || request->IsAdmin()) {
        return true;
    }
    const std::string user = request->GetLoginUserName();
    if (user == kPavaneUser || SDKUser::AppPrivUserHas(user, kPavaneApp, request->GetRemoteIP())) {
        return true;
    }
    return IsPairedPeer();
}

// A peer names itself in "client" and proves the pairing by a key over a stamp. "FailedTiemstamp" is what
// peers of every version expect; it must stay as it is.
template <class Handler, class Action, class PreCheck, class PostStep>
bool PVWebAPIHandler<Handler, Action, PreCheck, PostStep>::IsPairedPeer() {
    constexpr int kCrossSite = 1;
    const bool running = IsPVRunning();
    const int crossSite = request->GetParam("isCrossSite", 0).asInt();
    const std::string client = request->GetParam("client", "").asString();
    if (client != "MK770LX" && client != "NVR" && client != "REC_SERVER") {
        return false;
    }
    if (!running) {
        return false;
    }
    const std::string pairKey = request->GetParam("cookie", "FailedCookie").asString();
    const std::string stamp = request->GetCookie("timestamp", "FailedTiemstamp");
    if (pairKey.empty() || stamp.empty()) {
        return false;
    }
    const bool ok = crossSite == kCrossSite ? SlaveRVAuthentication().IsAuthByPairMatch(pairKey, stamp)
                                            : IsAuthPairMatch(pairKey, stamp);
    if (ok) {
        pairAuthenticated = true;
    }
    return ok;
}

template <class Handler, class Action, class PreCheck, class PostStep>
Json::Value PVWebAPIHandler<Handler, Action, PreCheck, PostStep>::GetAPIInfo() const {
    Json::Value info(Json::objectValue);
    info["api"] = request->GetAPIClass();
    info["method"] = request->GetAPIMethod();
    info["version"] = request->GetAPIVersion();
    return info;
}

template <class Handler, class Action, class PreCheck, class PostStep>
int PVWebAPIHandler<Handler, Action, PreCheck, PostStep>::GetSlaveRVId() const {
    const std::string serial = request->GetParam("recSerialNum", "").asString();
    std::list<SlaveRV> servers;
    SlaveRvGetList(servers, 0);
    for (const SlaveRV& server : servers) {
        if (server.GetKey() == serial) {
            return server.GetId();
        }
    }
    return 0;
}

template <class Handler, class Action, class PreCheck, class PostStep>
void PVWebAPIHandler<Handler, Action, PreCheck, PostStep>::SetErrorCode(PV_WEBAPI_ERR_CODE code,
                                                                        const std::string& param1,
                                                                        const std::string& param2) {
    errorCode = code;
    errorParams[kErrorParam1] = param1;
    errorParams[kErrorParam2] = param2;
}

template <class Handler, class Action, class PreCheck, class PostStep>
void PVWebAPIHandler<Handler, Action, PreCheck, PostStep>::WriteErrorResponse(Json::Value data) {
    data["param1"] = errorParams[kErrorParam1];
    data["param2"] = errorParams[kErrorParam2];
    response->SetError(errorCode, data);
}

template <class Handler, class Action, class PreCheck, class PostStep>
int PVWebAPIHandler<Handler, Action, PreCheck, PostStep>::CheckErrorInfo(const Json::Value& reply) {
    constexpr int kRemembered = -1;
    constexpr int kRefusedAsSlave = -2;
    constexpr int kApiLacking = -3;
    if (!reply.isMember("error")) {
        return 0;
    }
    const Json::Value& error = reply["error"];
    const int code = error["code"].asInt();
    if (code == PV_WEBAPI_ERR_NOT_A_SLAVE) {
        return kRefusedAsSlave;
    }
    if (code == kPeerLacksApi) {
        return kApiLacking;
    }
    const Json::Value& params = error["errors"];
    SetErrorCode(static_cast<PV_WEBAPI_ERR_CODE>(code), params["param1"].asString(),
                 params["param2"].asString());
    return kRemembered;
}
