#pragma once

#include <cstdint>
#include <optional>

namespace korv {

// How many bytes the limits of the subvolume that the folder open as `folder` lies in still admit, those of
// the groups that it was put into included; what was written but isn't on the disk yet counts as used.
// Nothing when nothing limits it. Needs root. Throws std::system_error when it can't be told.
std::optional<std::uint64_t> BtrfsLimitRest(int folder);

}  // namespace korv
