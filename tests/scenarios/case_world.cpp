// The scripted calls of a case and the world around them.

#include <map>

#include "tests/fake/records.h"
#include "tests/scenarios/case_parts.h"

namespace scenario {

namespace {

Json::Value ReadRecords(const YamlNode& node, const Json::Value& sample) {
    Json::Value records(Json::arrayValue);
    node.ForEachItem([&](const YamlNode& item) {
        const Json::Value record = item.ToJson();
        if (const std::string wrong = fake::CheckRecord(record, sample); !wrong.empty()) {
            item.Fail(wrong);
        }
        records.append(record);
    });
    return records;
}

void ReadCms(const YamlNode& node, fake::World& world) {
    node.ForEachMember([&world](const std::string& name, const YamlNode& value) {
        if (name == "host") {
            world.cmsHost = value.Bool();
        } else if (name == "paired") {
            world.cmsPaired = value.Bool();
        } else if (name == "enabled") {
            world.cmsEnabled = value.Bool();
        } else if (name == "own_status") {
            world.ownStatus = value.Int();
        } else {
            value.Fail("cms has no '" + name + "'");
        }
    });
}

void ReadIds(const YamlNode& node, fake::World& world) {
    node.ForEachMember([&world](const std::string& name, const YamlNode& value) {
        if (name == "euid") {
            world.euid = value.Int();
        } else if (name == "egid") {
            world.egid = value.Int();
        } else {
            value.Fail("ids has no '" + name + "'");
        }
    });
}

std::pair<int, int> ReadPidLevel(const YamlNode& node) {
    const Json::Value pair = node.ToJson();
    const bool isSelf = pair.isArray() && pair.size() == 2 && pair[0] == "self";
    if (!pair.isArray() || pair.size() != 2 || !pair[1].isInt() || !(isSelf || pair[0].isInt())) {
        node.Fail("pids is a list of [process id or self, level]");
    }
    return {isSelf ? fake::LogSetting::kThisProcess : pair[0].asInt(), pair[1].asInt()};
}

void ReadLevels(const YamlNode& node, fake::LogSetting& setting) {
    node.ForEachMember([&setting](const std::string& category, const YamlNode& level) {
        int number = -1;
        try {
            number = std::stoi(category);
        } catch (const std::exception&) {
            number = -1;
        }
        if (number < 0 || number >= LOG_CATEG_COUNT) {
            level.Fail("a category is a number from 0 to 63");
        }
        setting.levelByCategory[number] = level.Int();
    });
}

std::optional<fake::LogSetting> ReadLogSetting(const YamlNode& node) {
    if (node.raw().IsScalar()) {
        if (node.Text() != "none") {
            node.Fail("log is none or a mapping");
        }
        return std::nullopt;
    }
    fake::LogSetting setting;
    node.ForEachMember([&setting](const std::string& name, const YamlNode& value) {
        if (name == "levels") {
            ReadLevels(value, setting);
        } else if (name == "pids") {
            value.ForEachItem(
                [&setting](const YamlNode& item) { setting.pids.push_back(ReadPidLevel(item)); });
        } else if (name == "pid_count") {
            setting.pidCount = value.Int();
        } else {
            value.Fail("log has no '" + name + "'");
        }
    });
    if (setting.pids.size() > DbgLogCfg::kMaxPids) {
        node.Fail("too many rows in pids");
    }
    return setting;
}

// A reply has the benign reply's members; what it leaves out stays as there.
Json::Value CompleteReply(const fake::FunctionTraits& function, const Json::Value& given,
                          const YamlNode& node) {
    const bool isFree = function.name == "KORV::APIRunner::Exec";
    if (isFree || function.benign.isArray()) {
        if (given.type() != function.benign.type()) {
            node.Fail(isFree ? "the reply is the other API's response, a mapping" : "the reply is a list");
        }
        return given;
    }
    if (!function.benign.isObject()) {
        if (!fake::IsSameKind(given, function.benign)) {
            node.Fail(function.name + " has no reply of this type");
        }
        return given;
    }
    if (!given.isObject()) {
        node.Fail("the reply is a mapping");
    }
    Json::Value complete = function.benign;
    for (const std::string& name : given.getMemberNames()) {
        if (!complete.isMember(name)) {
            node.Fail("the reply of " + function.name + " has no '" + name + "'");
        }
        const Json::Value& sample = function.benign[name];
        const bool isAnyJson = sample.isNull() || name == "reply" || name == "info" || name == "list";
        if (!isAnyJson && !fake::IsSameKind(given[name], sample)) {
            node.Fail("'" + name + "' in the reply has the wrong type");
        }
        complete[name] = given[name];
    }
    return complete;
}

// Where records stand in replies: under a member, or as the whole reply of a function.
struct RecordPlace {
    const char* name;
    Json::Value (*sample)();
};

constexpr RecordPlace kRecordMembers[] = {
    {"record", fake::RecShareSample}, {"server", fake::SlaveRVSample},       {"servers", fake::SlaveRVSample},
    {"cameras", fake::CameraSample},  {"partitions", fake::PartitionSample},
};
constexpr RecordPlace kRecordLists[] = {
    {"LoadRecShareFromDB", fake::RecShareSample},
    {"SlaveRVMgr::SlaveRVMgr", fake::SlaveRVSample},
    {"GetCamLocalList", fake::CameraSample},
    {"ApplicationTraits", fake::ApplicationSample},
};

// Records within a reply are held to the same fields as those of the given world.
void CheckRecordsInReply(const fake::FunctionTraits& function, const Json::Value& reply,
                         const YamlNode& node) {
    const auto check = [&node](const Json::Value& records, const RecordPlace& place) {
        for (const Json::Value& record : records.isArray() ? records : fake::Args(records)) {
            if (const std::string wrong = fake::CheckRecord(record, place.sample()); !wrong.empty()) {
                node.Fail(wrong);
            }
        }
    };
    for (const RecordPlace& place : kRecordLists) {
        if (function.name == place.name) {
            check(reply, place);
        }
    }
    for (const RecordPlace& place : kRecordMembers) {
        if (function.benign.isObject() && function.benign.isMember(place.name)) {
            check(reply[place.name], place);
        }
    }
}

ScriptedCall ReadCall(const YamlNode& node) {
    ScriptedCall call;
    call.line = node.line();
    call.args = Json::arrayValue;
    bool fails = false;
    std::optional<Json::Value> reply;
    node.ForEachMember([&](const std::string& name, const YamlNode& value) {
        if (name == "call") {
            call.function = fake::FindFunction(value.Text());
            if (call.function == nullptr) {
                value.Fail("there is no platform function '" + value.Text() + "'");
            }
        } else if (name == "args") {
            value.MustBeList();
            call.args = value.ToJson();
        } else if (name == "reply") {
            reply = value.ToJson();
        } else if (name == "fails") {
            fails = value.Bool();
        } else {
            value.Fail("a call has no '" + name + "'");
        }
    });
    if (call.function == nullptr) {
        node.Fail("which call?");
    }
    if (call.args.size() != call.function->argNames.size()) {
        node.Fail(call.function->name + " has " + std::to_string(call.function->argNames.size()) +
                  " arguments, not " + std::to_string(call.args.size()));
    }
    if (fails && (reply || !call.function->canFail)) {
        node.Fail("fails takes no reply, and a function that can fail");
    }
    call.reply = fails ? call.function->failing
                       : (reply ? CompleteReply(*call.function, *reply, node) : call.function->benign);
    CheckRecordsInReply(*call.function, call.reply, node);
    return call;
}

}  // namespace

fake::World ReadWorld(const YamlNode& node) {
    fake::World world;
    node.ForEachMember([&world](const std::string& name, const YamlNode& value) {
        if (name == "cms") {
            ReadCms(value, world);
        } else if (name == "ids") {
            ReadIds(value, world);
        } else if (name == "running") {
            world.running = value.Bool();
        } else if (name == "log") {
            world.log = ReadLogSetting(value);
        } else if (name == "files") {
            value.ForEachItem([&world](const YamlNode& item) { world.files.insert(item.Text()); });
        } else if (name == "directories") {
            value.ForEachItem([&world](const YamlNode& item) { world.directories.insert(item.Text()); });
        } else if (name == "shares") {
            world.shares = ReadRecords(value, fake::RecShareSample());
        } else if (name == "cameras") {
            world.cameras = ReadRecords(value, fake::CameraSample());
        } else if (name == "servers") {
            world.servers = ReadRecords(value, fake::SlaveRVSample());
        } else if (name == "folders") {
            world.folders = ReadRecords(value, fake::FolderSample());
        } else if (name == "applications") {
            world.applications = ReadRecords(value, fake::ApplicationSample());
        } else if (name == "btrfs") {
            value.ForEachItem([&world](const YamlNode& item) { world.btrfsVolumes.insert(item.Text()); });
        } else {
            value.Fail("given has no '" + name + "'");
        }
    });
    return world;
}

std::vector<ScriptedCall> ReadCalls(const YamlNode& node) {
    std::vector<ScriptedCall> calls;
    node.ForEachItem([&calls](const YamlNode& item) { calls.push_back(ReadCall(item)); });
    return calls;
}

}  // namespace scenario
