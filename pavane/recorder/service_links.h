#pragma once

#include <list>
#include <string>

namespace pavane {

// A link in the application's link folder, <state folder>/links, through which other services reach a
// recording share of this server.
struct ServiceLink {
    std::string name;      // of the link and of the shared folder
    std::string path;      // where it leads
    bool inPlace = false;  // the link on the disk is there and leads there
};

// All that should be there, by name. Throws (pavane/store/database.h).
std::list<ServiceLink> ListServiceLinks();

// True when `name` can be a link's: one path component of at most 255 bytes, no control characters.
bool IsLinkName(const std::string& name);

}  // namespace pavane
