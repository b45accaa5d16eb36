#pragma once

#include "korv/system/settings.h"

// Writes <runDir>/nginx.conf (0600).
void WriteNginxConfiguration(const korv::Settings& settings);

// Ends an nginx that an earlier daemon left behind, found by its process id file and told from strangers by
// the configuration that it runs with. Returns when it is gone.
void EndOldNginx(const korv::Settings& settings);

// Replaces this process (a child just forked) by nginx. Returns only when that fails.
void ExecNginx(const korv::Settings& settings);

// True once nginx has its sockets: makes the notification socket the service user's alone then.
bool TakeNotifySocket(const korv::Settings& settings);
