#pragma once

namespace pavane {

// How often the job process asks whether shares have to be rotated.
inline constexpr int kRotationInterval_s = 5;

// Rotates every share of this server that has a limit and whose last rotation is a while ago, or all of them
// at once when PvRotateApi::StartRotate was called since. Works for some seconds at most and goes on with its
// next run; what it removed stands in the event log. Throws (pavane/store/database.h).
void RotateDueShares();

}  // namespace pavane
