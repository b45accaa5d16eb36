#pragma once

#include <string>
#include <utility>

#include <json/json.h>

#include "platform/korv/api_response.h"

namespace korv {

// What a method has answered so far, and the rule which answer counts: the first error, else the last
// success.
class Answer {
public:
    Answer() = default;
    virtual ~Answer() = default;
    Answer(const Answer&) = delete;
    Answer& operator=(const Answer&) = delete;

    void Success(const Json::Value& data);
    void Error(int code, const Json::Value& data);

    // Replaces whatever was answered by an error: the method broke off.
    void Abandon(int code);

    [[nodiscard]] bool IsGiven() const { return m_given; }
    [[nodiscard]] bool IsError() const { return m_given && m_code != kNoError; }
    [[nodiscard]] int Code() const { return m_code; }

private:
    static constexpr int kNoError = -1;

    // Replaces the rendered answer. `data` lives for the call only.
    virtual void RenderSuccess(const Json::Value& data) = 0;
    virtual void RenderError(int code, const Json::Value& data) = 0;

    bool m_given = false;
    int m_code = kNoError;
};

// An answer as the JSON text that a client gets.
class TextAnswer : public Answer {
public:
    [[nodiscard]] const std::string& Text() const { return m_text; }

    // Moves the text out; the answer is done with then.
    std::string TakeText() { return std::move(m_text); }

private:
    void RenderSuccess(const Json::Value& data) override;
    void RenderError(int code, const Json::Value& data) override;

    std::string m_text;
};

// The same answer as a value, for callers in this process.
class ValueAnswer : public Answer {
public:
    explicit ValueAnswer(Json::Value& value) : m_value(value) {}

private:
    void RenderSuccess(const Json::Value& data) override;
    void RenderError(int code, const Json::Value& data) override;

    Json::Value& m_value;
};

}  // namespace korv

// The response that a method sees writes into one answer, which outlives it.
struct KORV::APIResponse::State {
    korv::Answer& answer;
};
