#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <string>

#include <json/json.h>

#include "platform/pavane/rec_share.h"

#include "webapi/include/pvwebapihandler.h"

class ShareHandler;

using ShareAction = int (ShareHandler::*)(CmsRelayParams&, CmsRelayTarget&, Json::Value&);
using SharePreCheck = int (ShareHandler::*)(CmsRelayParams&);
using SharePostStep = int (ShareHandler::*)(CmsRelayParams&, CmsRelayTarget&, bool);

// What this source is called in log entries, whichever of its files speaks.
inline constexpr const char* kShareSource = "share";

// Writes an error entry of the share category, when the gate admits it.
#define PV_LOG_SHARE_ERR(function, ...) \
    PV_LOG_AT(LOG_CATEG_SHARE, LOG_LEVEL_ERR, kShareSource, __LINE__, function, __VA_ARGS__)

// Answers one request of the API "KORV.Pavane.Share". Made by an entry function for that request, on its
// stack. The Do... members call the NAS's own share service; a member that returns -1 has set the error code
// unless its comment says otherwise.
class ShareHandler : public PVWebAPIHandler<ShareHandler, ShareAction, SharePreCheck, SharePostStep> {
public:
    using PVWebAPIHandler::PVWebAPIHandler;
    ~ShareHandler() override = default;

    // Admit the caller, then answer by method name: those that act on this server only, and those that may be
    // relayed. They write the response.
    void HandleProcess();
    void HandleProcessRelay();

    void HandleList();
    void HandleListRecShare();
    void HandleListUsingCam();
    void HandleListShareUsage();
    void HandleListMountedFolder();
    void HandleReconnetRemoteMount();
    void HandleDecryptByFile();
    void HandleCheckStorageMigrating();
    int HandleCreateRecShare(CmsRelayParams& params, CmsRelayTarget& target, Json::Value& data);
    int HandleCreateRemoteRecShare(CmsRelayParams& params, CmsRelayTarget& target, Json::Value& data);
    int HandleEditRecShare(CmsRelayParams& params, CmsRelayTarget& target, Json::Value& data);
    int HandleDelRecShare(CmsRelayParams& params, CmsRelayTarget& target, Json::Value& data);

    // Creates the shared folder `name` on the volume at `volPath` (with its leading slash). 0 or -1.
    int DoCreateShare(bool hidden, const std::string& name, const std::string& volPath,
                      const std::string& desc, bool encryption, const std::string& encPasswd);

    // Renames and reconfigures the folder `name`; `volume` is the volume's name without a slash. 0 or -1.
    int DoEditShare(bool hidden, const std::string& volume, const std::string& name,
                    const std::string& newName, const std::string& desc, bool encryption,
                    const std::string& encPasswd);

    // Lets the application and administrators write into the folder `name`; nobody loses a right. 0 or -1.
    int SetSharePermission(const std::string& name);

    // Sorts the shares that a deletion names; reads only. Everything is added to what the caller passes in.
    //   list            array of {"shareId", "shareRvId", "sharePath"}
    //   usingCams       cameras that record into a listed share; a query that fails counts as one
    //   archiveTasks    archive tasks that write into a listed share
    //   recordIds       records to delete here
    //   ownPaths        folders of this server's own listed shares
    //   requestByRv     items to relay, by recording server
    //   shareNames      this server's local shared folders
    //   remoteMounts    array: mount points of this server's remote folders, the volume cut off
    // Once a share is in use nothing more is collected, but the counting goes on to the end.
    void InitDelDataList(const Json::Value& list, const CmsRelayParams& params, int& usingCams,
                         int& archiveTasks, std::list<int>& recordIds, std::list<std::string>& ownPaths,
                         std::map<int, Json::Value>& requestByRv, std::list<std::string>& shareNames,
                         Json::Value& remoteMounts);

