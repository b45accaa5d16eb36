#pragma once

#include "korv/system/settings.h"

// Makes what is missing of the key and the certificate that this server shows to paired servers: an elliptic
// key (P-256) in a file that only root can read, and a certificate signed with it, for anyone to read. Peers
// remember the key, so it stays the same as long as its file. Throws std::runtime_error.
void MakePeerCertificate(const korv::TlsSettings& files);
