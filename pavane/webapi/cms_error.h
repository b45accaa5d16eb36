#pragma once

namespace pavane {

// What "KORV.Pavane.CMS" answers; include/error_table.h tells what each means.
enum CmsError : int {
    kCmsWrongRole = 460,
    kCmsUnreachable = 461,
    kCmsKeyDiffers = 462,
    kCmsLoginRefused = 463,
    kCmsPairingRefused = 464,
    kCmsNoSuchServer = 465,
    kCmsNoListener = 466,
    kCmsBadAnswer = 467,
};

}  // namespace pavane
