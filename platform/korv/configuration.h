#pragma once

#include <string>
#include <vector>

namespace KORV {

// This node's configuration; docs/ref/configuration.md describes the file. Paths are absolute.
struct Configuration {
    std::string stateDir;              // databases and everything that must survive a restart
    std::string runDir;                // sockets and process ids
    std::string logDir;                // log files
    std::string serviceUser;           // the account that workers lower their ids to
    std::vector<std::string> volumes;  // mount points that may hold shares, e.g. "/volume1"
    std::string database;              // application database: "sqlite" or a PostgreSQL connection string
    std::string sambaInclude;          // Samba include file that korv writes; empty = nothing is exported
    std::vector<std::string> modules;  // web API modules to load
    std::string peerListen;            // ADDRESS:PORT for paired servers, always TLS; empty = not reachable
    std::string peerAddress;           // "https://HOST:PORT" under which they reach it; empty = found out
    std::string peerCertificate;       // PEM file of the certificate that it shows there
    int peerAnswer_s = 38;             // longest time that a recording server may take for an answer
};

// The configuration of this process, read once from the file that the environment variable KORV_CONFIG names
// (/etc/pavane/pavane.yaml without it). Throws std::runtime_error with a clear text when it cannot be read.
// Implemented in korv/system/configuration.cpp.
const Configuration& GetConfiguration();

}  // namespace KORV
