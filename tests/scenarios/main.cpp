// Runs scenario files: `scenario_runner [gtest options] [FILE|FOLDER ...]`. A folder stands for its own
// *.yaml files, in order of name; without any the folder of the source tree is meant. Ends with status 2 when
// a file isn't in the format.

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <map>

#include <gtest/gtest.h>

#include "tests/scenarios/case.h"
#include "tests/scenarios/run.h"
#include "tests/scenarios/yaml_file.h"

namespace {

class ScenarioTest : public testing::Test {
public:
    explicit ScenarioTest(const scenario::Case& script) : m_script(script) {}

    void TestBody() override {
        if (const std::string report = scenario::Judge(m_script); !report.empty()) {
            ADD_FAILURE_AT(m_script.file.c_str(), m_script.line) << m_script.sentence << "\n" << report;
        }
    }

private:
    const scenario::Case& m_script;
};

std::vector<std::string> FindFiles(const std::string& path) {
    if (!std::filesystem::is_directory(path)) {
        return {path};
    }
    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(path)) {
        if (entry.path().extension() == ".yaml") {
            files.push_back(entry.path().string());
        }
    }
    std::sort(files.begin(), files.end());
    if (files.empty()) {
        throw scenario::LoadError(path, 1, "the folder holds no *.yaml file");
    }
    return files;
}

void Register(const scenario::CaseFile& file) {
    for (const scenario::Case& script : file.cases) {
        testing::RegisterTest(file.suite.c_str(), scenario::ToIdentifier(script.sentence).c_str(), nullptr,
                              nullptr, script.file.c_str(), script.line,
                              [&script]() -> testing::Test* { return new ScenarioTest(script); });
    }
}

// The files stay loaded as long as the tests run.
std::map<std::string, scenario::CaseFile> LoadAll(const std::vector<std::string>& paths) {
    std::map<std::string, scenario::CaseFile> bySuite;
    for (const std::string& path : paths) {
        for (const std::string& file : FindFiles(path)) {
            scenario::CaseFile loaded = scenario::LoadCaseFile(file);
            const std::string suite = loaded.suite;
            if (!bySuite.emplace(suite, std::move(loaded)).second) {
                throw scenario::LoadError(file, 1, "another file has the same name");
            }
        }
    }
    return bySuite;
}

}  // namespace

int main(int argc, char** argv) {
    constexpr int kBadFile = 2;
    testing::InitGoogleTest(&argc, argv);
    std::vector<std::string> paths(argv + 1, argv + argc);
    if (paths.empty()) {
        paths.emplace_back(SCENARIO_FOLDER);
    }
    try {
        const std::map<std::string, scenario::CaseFile> files = LoadAll(paths);
        for (const auto& [suite, file] : files) {
            Register(file);
        }
        return RUN_ALL_TESTS();
    } catch (const std::exception& error) {
        std::cerr << error.what() << "\n";
        return kBadFile;
    }
}
