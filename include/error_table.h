#pragma once

#include <string_view>

// What a client sees of an error: which API answers it, what it means, and what to do about it.
struct ErrorTableRow {
    const char* api;  // "" = every API
    int code;
    const char* meaning;
    const char* remedy;
};

// Every code that a web API of this system answers. docs/ref/errors.md is printed from it
// (`korvd --print-errors`), and the command line shows its texts. Sorted by API, then by code.
inline constexpr ErrorTableRow kErrorTable[] = {
    {"", 101, "The request is malformed.",
     "Send one JSON object with \"api\", \"version\" and \"method\" and parameters of the documented types."},
    {"", 102, "No loaded module has this API in this version.",
     "Check the API's name and version, and whether its module is listed under `modules` in the "
     "configuration."},
    {"", 105, "The caller may not do this.",
     "Log in with an account that has the privilege, or ask an administrator to grant it."},
    {"", 107, "The session has ended, or the CSRF token is missing or wrong.", "Log in again."},
    {"", 110, "The server failed while it worked on the request.",
     "Look into korvd.log on the server; report it if it stays."},
    {"", 111, "The server is busy or starting, or too many logins from this address have failed.",
     "Try again later."},
    {"", 401, "The API has no such method, or a parameter is missing or invalid.",
     "Check the method's name and its parameters."},

    {"KORV.Core.AppPriv", 3310, "There is no such account.", "Check the account's name."},
    {"KORV.Core.AppPriv", 3311, "The name is not that of an application.",
     "Use 1 to 64 letters, digits, dots, hyphens and underscores."},
    {"KORV.Core.AppPriv", 3312, "The address range can't be read.",
     "Give an IPv4 or IPv6 address, or a range such as 192.0.2.0/24."},
    {"KORV.Core.AppPriv", 3313, "There is no such grant.", "List the grants and name one exactly."},

    {"KORV.Core.Session", 400, "The account or the password is wrong.", "Check both and try again."},

    {"KORV.Core.Share", 3300, "The shared folder could not be made or read.",
     "Look into korvd.log on the server for the reason."},
    {"KORV.Core.Share", 3301, "A shared folder of this name exists already.",
     "Choose another name; letter case makes no difference."},
    {"KORV.Core.Share", 3302, "The name is not allowed for a shared folder.",
     "Use 1 to 64 bytes without slashes and control characters, no dot or blank first, no blank last, not "
     "\"homes\" or \"NetBackup\"."},
    {"KORV.Core.Share", 3303, "There is no such shared folder.",
     "List the shared folders and use one of their names."},
    {"KORV.Core.Share", 3304, "The volume is unknown or can't be written.",
     "List the volumes; check that it is mounted and not read-only."},
    {"KORV.Core.Share", 3305, "The shared folder is in use.", "Stop what uses it and try again."},
    {"KORV.Core.Share", 3306, "There is no space left on the volume.",
     "Free space on it or choose another volume."},
    {"KORV.Core.Share", 3328, "The encryption was refused.",
     "Check the password, and whether the volume can hold encrypted folders."},

    {"KORV.Core.Share.Permission", 3300, "The rights could not be changed.",
     "Look into korvd.log on the server for the reason."},
    {"KORV.Core.Share.Permission", 3303, "There is no such shared folder.",
     "List the shared folders and use one of their names."},
    {"KORV.Core.Share.Permission", 3304, "The volume of the shared folder can't be written.",
     "Check that it is mounted and not read-only."},
    {"KORV.Core.Share.Permission", 3306, "There is no space left on the volume.", "Free space on it."},
    {"KORV.Core.Share.Permission", 3307, "There is no such user or group; \"name\" tells which.",
     "Check the name, and whether a user or a group was meant."},
    {"KORV.Core.Share.Permission", 3308, "This right can't be granted; \"name\" tells to whom.",
     "Ask for reading or writing; access can't be denied to someone, only not granted."},
    {"KORV.Core.Share.Permission", 3309, "The kind of user or group is unknown.",
     "Use \"system\", \"local_user\" or \"local_group\"."},

    {"KORV.Pavane.CMS", 400, "The records of paired servers could not be read or changed.",
     "Look into pavane.log on the server for the reason."},
    {"KORV.Pavane.CMS", 460, "The role of a server does not allow this.",
     "Only a host manages recording servers; a server has one host at most, and a host has none."},
    {"KORV.Pavane.CMS", 461, "The other server can't be reached.",
     "Check its address, and that its configuration has `peer.listen`."},
    {"KORV.Pavane.CMS", 462, "The other server shows another key than expected; nothing was sent to it.",
     "Compare the fingerprint with the one that `pavane server status` prints on that server."},
    {"KORV.Pavane.CMS", 463, "The other server refused the account.",
     "Use the account and the password of an administrator of that server."},
    {"KORV.Pavane.CMS", 464, "The other server refused the pairing.",
     "It is a host itself or paired with another host; end that first (`pavane server leave` there)."},
    {"KORV.Pavane.CMS", 465, "There is no such recording server.",
     "List the servers and use one of their ids."},
    {"KORV.Pavane.CMS", 466, "This server has no listener for paired servers.",
     "Set `peer.listen` in its configuration and restart it."},
    {"KORV.Pavane.CMS", 467, "The other server's answer can't be understood.",
     "Check that it is a recorder, and of this version."},

    {"KORV.Pavane.Camera", 400, "The cameras could not be stored or read.",
     "Look into pavane.log on the server for the reason."},
    {"KORV.Pavane.Event", 400, "The events could not be read.",
     "Look into pavane.log on the server for the reason."},
    {"KORV.Pavane.Log", 400, "The log configuration could not be read or changed.",
     "Look into pavane.log on the server for the reason."},
    {"KORV.Pavane.Service", 400, "The service links or backup folders could not be read.",
     "Look into pavane.log on the server for the reason."},

    {"KORV.Pavane.Share", 400,
     "An operation of the application failed: its database, a file or a server's record.",
     "Look into pavane.log on the server for the reason."},
    {"KORV.Pavane.Share", 405,
     "A relayed command came from a server that is not an enabled recording server.",
     "Enable the recording server on the host, or pair it again."},
    {"KORV.Pavane.Share", 406, "A recording server can't be reached.",
     "Check that every recording server concerned is online, then try again."},
    {"KORV.Pavane.Share", 442, "The shared folder could not be made, permitted or adopted.",
     "Check the name and the volume, and that the folder is not a recording share already."},
    {"KORV.Pavane.Share", 443, "The folder exists already.", "Choose another name."},
    {"KORV.Pavane.Share", 526, "The encryption of the shared folder was refused.",
     "Check the password, and whether the volume can hold encrypted folders."},
};

// The row for a code that `api` answered: its own, else that of every API, else null.
constexpr const ErrorTableRow* FindError(std::string_view api, int code) {
    const ErrorTableRow* common = nullptr;
    for (const ErrorTableRow& row : kErrorTable) {
        if (row.code == code && api == row.api) {
            return &row;
        }
        if (row.code == code && *row.api == '\0') {
            common = &row;
        }
    }
    return common;
}
