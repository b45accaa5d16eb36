#include "webapi/share/relay_params.h"

void FillShareRelayParam(CmsRelayTarget& target, bool blHideShare, bool blEncryption, bool blRecLimit,
                         int recLimitGB, const std::string& shareName, const std::string& description,
                         const std::string& encPasswd) {
    Json::Value& relayed = target.relayRequest;
    relayed["rvId"] = 0;
    relayed["blHideShare"] = blHideShare;
    relayed["blEncryption"] = blEncryption;
    relayed["blRecLimit"] = blRecLimit;
    relayed["recLimitGB"] = recLimitGB;
    relayed["shareName"] = shareName;
    relayed["description"] = description;
    relayed["encPasswd"] = encPasswd;
}
