#pragma once

#include <string>

namespace korv {

// True when `name` may name a share: 1 to 64 bytes of well-formed UTF-8; no slash, no control character or
// line separator; no leading dot; no blank at either end; not "homes" or "NetBackup" in any case,
// nor a name that external shares have (external_share.h).
bool IsValidShareName(const std::string& name);

// What two names have in common when they differ in case only: Unicode's full case folding over the canonical
// decomposition, so that "STRASSE" equals "straße" and an accent typed as its own character equals one
// that is part of its letter. No locale takes part. For well-formed UTF-8.
std::string ShareNameKey(const std::string& name);

}  // namespace korv
