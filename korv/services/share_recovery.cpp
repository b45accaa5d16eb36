#include "korv/services/share_recovery.h"

#include <string>
#include <vector>

#include "platform/korv/configuration.h"

#include "korv/framework/log.h"
#include "korv/system/cipher_password.h"
#include "korv/system/database.h"
#include "korv/system/samba_export.h"
#include "korv/system/share_creation.h"
#include "korv/system/share_removal.h"
#include "korv/system/share_rename.h"
#include "korv/system/share_rights.h"

namespace korv {

namespace {

void Log(const std::vector<std::string>& troubles) {
    for (const std::string& trouble : troubles) {
        LogLine("share recovery: " + trouble);
    }
}

void Export() {
    if (const std::string trouble = ExportSharesToSamba(); !trouble.empty()) {
        Log({trouble});
    }
}

}  // namespace

void RecoverDeadMakers() {
    const std::vector<std::string>& volumes = KORV::GetConfiguration().volumes;
    Log(RecoverShareCreations(volumes));
    const Recovery renames = RecoverShareRenames();
    Log(renames.troubles);
    const Recovery removals = RecoverShareRemovals(volumes);
    Log(removals.troubles);
    Log(RecoverShareGrants(volumes));
    if (renames.hasChangedShares || removals.hasChangedShares) {
        Export();
    }
}

void RecoverShares() {
    RecoverDeadMakers();
    Log(ClearLeftProofs());
    Export();
    CloseDatabase();
}

}  // namespace korv
