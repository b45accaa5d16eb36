// "KORV.Pavane.CMS", what servers ask of each other: pairing, state, records.

#include <string>

#include "pavane/cms/pairing.h"
#include "pavane/cms/peer_address.h"
#include "pavane/cms/record_drift.h"
#include "pavane/cms/server_key.h"
#include "pavane/cms/server_registry.h"
#include "pavane/cms/server_state.h"
#include "pavane/webapi/api_call.h"
#include "pavane/webapi/cms_error.h"
#include "pavane/webapi/methods.h"

namespace pavane {

namespace {

std::string PlainText(const KORV::APIRequest& request, const char* name) {
    constexpr std::size_t kLongest = 255;
    const Json::Value value = request.GetParam(name, Json::Value());
    if (!value.isString() || value.asString().empty() || value.asString().size() > kLongest ||
        !IsPlainText(value.asString())) {
        throw BadParameter(name, "must be a text of 1 to 255 bytes");
    }
    return value.asString();
}

Json::Value SelfDescription() {
    Json::Value data(Json::objectValue);
    data["serial"] = OwnSerial();
    data["name"] = OwnName();
    data["version"] = PAVANE_VERSION;
    return data;
}

}  // namespace

// Called once by the host that pairs this server, in the session of an administrator of this one.
Json::Value CmsJoinMethod(const KORV::APIRequest& request) {
    HostRecord host;
    host.serial = PlainText(request, "serial");
    host.name = PlainText(request, "name");
    host.address = PlainText(request, "address");
    const PairingProof proof{PlainText(request, "secret"), PlainText(request, "fingerprint")};
    if (!IsPeerAddress(host.address)) {
        throw BadParameter("address", "must be https://HOST:PORT");
    }
    if (!IsFingerprint(proof.pinnedKey)) {
        throw BadParameter("fingerprint", "must be \"sha256//\" and 44 characters of base64");
    }
    if (proof.secret.size() != 2 * kSecretBytes) {
        throw BadParameter("secret", "has the wrong length");
    }
    const auto known = PairedHost();
    if (GetCmsRole() == CmsRole::kHost || host.serial == OwnSerial() ||
        (known && known->serial != host.serial)) {
        throw MethodFailure(kCmsWrongRole);
    }
    StoreHost(host, proof);
    return SelfDescription();
}

// Ends the pairing from this side alone; the host finds out by itself.
Json::Value CmsLeaveMethod(const KORV::APIRequest& /*request*/) {
    if (GetCmsRole() != CmsRole::kRecServer) {
        throw MethodFailure(kCmsWrongRole);
    }
    ForgetHost();
    return {};
}

// The host ends the pairing.
Json::Value CmsDismissMethod(const KORV::APIRequest& request) { return CmsLeaveMethod(request); }

Json::Value CmsPingMethod(const KORV::APIRequest& request) {
    Json::Value data = SelfDescription();
    if (request.GetParam("wayBack", false).asBool() && GetCmsRole() == CmsRole::kRecServer) {
        const ServerState host = AskServer(0, false);
        NoteHostState(host.problem, host.answered);
        data["back"] = host.problem;
    }
    return data;
}

Json::Value CmsListRecordsMethod(const KORV::APIRequest& /*request*/) {
    Json::Value data(Json::objectValue);
    data["records"] = OwnRecords();
    return data;
}

}  // namespace pavane
