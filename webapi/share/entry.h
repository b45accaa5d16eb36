#pragma once

#include "platform/korv/api_table.h"

// What the module exports; see share.map.
extern "C" {

// The methods of this module, in the order of the interface; a null row ends the table.
extern const KORV::APITableRow gTable[];

// Gives the framework the table; its address stays valid while the module is loaded.
const KORV::APITableRow* GetAPITable();

// Answer one request each: methods that act on this server only, and methods that may be relayed to other
// servers. Exceptions of handlers pass through after the handler has been destroyed.
void Process(KORV::APIRequest* request, KORV::APIResponse* response);
void ProcessRelay(KORV::APIRequest* request, KORV::APIResponse* response);
}
