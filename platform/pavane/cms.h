#pragma once

#include <list>
#include <string>

#include <json/json.h>

// Central management: one host, several recording servers ("slaves"), each known to the host by an id >= 1.
// Id 0 always means this server. Implemented in pavane/cms/.

// The connection state of a recording server as the host last saw it.
enum RV_STATUS : int {
    RV_STATUS_ONLINE = 0,
    RV_STATUS_OFFLINE = 1,
    RV_STATUS_UNPAIRED = 2,
    RV_STATUS_VERSION_DIFFERS = 3,
};

// This server's role. Each reads the application's settings; none blocks longer than one indexed query.
// Settings that can't be read are no role to act by: std::runtime_error is thrown, and the request ends
// there.
bool IsCmsHost();
bool IsCmsPaired();
bool IsEnableCms();

// The state of this server as a recording server of its host; 0 = in order. Throws like those above.
int GetRecServerOwnStatus();

// A recording server as the host knows it. A value type.
class SlaveRV {
public:
    SlaveRV();

    // Fills the record from the store; 0 on success, -1 when there is none of that id (the record is
    // unchanged).
    int Load(int id);

    int GetId() const;
    // The server's serial, compared byte for byte.
    std::string GetKey() const;
    bool GetEnable() const;
    RV_STATUS GetStatus() const;

private:
    friend struct SlaveRVAccess;  // the platform's own way to the fields

    int m_id = 0;
    std::string m_key;
    bool m_enable = false;
    RV_STATUS m_status = RV_STATUS_OFFLINE;
};

// Fills `list` with every recording server, by ascending id. `rvId` narrows it to that server; 0 means all.
// 0 on success, -1 on failure with `list` empty.
int SlaveRvGetList(std::list<SlaveRV>& list, int rvId);

// Ids of recording servers, ascending; each flag narrows the choice. Empty on failure.
//   enabledOnly    only servers that are enabled
//   onlineOnly     only servers that answered lately
//   withFailover   also standby servers that take over for others
//   withoutOwner   leave out servers that are taken over at the moment
//   sameVersion    only servers that run this server's version
std::list<int> GetSlaveRvIdList(bool enabledOnly, bool onlineOnly, bool withFailover, bool withoutOwner,
                                bool sameVersion);

// Every recording server, for walks over all of them.
class SlaveRVMgr {
public:
    // `load`: read the list now.
    explicit SlaveRVMgr(bool load);

    // The servers, by ascending id; as of construction.
    const std::list<SlaveRV>& GetSlaveRVList() const;

private:
    std::list<SlaveRV> m_servers;
};

// Fills `server` with the recording server `id`: 0 on success, non-zero when it cannot be read.
int GetSlaveRVById(int id, SlaveRV& server);

// True when `status` means that the server can be reached.
bool IsRvOnlineSts(RV_STATUS status);

// True when the recording server is connected.
bool IsRvOnline(int rvId);

// True while the recording server is taken over by a failover server.
bool IsRunTimeFailoverRv(int rvId);

// Sends a web API request to this server's host and waits for the answer.
//   request    object with "api", "version", "method" and the parameters beside them
//   binary     true: the answer is a file (not used here)
//   reply      out: the answer; null after a failure. See below
//   wait_s     deadline in seconds for connect, send and answer together
//   progress   called while waiting; null for none
//   retries    how often a failed connect is tried again
// 0 on success. Answers of another shape than these are failures, so callers needn't look at types: an object
// whose "data" is an object or nothing, and whose "error", if there is one, has a number as "code" and an
// object or nothing as "errors", with texts or nothing as "param1" and "param2". In the data, "usage" is a
// list of objects or nothing, and what is said of a share that was made has its types.
int SendWebAPIToHost(const Json::Value& request, bool binary, Json::Value& reply, int wait_s,
                     void (*progress)(), int retries);

// The same towards the recording server `rvId`, with the platform's own deadline. 0 on success.
int SendWebAPIToRecServerByJson(int rvId, const Json::Value& request, bool binary, Json::Value& reply);

// True when `pairKey` over `stamp` was made with the secret of the pairing between this server and its peer.
// Accepted once, and only near the stamp's time. Both texts come from the caller and may hold anything.
// Throws std::runtime_error when the pairings can't be read: a peer that was refused would take itself for
// unpaired.
bool IsAuthPairMatch(const std::string& pairKey, const std::string& stamp);

// The same check for a request that reaches this server across sites.
class SlaveRVAuthentication {
public:
    bool IsAuthByPairMatch(const std::string& pairKey, const std::string& stamp);
};
