#include "tests/fake/world.h"

#include <unistd.h>

#include <functional>

#include "tests/fake/records.h"

namespace fake {

namespace {

using Answer = std::function<Json::Value(const World&, const Json::Value& args)>;
using Condition = std::function<bool(const Json::Value&)>;

const Json::Value* Find(const Json::Value& list, const Condition& fits) {
    for (const Json::Value& item : list) {
        if (fits(item)) {
            return &item;
        }
    }
    return nullptr;
}

Json::Value Filtered(const Json::Value& list, const Condition& fits) {
    Json::Value chosen(Json::arrayValue);
    for (const Json::Value& item : list) {
        if (fits(item)) {
            chosen.append(item);
        }
    }
    return chosen;
}

int Number(const Json::Value& record, const char* field) { return record.get(field, 0).asInt(); }

const Json::Value* FindById(const Json::Value& list, int id) {
    return Find(list, [id](const Json::Value& item) { return Number(item, "id") == id; });
}

Json::Value Loaded(const Json::Value* found, const char* member, int failure) {
    Json::Value reply;
    reply["result"] = found != nullptr ? 0 : failure;
    reply[member] = found != nullptr ? *found : Json::Value(Json::objectValue);
    return reply;
}

bool IsOnline(const Json::Value& server) { return Number(server, "status") == RV_STATUS_ONLINE; }

Json::Value SlaveIds(const World& world, const Json::Value& flags) {
    constexpr int kEnabledOnly = 0;
    constexpr int kOnlineOnly = 1;
    Json::Value ids(Json::arrayValue);
    for (const Json::Value& server : world.servers) {
        if ((!flags[kEnabledOnly].asBool() || server.get("enable", true).asBool()) &&
            (!flags[kOnlineOnly].asBool() || IsOnline(server))) {
            ids.append(Number(server, "id"));
        }
    }
    return ids;
}

Json::Value SharePaths(const World& world, int rvId) {
    Json::Value paths(Json::arrayValue);
    for (const Json::Value& share : world.shares) {
        if (Number(share, "ownerRvId") == rvId) {
            paths.append(share.get("path", ""));
        }
    }
    return paths;
}

Json::Value Shares(const World& world, int rvId) {
    return Filtered(world.shares, [rvId](const Json::Value& share) {
        return rvId == 0 || Number(share, "ownerRvId") == rvId;
    });
}

Json::Value Cameras(const World& world, int ownerRvId) {
    Json::Value reply;
    reply["cameras"] = Filtered(world.cameras, [ownerRvId](const Json::Value& camera) {
        return ownerRvId == CamFilterRule::kAnyRv || Number(camera, "ownerRvId") == ownerRvId;
    });
    reply["count"] = reply["cameras"].size();
    return reply;
}

std::string WithoutLastComponent(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    const std::size_t end = slash == std::string::npos ? slash : path.find_last_not_of('/', slash);
    return end == std::string::npos ? "" : path.substr(0, end + 1);
}

std::string Quoted(const std::string& text) {
    std::string quoted = "'";
    for (const char character : text) {
        quoted += character == '\'' ? "''" : std::string(1, character);
    }
    return quoted + "'";
}

using AnswerTable = std::map<std::string, Answer>;

AnswerTable CmsAnswers() {
    return {
        {"IsCmsHost", [](const World& world, const Json::Value&) { return world.cmsHost; }},
        {"IsCmsPaired", [](const World& world, const Json::Value&) { return world.cmsPaired; }},
        {"IsEnableCms", [](const World& world, const Json::Value&) { return world.cmsEnabled; }},
        {"GetRecServerOwnStatus", [](const World& world, const Json::Value&) { return world.ownStatus; }},
        {"SlaveRV::Load",
         [](const World& world, const Json::Value& args) {
             return Loaded(FindById(world.servers, args[0].asInt()), "server", -1);
         }},
        {"GetSlaveRVById",
         [](const World& world, const Json::Value& args) {
             return Loaded(FindById(world.servers, args[0].asInt()), "server", 1);
         }},
        {"SlaveRvGetList",
         [](const World& world, const Json::Value& args) {
             Json::Value reply;
             reply["result"] = 0;
             reply["servers"] = Filtered(world.servers, [&args](const Json::Value& server) {
                 return args[0].asInt() == 0 || Number(server, "id") == args[0].asInt();
             });
             return reply;
         }},
        {"GetSlaveRvIdList", SlaveIds},
        {"IsRvOnlineSts",
         [](const World&, const Json::Value& args) { return args[0].asInt() == RV_STATUS_ONLINE; }},
        {"IsRvOnline",
         [](const World& world, const Json::Value& args) {
             const Json::Value* server = FindById(world.servers, args[0].asInt());
             return server != nullptr && IsOnline(*server);
         }},
        {"IsRunTimeFailoverRv",
         [](const World& world, const Json::Value& args) {
             const Json::Value* server = FindById(world.servers, args[0].asInt());
             return server != nullptr && server->get("failover", false).asBool();
         }},
    };
}

std::string VolumeOf(const Json::Value& folder) { return folder.get("volume", "/volume1").asString(); }

const Json::Value* FindFolder(const World& world, const Json::Value& name) {
    return Find(world.folders, [&name](const Json::Value& folder) { return folder["name"] == name; });
}

// As the share service lists them.
Json::Value FolderList(const World& world) {
    Json::Value reply;
    reply["result"] = 0;
    reply["list"] = Json::Value(Json::arrayValue);
    for (const Json::Value& folder : world.folders) {
        Json::Value& listed = reply["list"].append(Json::objectValue);
        listed["name"] = folder["name"];
        listed["vol_path"] = VolumeOf(folder);
        if (folder.isMember("cow")) {
            listed["enable_share_cow"] = folder["cow"];
        }
    }
    return reply;
}

AnswerTable FolderAnswers() {
    return {
        {"GetLocalShareListByWebApi",
         [](const World& world, const Json::Value&) { return FolderList(world); }},
        {"KORVShareGet",
         [](const World& world, const Json::Value& args) {
             const Json::Value* folder = FindFolder(world, args[0]);
             Json::Value reply;
             reply["result"] = folder != nullptr ? 0 : -1;
             reply["path"] = folder != nullptr ? VolumeOf(*folder) + "/" + (*folder)["name"].asString() : "";
             return reply;
         }},
        {"KLIBShareUserRightGet",
         [](const World& world, const Json::Value& args) {
             const Json::Value* folder = FindFolder(world, args[1]);
             return folder != nullptr ? folder->get("rights", FolderSample()["rights"]).asInt() : -1;
         }},
        {"SDKFuncData::IsBtrfs",
         [](const World& world, const Json::Value& args) {
             return world.btrfsVolumes.count(args[0].asString()) > 0;
         }},
        {"ApplicationTraits", [](const World& world, const Json::Value&) { return world.applications; }},
        {"SlaveRVMgr::SlaveRVMgr",
         [](const World& world, const Json::Value& args) {
             return args[0].asBool() ? world.servers : Json::Value(Json::arrayValue);
         }},
    };
}

AnswerTable ApplicationAnswers() {
    return {
        {"IsExistDir",
         [](const World& world, const Json::Value& args) {
             return world.directories.count(args[0].asString()) > 0;
         }},
        {"IsFileExist", [](const World& world,
                           const Json::Value& args) { return world.files.count(args[0].asString()) > 0; }},
        {"GetBaseName",
         [](const World&, const Json::Value& args) {
             const std::string path = args[0].asString();
             return path.substr(path.rfind('/') + 1);
         }},
        {"GetCamLocalList",
         [](const World& world, const Json::Value&) { return Cameras(world, 0)["cameras"]; }},
        {"GetRecMigrateTmpFilePath",
         [](const World&, const Json::Value& args) {
             return "/migrations/" + std::to_string(args[0].asInt());
         }},
        {"RecShare::LoadByPath",
         [](const World& world, const Json::Value& args) {
             return Loaded(Find(world.shares,
                                [&args](const Json::Value& share) {
                                    return share.get("path", "") == args[0] &&
                                           Number(share, "ownerRvId") == args[1].asInt();
                                }),
                           "record", -1);
         }},
        {"GetDirPath",
         [](const World&, const Json::Value& args) { return WithoutLastComponent(args[0].asString()); }},
        {"IsPVRunning", [](const World& world, const Json::Value&) { return world.running; }},
        {"CamGetList",
         [](const World& world, const Json::Value& args) { return Cameras(world, args[0].asInt()); }},
        {"GetCamOwnerRvId",
         [](const World& world, const Json::Value& args) {
             const Json::Value* camera = FindById(world.cameras, args[0].asInt());
             return camera != nullptr ? Number(*camera, "ownerRvId") : -1;
         }},
        {"RecShare::Load",
         [](const World& world, const Json::Value& args) {
             return Loaded(FindById(world.shares, args[0].asInt()), "record", -1);
         }},
        {"RecShare::LoadByIdOnRec",
         [](const World& world, const Json::Value& args) {
             return Loaded(Find(world.shares,
                                [&args](const Json::Value& share) {
                                    return Number(share, "idOnRec") == args[0].asInt() &&
                                           Number(share, "ownerRvId") == args[1].asInt();
                                }),
                           "record", -1);
         }},
        {"LoadRecShareFromDB",
         [](const World& world, const Json::Value& args) { return Shares(world, args[0].asInt()); }},
        {"LoadRecSharePath",
         [](const World& world, const Json::Value& args) { return SharePaths(world, args[0].asInt()); }},
        {"PVDB::QuoteEscape",
         [](const World&, const Json::Value& args) { return Quoted(args[0].asString()); }},
        {"geteuid", [](const World& world, const Json::Value&) { return world.euid; }},
        {"getegid", [](const World& world, const Json::Value&) { return world.egid; }},
    };
}

const AnswerTable& Answers() {
    static const AnswerTable answers = [] {
        AnswerTable all = CmsAnswers();
        all.merge(ApplicationAnswers());
        all.merge(FolderAnswers());
        return all;
    }();
    return answers;
}

}  // namespace

Json::Value AnswerFromWorld(const World& world, const FunctionTraits& function, const Json::Value& args) {
    const auto found = Answers().find(function.name);
    return found != Answers().end() ? found->second(world, args) : function.benign;
}

LogConfigurationScope::LogConfigurationScope(const std::optional<LogSetting>& setting) {
    if (!setting) {
        g_pDbgLogCfg = nullptr;
        return;
    }
    for (const auto& [category, level] : setting->levelByCategory) {
        m_configuration.level[category] = level;
    }
    int row = 0;
    for (const auto& [pid, level] : setting->pids) {
        m_configuration.pidLevel[row].pid = pid == LogSetting::kThisProcess ? getpid() : pid;
        m_configuration.pidLevel[row].level = level;
        ++row;
    }
    m_configuration.pidCount = setting->pidCount.value_or(row);
    g_pDbgLogCfg = &m_configuration;
}

LogConfigurationScope::~LogConfigurationScope() { g_pDbgLogCfg = nullptr; }

}  // namespace fake
