#pragma once

#include <string>

// "/volume1/rec/nas/", as a shell completes it, names the same folder as without the slash, but mount lists
// and records are compared as texts. "/" stays. Pure text.
inline std::string WithoutTrailingSlashes(std::string path) {
    while (path.size() > 1 && path.back() == '/') {
        path.pop_back();
    }
    return path;
}
