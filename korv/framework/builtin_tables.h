#pragma once

#include <array>

#include "platform/korv/api_table.h"

// The method tables that libkorv itself brings; each is defined beside its methods.
namespace korv {

const KORV::APITableRow* SessionTable();  // korv/framework/session_api.cpp

inline std::array<const KORV::APITableRow*, 1> BuiltInTables() { return {SessionTable()}; }

}  // namespace korv
