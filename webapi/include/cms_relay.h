#pragma once

#include <list>
#include <map>

#include <json/json.h>

// What a relayable handler is told about its request and this server's role in central management.
struct CmsRelayParams {
    bool isCmsHost = false;
    bool recServerOwnStatusOk = false;
    bool isCmsPaired = false;
    bool relayedCmd = false;       // another server relayed the request to this one
    bool needRelay = true;         // this call only prepares the relay
    bool relayedFromHost = false;  // relayed, and this server is a host
    bool actFromHost = false;      // the request is acted on for a recording server by its host
};

// How far a relay has come.
enum CmsRelayStatus : int {
    CMS_RELAY_NONE = 0,
    CMS_RELAY_DONE = 1,  // every target answered, or the host answered success
    CMS_RELAY_RUNNING = 2,
};

// What a relayable handler wants relayed, and what came back.
struct CmsRelayTarget {
    bool stopOnHostError = false;  // a failure tells the server that relayed it not to act itself
    int relayStatus = CMS_RELAY_NONE;
    Json::Value results;                     // each server's reply by its id in decimal, "0" = the host
    Json::Value relayRequest;                // what to send
    std::list<int> rvIds;                    // to which recording servers; empty = all enabled ones
    std::map<int, Json::Value> requestByRv;  // what to send to one server instead of relayRequest
};
