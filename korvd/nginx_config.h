#pragma once

#include <string>

#include "korv/system/settings.h"

// The text of nginx's configuration for these settings. Throws std::runtime_error when a value could not
// stand in it safely.
std::string NginxConfiguration(const korv::Settings& settings);
