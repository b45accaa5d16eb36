#include "korv/services/request_values.h"

#include "korv/framework/error_code.h"
#include "korv/framework/request_state.h"

namespace korv {

namespace {

void Require(bool isRight, const char* key, const char* type) {
    if (!isRight) {
        Json::throwLogicError(std::string(key) + " is not " + type);
    }
}

}  // namespace

std::string StringOf(const Json::Value& object, const char* key, const std::string& otherwise) {
    if (!object.isMember(key)) {
        return otherwise;
    }
    Require(object[key].isString(), key, "a text");
    return object[key].asString();
}

bool BoolOf(const Json::Value& object, const char* key, bool otherwise) {
    if (!object.isMember(key)) {
        return otherwise;
    }
    Require(object[key].isBool(), key, "true or false");
    return object[key].asBool();
}

Json::Value ObjectOf(const Json::Value& object, const char* key) {
    if (!object.isMember(key)) {
        return {Json::objectValue};
    }
    Require(object[key].isObject(), key, "an object");
    return object[key];
}

Json::Value ArrayOf(const Json::Value& object, const char* key) {
    if (!object.isMember(key)) {
        return {Json::arrayValue};
    }
    Require(object[key].isArray(), key, "an array");
    return object[key];
}

Json::Value ParamsOf(const KORV::APIRequest& request) {
    return request.GetParam("", Json::Value(Json::objectValue));
}

bool AdmitAdministrator(const KORV::APIRequest& request, KORV::APIResponse& response) {
    if (request.IsAuthorized() && request.IsAdmin()) {
        return true;
    }
    response.SetError(kErrorNotAllowed, Json::Value());
    return false;
}

bool AdmitAdministratorOrServer(const KORV::APIRequest& request, KORV::APIResponse& response) {
    return IsFromPairedServer(request) || AdmitAdministrator(request, response);
}

}  // namespace korv
