#pragma once

#include <string>

namespace korv {

// Brings Samba's include file (KORV::GetConfiguration().sambaInclude) in step with the shares of korv.db and
// tells a running smbd. Does nothing without Samba on this machine or without such a file in the
// configuration. The file is replaced as a whole, after testparm has read it and found the very sections
// meant; several processes take turns. Returns what went wrong, for the log; the file is as it was then.
// Blocks for about 50 ms, at worst for the deadlines of testparm (5 s) and smbcontrol (2 s).
std::string ExportSharesToSamba();

// Disconnects Samba's clients from the share `name` and closes what they have open there; they connect anew
// by themselves. Does nothing without a running smbd. Returns what went wrong, for the log. Blocks for about
// 20 ms, at worst for smbcontrol's deadline (2 s).
std::string DisconnectFromSambaShare(const std::string& name);

}  // namespace korv
