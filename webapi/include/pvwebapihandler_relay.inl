// The relay of a request between a host and its recording servers. Included by pvwebapihandler.h only.
// The line numbers in the log entries are what operators search for; they do not follow this text.

template <class Handler, class Action, class PreCheck, class PostStep>
void PVWebAPIHandler<Handler, Action, PreCheck, PostStep>::CmsRelayWebApi(Action action, PreCheck preCheck,
                                                                          PostStep postStep) {
    CmsRelayParams params;
    params.isCmsHost = IsCmsHost();
    params.recServerOwnStatusOk = GetRecServerOwnStatus() == 0;
    params.isCmsPaired = IsCmsPaired();
    params.relayedCmd = request->GetParam("relayedCmd", false).asBool();
    params.relayedFromHost = relayedFromHost;
    params.actFromHost = request->GetParam("actFromHost", false).asBool();
    relayedCmd = params.relayedCmd;
    CmsRelayTarget target;
    Json::Value data;

    if (!IsValidCmsRequest(params)) {
        SetErrorCode(PV_WEBAPI_ERR_NOT_A_SLAVE, "", "");
    } else {
        params.needRelay = NeedsRelay(params);
        if (preCheck == nullptr || (Self().*preCheck)(params) == 0) {
            PrepareRelayAndAct(action, params, target, data);
        }
    }
    Finish(postStep, params, target, data);
}

// Only a host is particular about who relays to it: an enabled recording server of its own.
template <class Handler, class Action, class PreCheck, class PostStep>
bool PVWebAPIHandler<Handler, Action, PreCheck, PostStep>::IsValidCmsRequest(const CmsRelayParams& params) {
    constexpr int kLogLine = 466;
    if (!params.relayedCmd || !IsCmsHost()) {
        return true;
    }
    const int id = GetSlaveRVId();
    if (id <= 0) {
        return false;
    }
    SlaveRV sender;
    if (sender.Load(id) != 0) {
        PVPrintf(LOG_TYPE_DEFAULT, nullptr, nullptr, kHandlerFrameSource, kLogLine, "IsValidCmsRequest",
                 "Failed to load slave rv [%d]\n", id);
        return false;
    }
    return sender.GetEnable();
}

template <class Handler, class Action, class PreCheck, class PostStep>
bool PVWebAPIHandler<Handler, Action, PreCheck, PostStep>::NeedsRelay(const CmsRelayParams& params) {
    if (!IsEnableCms()) {
        return false;
    }
    if (!params.isCmsHost) {
        return params.isCmsPaired && !params.relayedCmd && params.recServerOwnStatusOk;
    }
    return !params.relayedCmd || params.actFromHost;
}

template <class Handler, class Action, class PreCheck, class PostStep>
void PVWebAPIHandler<Handler, Action, PreCheck, PostStep>::PrepareRelayAndAct(Action action,
                                                                              CmsRelayParams& params,
                                                                              CmsRelayTarget& target,
                                                                              Json::Value& data) {
    constexpr int kLogLine = 290;
    constexpr int kStop = -2;
    constexpr int kNoRelay = -1;
    if (!params.needRelay) {
        ActHere(action, params, target, data);
        return;
    }
    Json::Value reply;
    const int prepared = (Self().*action)(params, target, reply);
    if (prepared == kStop) {
        return;
    }
    if (prepared == kNoRelay) {
        params.needRelay = false;
        ActHere(action, params, target, data);
        return;
    }
    reply = Json::Value();
    target.relayStatus = CMS_RELAY_RUNNING;
    const Next next = Relay(params, target, reply);
    if (next == Next::kAnsweredByHost) {
        data = reply["data"];
        return;
    }
    if (next == Next::kFinish) {
        return;
    }
    params.needRelay = false;
    if (next == Next::kActHere) {
        PV_LOG_AT(LOG_CATEG_CMS, LOG_LEVEL_TRACE, kHandlerFrameSource, kLogLine, "CmsRelayWebApi",
                  "Relay result [%s]\n", JsonText(reply).c_str());
    }
    ActHere(action, params, target, data);
}

template <class Handler, class Action, class PreCheck, class PostStep>
typename PVWebAPIHandler<Handler, Action, PreCheck, PostStep>::Next
PVWebAPIHandler<Handler, Action, PreCheck, PostStep>::Relay(const CmsRelayParams& params,
                                                            CmsRelayTarget& target, Json::Value& reply) {
    if (params.isCmsPaired) {
        return RelayToHost(params, target, reply);
    }
    if (params.isCmsHost) {
        return RelayToRecServers(params, target, reply);
    }
    return Next::kActHere;
}

