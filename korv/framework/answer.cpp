#include "korv/framework/answer.h"

#include "korv/framework/json_text.h"
#include "korv/framework/log.h"

namespace korv {

void Answer::Success(const Json::Value& data) {
    if (IsError()) {
        LogLine("a success after error " + std::to_string(m_code) + " was ignored");
        return;
    }
    RenderSuccess(data);
    m_given = true;
}

void Answer::Error(int code, const Json::Value& data) {
    if (IsError()) {
        return;
    }
    RenderError(code, data);
    m_given = true;
    m_code = code;
}

void Answer::Abandon(int code) {
    RenderError(code, Json::Value());
    m_given = true;
    m_code = code;
}

void TextAnswer::RenderSuccess(const Json::Value& data) {
    m_text = R"({"success":true)";
    if (!data.isNull()) {
        m_text += R"(,"data":)";
        AppendJson(m_text, data);
    }
    m_text += '}';
}

void TextAnswer::RenderError(int code, const Json::Value& data) {
    m_text = R"({"success":false,"error":{"code":)" + std::to_string(code);
    if (data.isNull()) {
        m_text += "}}";
        return;
    }
    std::string text;
    AppendJson(text, data);
    m_text += R"(,"errors":)" + text + R"(},"data":)" + text + '}';
}

void ValueAnswer::RenderSuccess(const Json::Value& data) {
    m_value = Json::Value(Json::objectValue);
    m_value["success"] = true;
    if (!data.isNull()) {
        m_value["data"] = data;
    }
}

void ValueAnswer::RenderError(int code, const Json::Value& data) {
    m_value = Json::Value(Json::objectValue);
    m_value["success"] = false;
    m_value["error"]["code"] = code;
    if (!data.isNull()) {
        m_value["error"]["errors"] = data;
        m_value["data"] = data;
    }
}

}  // namespace korv
