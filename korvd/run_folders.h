#pragma once

#include "korv/system/settings.h"

// The folders that the daemon, nginx and the workers write to; nothing is written elsewhere. Made when
// missing, owners and modes set in any case. Throws std::system_error when that fails.
//   stateDir          service user, 0700
//   stateDir/uploads  service user, 0700; emptied, since what is in it belongs to requests that are gone
//   logDir            root:adm, 0750
//   runDir            root and the service user's group, 0710 until OpenRunFolder: what root reads there
//   nobody
//                     else can change
//   runDir/nginx      nginx's user, 0700
//   runDir/service    service user, 0700
// The folder of Samba's include file is made when missing, for root, and left as it is otherwise.
void PrepareFolders(const korv::Settings& settings);

// Makes runDir when it is missing, and changes nothing of one that is there: another daemon may be using it.
void MakeRunFolder(const korv::Settings& settings);

// Shuts others out of runDir (0710) while nginx makes its sockets there with its own, wide mode.
void CloseRunFolder(const korv::Settings& settings);

// Lets others reach the sockets in runDir by name (0711), once these have their own modes.
void OpenRunFolder(const korv::Settings& settings);
