#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include <json/json.h>

namespace cli {

struct CameraEntry {
    std::string place;   // where it stands in the file, e.g. "line 3"
    Json::Value camera;  // as the web API takes it
};

// The cameras of an import file. CSV: a header with `name`, `recording_path` and, if wanted, `owner`, `ip`,
// `occupied_mb` and `rotation_mb`, in any order. JSON: an array of cameras as the web API takes them, or an
// object with such an array under "cameras", which is what `camera list --json` prints. A text that begins
// with "[" or "{" is JSON; a byte order mark before it is left out. No two are of the same server and name.
// Throws InputError that names the place of what is wrong.
std::vector<CameraEntry> ReadCameras(std::string_view text);

// Throws InputError for the first camera that no request of `limit_bytes` can hold.
void CheckLengths(const std::vector<CameraEntry>& entries, std::size_t limit_bytes);

// How many entries from `first` on fit into one request of at most `limit_bytes`; at least 1.
std::size_t BatchLength(const std::vector<CameraEntry>& entries, std::size_t first, std::size_t limit_bytes);

}  // namespace cli
