#pragma once

#include <vector>

#include "tests/scenarios/case.h"
#include "tests/scenarios/yaml_file.h"

// The members of a case. Each throws LoadError when the node isn't exactly in the format.
namespace scenario {

Json::Value ReadObject(const YamlNode& node);
KORV::APIRequest::State ReadRequest(const YamlNode& node);
fake::World ReadWorld(const YamlNode& node);
std::vector<ScriptedCall> ReadCalls(const YamlNode& node);
std::vector<std::string> ReadNever(const YamlNode& node);
std::vector<Json::Value> ReadReads(const YamlNode& node);
std::vector<ExpectedLog> ReadLog(const YamlNode& node);
std::vector<ExpectedAnswer> ReadAnswers(const YamlNode& node);
ErrorState ReadErrorState(const YamlNode& node);
std::vector<Tolerated> ReadTolerates(const YamlNode& node);

}  // namespace scenario
