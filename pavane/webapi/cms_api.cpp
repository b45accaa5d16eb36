// "KORV.Pavane.CMS", the side of the host: which recording servers it manages.

#include <optional>
#include <string>

#include "platform/korv/configuration.h"
#include "platform/pavane/events.h"

#include "pavane/cms/pairing.h"
#include "pavane/cms/peer_address.h"
#include "pavane/cms/record_drift.h"
#include "pavane/cms/remote_session.h"
#include "pavane/cms/server_key.h"
#include "pavane/cms/server_registry.h"
#include "pavane/cms/server_state.h"
#include "pavane/webapi/api_call.h"
#include "pavane/webapi/cms_error.h"
#include "pavane/webapi/methods.h"

namespace pavane {

namespace {

constexpr int kErrorNotAllowed = 105;
constexpr int kRecordsWait_s = 15;

std::string RequiredText(const KORV::APIRequest& request, const char* name) {
    constexpr std::size_t kLongest = 1024;
    const Json::Value value = request.GetParam(name, Json::Value());
    if (!value.isString() || value.asString().empty() || value.asString().size() > kLongest) {
        throw BadParameter(name, "must be a text of 1 to 1024 bytes");
    }
    return value.asString();
}

std::string RequiredAddress(const KORV::APIRequest& request, const char* name) {
    std::string address = RequiredText(request, name);
    if (!IsPeerAddress(address)) {
        throw BadParameter(name, "must be https://HOST:PORT");
    }
    return address;
}

RecServerRecord RequiredServer(const KORV::APIRequest& request) {
    const auto server = FindRecServer(request.GetParam("id", 0).asInt());
    if (!server) {
        throw MethodFailure(kCmsNoSuchServer);
    }
    return *server;
}

[[noreturn]] void FailAs(SendFailure reason) {
    switch (reason) {
        case SendFailure::kKeyChanged:
            throw MethodFailure(kCmsKeyDiffers);
        case SendFailure::kBadAnswer:
            throw MethodFailure(kCmsBadAnswer);
        default:
            throw MethodFailure(kCmsUnreachable);
    }
}

const char* StatusName(int status) {
    switch (status) {
        case RV_STATUS_ONLINE:
            return "online";
        case RV_STATUS_UNPAIRED:
            return "unpaired";
        case RV_STATUS_VERSION_DIFFERS:
            return "version differs";
        default:
            return "offline";
    }
}

Json::Value ToElement(const RecServerRecord& server) {
    Json::Value element(Json::objectValue);
    element["id"] = server.id;
    element["serial"] = server.serial;
    element["name"] = server.name;
    element["address"] = server.address;
    element["enabled"] = server.enabled;
    element["status"] = server.status;
    element["statusName"] = StatusName(server.status);
    element["problem"] = server.problem;
    element["version"] = server.version;
    element["standby"] = server.standby;
    element["takenOver"] = server.takenOver;
    element["checkedTime"] = Json::Int64{server.checked_s};
    element["seenTime"] = Json::Int64{server.seen_s};
    return element;
}

const char* RoleName(CmsRole role) {
    switch (role) {
        case CmsRole::kHost:
            return "host";
        case CmsRole::kRecServer:
            return "rec_server";
        case CmsRole::kNone:
            break;
    }
    return "none";
}

// What the other server keeps of the pairing.
Json::Value JoinParameters(const std::string& secret, const std::string& ownAddress) {
    Json::Value parameters(Json::objectValue);
    parameters["serial"] = OwnSerial();
    parameters["name"] = OwnName();
    parameters["address"] = ownAddress;
    parameters["fingerprint"] = OwnFingerprint();
    parameters["secret"] = secret;
    return parameters;
}

std::string TextOf(const Json::Value& data, const char* key) {
    constexpr std::size_t kLongest = 255;
    if (!data.isObject() || !data[key].isString() || data[key].asString().size() > kLongest ||
        !IsPlainText(data[key].asString())) {
        throw MethodFailure(kCmsBadAnswer);
    }
    return data[key].asString();
}

// Logs in to the other server, leaves it the pairing and takes what it answers. Throws MethodFailure.
RecServerRecord Join(const std::string& address, const std::string& fingerprint, const std::string& account,
                     const std::string& password, const std::string& secret) {
    try {
        RemoteSession session(address, fingerprint);
        if (session.Login(account, password) != 0) {
            throw MethodFailure(kCmsLoginRefused);
        }
        const Json::Value answer =
            session.Call(kCmsApi, "join", JoinParameters(secret, OwnPeerAddress(session.LocalIp())));
        const int code = CodeOf(answer);
        if (code != 0) {
            throw MethodFailure(code == kErrorNotAllowed ? kCmsLoginRefused : kCmsPairingRefused);
        }
        RecServerRecord server;
        server.address = address;
        server.serial = TextOf(answer["data"], "serial");
        server.name = TextOf(answer["data"], "name");
        server.version = TextOf(answer["data"], "version");
        return server;
    } catch (const RemoteFailure& failure) {
        FailAs(failure.Reason());
    }
}

// What one server's records lack, or hold too much.
Json::Value DriftElement(int rvId, const Drift& drift) {
    const bool isStale = drift.kind == DriftKind::kStale;
    const RecShare& share = isStale ? drift.atHost : drift.wanted;
    Json::Value element(Json::objectValue);
    element["rvId"] = rvId;
    element["kind"] = drift.kind == DriftKind::kMissing ? "missing" : isStale ? "stale" : "differs";
    element["shareId"] = drift.atHost.GetId();
    element["shareIdOnRec"] = share.GetIdOnRec();
    element["sharePath"] = share.GetPath();
    Json::Value fields(Json::arrayValue);
    for (const std::string& field : drift.fields) {
        fields.append(field);
    }
    element["fields"] = fields;
    if (!isStale) {  // as the recording server has it
        element["encType"] = static_cast<int>(share.GetEncType());
        element["migrating"] = share.GetMigrating();
    }
    return element;
}

// The drift of one server; nothing when it could not be asked. Throws Json::Exception.
std::optional<std::vector<Drift>> DriftOf(int rvId) {
    Json::Value request(Json::objectValue);
    request["api"] = kCmsApi;
    request["version"] = 1;
    request["method"] = "list_records";
    Json::Value reply;
    if (SendToPaired(rvId, request, kRecordsWait_s, reply).failure != SendFailure::kNone ||
        CodeOf(reply) != 0 || !reply["data"].isObject() || !reply["data"]["records"].isArray()) {
        return std::nullopt;
    }
    return FindDrift(rvId, reply["data"]["records"]);
}

// Adds to `result` what is to be said about one server, and repairs it if wanted.
void CheckServer(const RecServerRecord& server, bool repairs, Json::Value& result) {
    Json::Value element(Json::objectValue);
    element["id"] = server.id;
    std::optional<std::vector<Drift>> drifts;
    try {
        drifts = DriftOf(server.id);
    } catch (const Json::Exception&) {
        drifts = std::nullopt;
    }
    element["answered"] = drifts.has_value();
    if (drifts) {
        element["repaired"] = repairs && !drifts->empty() && RepairDrift(*drifts);
        for (const Drift& drift : *drifts) {
            result["differences"].append(DriftElement(server.id, drift));
        }
    }
    result["servers"].append(element);
}

Json::Value Check(const KORV::APIRequest& request, bool repairs) {
    if (GetCmsRole() != CmsRole::kHost) {
        throw MethodFailure(kCmsWrongRole);
    }
    const int id = request.GetParam("id", 0).asInt();
    const std::vector<RecServerRecord> servers =
        id == 0 ? ListRecServers() : std::vector<RecServerRecord>{RequiredServer(request)};
    Json::Value result(Json::objectValue);
    result["servers"] = Json::Value(Json::arrayValue);
    result["differences"] = Json::Value(Json::arrayValue);
    for (const RecServerRecord& server : servers) {
        CheckServer(server, repairs, result);
    }
    if (repairs && !result["differences"].empty()) {
        PVClientNotify::Notify(CLIENT_NOTIFY_REC_SHARE);
    }
    return result;
}

}  // namespace

Json::Value CmsStatusMethod(const KORV::APIRequest& /*request*/) {
    const CmsRole role = GetCmsRole();
    Json::Value data(Json::objectValue);
    data["role"] = RoleName(role);
    data["serial"] = OwnSerial();
    data["name"] = OwnName();
    data["version"] = PAVANE_VERSION;
    data["fingerprint"] = OwnFingerprint();
    data["reachable"] = !KORV::GetConfiguration().peerListen.empty();
    const auto host = PairedHost();
    if (role == CmsRole::kRecServer && host) {
        data["host"]["serial"] = host->serial;
        data["host"]["name"] = host->name;
        data["host"]["address"] = host->address;
        data["host"]["problem"] = host->problem;
        data["host"]["checkedTime"] = Json::Int64{host->checked_s};
        data["host"]["seenTime"] = Json::Int64{host->seen_s};
    }
    return data;
}

Json::Value CmsSetRoleMethod(const KORV::APIRequest& request) {
    const std::string role = RequiredText(request, "role");
    if (role != "host" && role != "none") {
        throw BadParameter("role", "must be \"host\" or \"none\"");
    }
    if (GetCmsRole() == CmsRole::kRecServer) {
        throw MethodFailure(kCmsWrongRole);
    }
    SetCmsRole(role == "host" ? CmsRole::kHost : CmsRole::kNone);
    return {};
}

Json::Value CmsFingerprintMethod(const KORV::APIRequest& request) {
    const std::string fingerprint = ShownFingerprint(RequiredAddress(request, "address"));
    if (fingerprint.empty()) {
        throw MethodFailure(kCmsUnreachable);
    }
    Json::Value data(Json::objectValue);
    data["fingerprint"] = fingerprint;
    return data;
}

Json::Value CmsAddMethod(const KORV::APIRequest& request) {
    const std::string address = RequiredAddress(request, "address");
    const std::string account = RequiredText(request, "account");
    const std::string password = RequiredText(request, "passwd");
    const std::string fingerprint = RequiredText(request, "fingerprint");
    if (!IsFingerprint(fingerprint)) {
        throw BadParameter("fingerprint", "must be \"sha256//\" and 44 characters of base64");
    }
    if (KORV::GetConfiguration().peerListen.empty()) {
        throw MethodFailure(kCmsNoListener);
    }
    if (GetCmsRole() == CmsRole::kRecServer) {
        throw MethodFailure(kCmsWrongRole);
    }
    const std::string secret = RandomHex(kSecretBytes);
    const RecServerRecord joined = Join(address, fingerprint, account, password, secret);
    const int id = StoreRecServer(joined, {secret, fingerprint});
    SetCmsRole(CmsRole::kHost);
    const ServerState state = RefreshRecServer(id, true);
    Json::Value data = ToElement(*FindRecServer(id));
    data["wayBack"] = state.back;
    return data;
}

// A server that can't be told is forgotten all the same; an administrator there ends its side with "leave".
Json::Value CmsRemoveMethod(const KORV::APIRequest& request) {
    const RecServerRecord server = RequiredServer(request);
    Json::Value leave(Json::objectValue);
    leave["api"] = kCmsApi;
    leave["version"] = 1;
    leave["method"] = "dismiss";
    Json::Value reply;
    constexpr int kWait_s = 10;
    const bool isTold =
        SendToPaired(server.id, leave, kWait_s, reply).failure == SendFailure::kNone && CodeOf(reply) == 0;
    if (!RemoveRecServer(server.id)) {
        throw MethodFailure(kCmsNoSuchServer);
    }
    PVClientNotify::Notify(CLIENT_NOTIFY_REC_SHARE);
    Json::Value data(Json::objectValue);
    data["told"] = isTold;
    return data;
}

Json::Value CmsListMethod(const KORV::APIRequest& /*request*/) {
    Json::Value list(Json::arrayValue);
    for (const RecServerRecord& server : ListRecServers()) {
        list.append(ToElement(server));
    }
    Json::Value data(Json::objectValue);
    data["total"] = list.size();
    data["servers"] = list;
    return data;
}

Json::Value CmsEnableMethod(const KORV::APIRequest& request) {
    SetRecServerEnabled(RequiredServer(request).id, true);
    return {};
}

Json::Value CmsDisableMethod(const KORV::APIRequest& request) {
    SetRecServerEnabled(RequiredServer(request).id, false);
    return {};
}

Json::Value CmsSetFailoverMethod(const KORV::APIRequest& request) {
    const RecServerRecord server = RequiredServer(request);
    SetRecServerFailover(server.id, request.GetParam("standby", server.standby).asBool(),
                         request.GetParam("takenOver", server.takenOver).asBool());
    return {};
}

Json::Value CmsCheckMethod(const KORV::APIRequest& request) { return Check(request, false); }

Json::Value CmsRepairMethod(const KORV::APIRequest& request) { return Check(request, true); }

}  // namespace pavane
