#pragma once

#include <map>
#include <string>
#include <vector>

#include "platform/korv/configuration.h"

namespace korv {

// The worker pools behind nginx.
struct WorkerSettings {
    int publicCount = 4;       // processes that serve clients
    int peerCount = 2;         // processes that serve paired servers
    int recycleAfter = 10000;  // requests after which a process is replaced
};

struct SessionSettings {
    int idle_s = 1800;        // a session ends when it was not used for so long
    int loginFailures = 10;   // failed logins of one address within the window that close it
    int loginWindow_s = 300;  // how long a failed login counts
    std::string pamService = "korv";
};

struct TlsSettings {
    std::string certificate;  // PEM files; both empty = no TLS
    std::string key;
};

struct NginxSettings {
    std::string binary = "/usr/sbin/nginx";
    std::string modulesDir = "/usr/lib/nginx/modules";
    std::string user = "www-data";
    int workers = 2;
    int connectionsPerAddress = 256;  // requests of one address served at the same time
    int requestsPerSecond = 2000;     // requests of one address
    int requestTimeout_s = 600;       // longest time that a method may take
};

// Everything that the configuration file says: the part that modules see, and the framework's own.
struct Settings {
    KORV::Configuration node;
    std::string listen = "127.0.0.1:5080";
    std::string consoleDir;  // static files of the console; empty = none
    WorkerSettings workers;
    SessionSettings session;
    TlsSettings tls;
    TlsSettings peerTls;  // made by korvd at its first start
    NginxSettings nginx;
    // Processors by the name of a task; "default" stands for the empty task name.
    std::map<std::string, std::vector<int>> affinity;
};

// Reads `yaml`; `defaultModuleDir` is put before module names without a slash.
// Throws std::runtime_error whose text names the key and what is wrong with it: unknown keys, wrong types and
// values out of range are errors.
Settings ParseSettings(const std::string& yaml, const std::string& defaultModuleDir);

// The settings of this process, read once; see KORV::GetConfiguration.
const Settings& GetSettings();

}  // namespace korv
