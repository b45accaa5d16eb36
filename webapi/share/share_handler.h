#pragma once

#include <cstdint>
#include <list>
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

    void HandleListRecShare();
    int HandleCreateRecShare(CmsRelayParams& params, CmsRelayTarget& target, Json::Value& data);

    // Creates the shared folder `name` on the volume at `volPath` (with its leading slash). 0 or -1.
    int DoCreateShare(bool hidden, const std::string& name, const std::string& volPath,
                      const std::string& desc, bool encryption, const std::string& encPasswd);

    // Renames and reconfigures the shared folder `name`; `volume` is the volume's name without a slash. 0 or
    // -1.
    int DoEditShare(bool hidden, const std::string& volume, const std::string& name,
                    const std::string& newName, const std::string& desc, bool encryption,
                    const std::string& encPasswd);

    // Lets the application and the machine's administrators write into the shared folder `name`; takes no
    // right away from anyone. 0 or -1.
    int SetSharePermission(const std::string& name);

    // The account that the request counts as; "admin" for redirected requests and for recorders.
    std::string GetLoginUserName();

private:
    struct CreateRequest;
    struct ShareFacts;

    CreateRequest ReadCreateRequest(const CmsRelayParams& params);
    int PrepareCreateRelay(const CreateRequest& create, const CmsRelayParams& params, CmsRelayTarget& target);
    int CreateOrAdoptFolder(const CreateRequest& create);
    int CreateOnThisServer(const CreateRequest& create, ShareFacts& facts);
    void AnnounceCreatedShare(const CreateRequest& create);
    void LogRequest(const std::string& method, const char* function, int line);
    void AnswerUnlessFailed(const Json::Value& data);
};