    // Writes what a deletion relays: to the host the request itself, from a host one request per recording
    // server. 0, or -1 when a host has nothing to relay (no error set).
    int PrepareDeleteRemoteRelayParam(const std::map<int, Json::Value>& itemsByRv,
                                      const CmsRelayParams& params, CmsRelayTarget& target);

    // Deletes this server's shared folders and unmounts its remote ones, whatever the services answer.
    void DeleteShareAndUnmountRemote(const std::list<std::string>& shareNames,
                                     const Json::Value& remoteMounts);

    // Has the mount service mount the request's remote folder as the login user. 0, or -1, without an error
    // code for a type other than NFS or CIFS.
    int DoMount(SHARE_MOUNT_TYPE mountType);

    // Whether the mount point can become a recording share; mounts it first if asked to. As DoMount.
    int CheckShareAvailable();

    // The recording server that owns the share that the request makes; 0 = this server.
    int GetShareOwnerRvId(CmsRelayParams& params);

    // Writes what the creation of a remote share relays. 0, or -1 for a host's own share (no error set).
    int PrepareCreateRemoteRelayParam(int rvId, bool isCmsHost, CmsRelayTarget& target);

    // Append entries to result["usage"]: this server's (shareId -1 = all shares) and a recording server's
    // (rvId -1 = of every enabled one that is online; shareId as known there). False on failure.
    bool HandleLocalListShareUsage(Json::Value& result, int shareId);
    bool HandleRemoteListShareUsage(Json::Value& result, int rvId, int shareId);

    // The account that the request counts as; "admin" for redirected requests and for recorders.
    std::string GetLoginUserName();

private:
    struct CreateRequest;
    struct CreateRemoteRequest;
    struct EditRequest;
    struct DeletePlan;

    // What the record of a new share says about its folder beyond the request; nothing is known at first.
    struct ShareFacts {
        int idOnRec = 0;
        int fsType = FSTYPE_UNKNOWN;
        std::uint64_t totalSizeMB = 0;
        bool migrating = false;
        int encType = SHARE_ENC_NONE;
    };

    CreateRequest ReadCreateRequest(CmsRelayParams& params);
    int PrepareCreateRelay(const CreateRequest& create, const CmsRelayParams& params, CmsRelayTarget& target);
    int CreateOrAdoptFolder(const CreateRequest& create);
    int CreateOnThisServer(const CreateRequest& create, ShareFacts& facts);
    void AnnounceCreatedShare(const CreateRequest& create);
    static void ReadReportedFacts(const Json::Value& results, int ownerRvId, ShareFacts& facts);
    static void FillCreatedShare(const RecShare& share, Json::Value& data);
    int ReadCreateRemoteRequest(CmsRelayParams& params, CreateRemoteRequest& create);
    int AdoptMountPoint(const CreateRemoteRequest& create, ShareFacts& facts);
    bool ReadKeyFile(const std::string& file, const std::string& name, Json::Value& wanted);
    bool SendDecrypt(int rvId, Json::Value& wanted, Json::Value& reply);
    EditRequest ReadEditRequest();
    int PrepareEditRelay(const EditRequest& edit, const RecShare& share, const CmsRelayParams& params,
                         CmsRelayTarget& target);
    int EditFolder(const EditRequest& edit, const RecShare& share, const std::string& newPath);
    int EditHere(const EditRequest& edit, RecShare& share);
    bool IsDeletionRefused(const DeletePlan& plan);
    bool MayListCameras(int shareId);
    bool AskOwnerWhetherMigrating(const RecShare& share);
    static void FillUsingCams(int shareId, Json::Value& data);
    bool CollectShareUsage(Json::Value& result, int shareId);
    int DeletePlanned(const DeletePlan& plan, bool keepFolders);
    void AnnounceDeletedShares(const DeletePlan& plan);
    void LogRequest(const std::string& method, const char* function, int line);
    void AnswerUnlessFailed(const Json::Value& data);
};
