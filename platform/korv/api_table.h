#pragma once

#include <cstdint>

#include "platform/korv/api_request.h"
#include "platform/korv/api_response.h"

namespace KORV {

// An entry function of a module: answers one request. May throw; the framework catches at its edge.
using APIEntry = void (*)(APIRequest* request, APIResponse* response);

// One row of a module's method table: four machine words. A row whose fields are all null ends the table.
// Texts are NUL-terminated and live as long as the module is loaded.
struct APITableRow {
    const char* api;
    std::intptr_t version;
    const char* method;
    APIEntry entry;
};

static_assert(sizeof(APITableRow) == 4 * sizeof(void*), "a table row is four machine words");

// What a module exports as "GetAPITable": the first row of its table.
// Read by korv/framework/module_loader.cpp.
using GetAPITableFunction = const APITableRow* (*)();

}  // namespace KORV
