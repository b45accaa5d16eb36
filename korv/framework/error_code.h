#pragma once

namespace korv {

// What the framework itself answers; include/error_table.h tells what each means.
enum FrameworkError : int {
    kErrorMalformed = 101,
    kErrorNoSuchApi = 102,
    kErrorNotAllowed = 105,
    kErrorSessionEnded = 107,
    kErrorInternal = 110,
    kErrorBusy = 111,
    kErrorNoSuchMethod = 401,
    kErrorBadParameter = 401,
};

}  // namespace korv
