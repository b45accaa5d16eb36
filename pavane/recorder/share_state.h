#pragma once

#include <list>
#include <string>

#include "platform/pavane/rec_share.h"

namespace pavane {

// How often RefreshShareStates should run.
constexpr int kShareStateInterval_s = 3;

// Brings what this server's records say about encryption and about data being moved in step with the shared
// folders: those change by themselves, when a job ends or somebody locks a folder. A record whose folder was
// renamed without it, since who did both died in between, follows: name, path, description and whether it is
// hidden become the folder's. A remote share on whose folder nothing is mounted becomes abnormal. Tells
// connected clients when something has changed. Returns whether it has; failures are logged.
bool RefreshShareStates();

// As LoadRecShareFromDB, but throws (pavane/store/database.h): for whoever must not take a failure for no
// shares.
std::list<RecShare> ReadRecSharesInStep(int rvId);

// Notes that data of this server's local share `name` is being moved, until a refresh finds that over; until
// then every load of the records begins with a refresh. A failure is logged.
void NoteMove(const std::string& name);

}  // namespace pavane