template <class Handler, class Action, class PreCheck, class PostStep>
typename PVWebAPIHandler<Handler, Action, PreCheck, PostStep>::Next
PVWebAPIHandler<Handler, Action, PreCheck, PostStep>::RelayToHost(const CmsRelayParams& params,
                                                                  CmsRelayTarget& target,
                                                                  Json::Value& reply) {
    constexpr int kWait_s = 40;
    constexpr int kSendLogLine = 200;
    constexpr int kRefusedLogLine = 214;
    constexpr int kHostError = -1;
    target.relayRequest["relayedCmd"] = true;
    if (params.actFromHost) {
        target.relayRequest["actFromHost"] = true;
    }
    if (SendWebAPIToHost(target.relayRequest, false, reply, kWait_s, nullptr, 0) != 0 || reply.empty()) {
        PVPrintf(LOG_TYPE_DEFAULT, nullptr, nullptr, kHandlerFrameSource, kSendLogLine, "CmsRelayWebApi",
                 "Failed to send command to host.\n");
        return Next::kHostUnreachable;
    }
    target.results["0"] = reply;
    const Json::Value& answer = reply;  // looked at as a constant: looking must not add members
    if (answer["success"] == true) {
        target.relayStatus = CMS_RELAY_DONE;
    }
    const int error = CheckErrorInfo(reply);
    if (error < kHostError) {
        PVPrintf(LOG_TYPE_DEFAULT, nullptr, nullptr, kHandlerFrameSource, kRefusedLogLine, "CmsRelayWebApi",
                 "Failed to send command to host.\n");
        return Next::kHostUnreachable;
    }
    if (params.actFromHost) {
        return error != 0 ? Next::kFinish : Next::kAnsweredByHost;
    }
    if (error != 0 && answer["data"]["stopOnHostError"] == true) {
        return Next::kAnsweredByHost;
    }
    return Next::kActHere;
}

template <class Handler, class Action, class PreCheck, class PostStep>
typename PVWebAPIHandler<Handler, Action, PreCheck, PostStep>::Next
PVWebAPIHandler<Handler, Action, PreCheck, PostStep>::RelayToRecServers(const CmsRelayParams& params,
                                                                        CmsRelayTarget& target,
                                                                        Json::Value& reply) {
    constexpr int kSendLogLine = 271;
    if (target.rvIds.empty()) {
        target.rvIds = GetSlaveRvIdList(true, false, false, false, false);
    }
    if (!AreAllOnline(target.rvIds)) {
        return Next::kFinish;
    }
    for (const int rvId : target.rvIds) {
        const auto own = target.requestByRv.find(rvId);
        Json::Value relayed = own != target.requestByRv.end() ? own->second : target.relayRequest;
        relayed["relayedCmd"] = true;
        if (params.actFromHost) {
            relayed["actFromHost"] = true;
        }
        if (SendWebAPIToRecServerByJson(rvId, relayed, false, reply) != 0) {
            PVPrintf(LOG_TYPE_DEFAULT, nullptr, nullptr, kHandlerFrameSource, kSendLogLine, "CmsRelayWebApi",
                     "Failed to send cmd to rv[%d].\n", rvId);
            SetErrorCode(PV_WEBAPI_ERR_RV_UNREACHABLE, "", "");
            return Next::kFinish;
        }
        target.results[std::to_string(rvId)] = reply;
    }
    // With several servers each one's error is only kept in the results, for the handler to judge.
    if (target.rvIds.size() == 1 && CheckErrorInfo(reply) != 0) {
        return Next::kFinish;
    }
    target.relayStatus = CMS_RELAY_DONE;
    return Next::kActHere;
}

// Asked of all servers before anything is sent to one.
template <class Handler, class Action, class PreCheck, class PostStep>
bool PVWebAPIHandler<Handler, Action, PreCheck, PostStep>::AreAllOnline(const std::list<int>& rvIds) {
    constexpr int kLogLine = 250;
    for (const int rvId : rvIds) {
        SlaveRV server;
        if (GetSlaveRVById(rvId, server) != 0) {
            SetErrorCode(PV_WEBAPI_ERR_OPERATION_FAILED, "", "");
            return false;
        }
        if (!IsRvOnlineSts(server.GetStatus())) {
            PVPrintf(LOG_TYPE_DEFAULT, nullptr, nullptr, kHandlerFrameSource, kLogLine, "CmsRelayWebApi",
                     "One of enabled rv is unreachable.\n");
            SetErrorCode(PV_WEBAPI_ERR_RV_UNREACHABLE, "", "");
            return false;
        }
    }
    return true;
}

template <class Handler, class Action, class PreCheck, class PostStep>
void PVWebAPIHandler<Handler, Action, PreCheck, PostStep>::ActHere(Action action, CmsRelayParams& params,
                                                                   CmsRelayTarget& target,
                                                                   Json::Value& data) {
    constexpr int kLogLine = 295;
    if ((Self().*action)(params, target, data) != 0) {
        PVPrintf(LOG_TYPE_DEFAULT, nullptr, nullptr, kHandlerFrameSource, kLogLine, "CmsRelayWebApi",
                 "Failed to execute function after relay.\n");
    }
}

template <class Handler, class Action, class PreCheck, class PostStep>
void PVWebAPIHandler<Handler, Action, PreCheck, PostStep>::Finish(PostStep postStep, CmsRelayParams& params,
                                                                  CmsRelayTarget& target, Json::Value& data) {
    bool ok = errorCode == PV_WEBAPI_ERR_NONE;
    if (postStep != nullptr && (Self().*postStep)(params, target, ok) != 0) {
        ok = false;
    }
    if (ok) {
        response->SetSuccess(data);
        return;
    }
    if (target.stopOnHostError) {
        data["stopOnHostError"] = true;
    }
    WriteErrorResponse(data);
}
