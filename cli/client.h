#pragma once

#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>

#include <json/json.h>

#include "cli/session_file.h"

namespace cli {

// The server answered a request with an error.
class Refused : public std::runtime_error {
public:
    Refused(std::string refusingApi, int errorCode, Json::Value errorDetails);

    std::string api;
    int code;
    Json::Value details;  // what came with the code, e.g. "param1"; may be null
};

// No answer, or one that is not this server's.
class Unreachable : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// One line of JSON as it is sent: bytes of texts unchanged, so that the server judges them.
std::string RequestText(const Json::Value& value);

// The web API of one server, with the session that the session file holds for it.
// Not safe for use from several threads. Blocks until the answer is there.
class Client {
public:
    // `certificateFile` names the authorities to trust for https; empty = the machine's own.
    Client(std::string url, std::string certificateFile, SessionFile sessions);

    // Calls version 1 of a method and returns the answer's "data". Throws Refused or Unreachable.
    Json::Value Call(const std::string& api, const std::string& method,
                     const Json::Value& parameters = Json::Value(Json::objectValue));

    // All of a paged list: the rows of `list`, as the method names them, and their "total". Rows that come
    // while the pages are fetched may be missing.
    Json::Value CallForAll(const std::string& api, const std::string& method, const std::string& list);

    // As Call, with a file's content as the upload `part`, whose name becomes a parameter.
    Json::Value CallWithFile(const std::string& api, const std::string& method, const Json::Value& parameters,
                             const std::string& part, const std::string& file);

    // Logs in and stores the session; returns the answer's "data" without the token.
    Json::Value Login(const std::string& account, const std::string& password);
    // Ends the session on the server and forgets it here, also when the server knows it no more.
    void Logout();

    // Passes the stream of GET /events piece by piece to `take` until it returns false or the server closes
    // the connection. `lastId` is the id of the last event seen, empty for none. Throws as Call.
    void ReadEvents(const std::string& lastId, const std::function<bool(std::string_view)>& take);

private:
    std::string m_url;
    std::string m_certificateFile;
    SessionFile m_sessions;
    Session m_session;
};

}  // namespace cli
