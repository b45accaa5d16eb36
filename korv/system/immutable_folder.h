#pragma once

namespace korv {

// Sees to it that nobody, root neither, makes, removes or renames anything in the folder open as `folder`,
// nor changes or removes the folder itself; or lets them again. Mounting there stays possible. Needs root.
// False with errno when it can't be done: ENOTTY or EOPNOTSUPP where the file system knows no such folders.
bool SetImmutable(int folder, bool isImmutable);

// Lets people at the folder again where it was immutable; throws std::system_error when that fails.
void MakeMutable(int folder);

}  // namespace korv
