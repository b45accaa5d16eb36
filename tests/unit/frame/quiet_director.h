#pragma once

#include "tests/fake/director.h"
#include "tests/fake/world.h"

// Answers every platform call from a default world and forgets it.
class QuietDirector : public fake::Director {
public:
    Json::Value Reply(const fake::FunctionTraits& function, const Json::Value& args) override {
        return AnswerFromWorld(m_world, function, args);
    }
    void Read(const Json::Value&) override {}
    void Log(const fake::LogLine&) override {}
    void Answer(const Json::Value&) override {}
    void Misuse(const std::string&) override {}

private:
    fake::World m_world;
};
