#pragma once

#include <string>

#include <sys/stat.h>

#include "korv/system/file_copy.h"
#include "korv/system/file_descriptor.h"

// Looking at the entries of two trees that are brought in step. All of it works on open folders, follows no
// link and throws CopyError.
namespace korv {

[[noreturn]] void FailCopy(CopyError::Where where, int error, const char* action);
// Fails with errno.
void CheckCopy(bool isRight, CopyError::Where where, const char* action);

// False when there is no such entry.
bool StatEntry(int folder, const char* name, struct stat& status, CopyError::Where where);

bool IsSameKind(const struct stat& left, const struct stat& right);
bool IsSameKindAndTime(const struct stat& left, const struct stat& right);
// By time of modification.
bool IsNewer(const struct stat& left, const struct stat& right);

// What an entry of the source is called where its name is taken: the same in each pass, and no two entries of
// a folder alike.
std::string NameBeside(const std::string& name, ino_t inode);

std::string ReadLink(const EntryRef& link, CopyError::Where where);

// Opens the folder of the target that holds `path`, however long that is. None when it is gone.
//   name  out: the path's last name
FileDescriptor OpenFolderOf(int root, const std::string& path, std::string& name);

// Opens a file of the source. None when it is gone, or no file any more. Waits for whoever holds a write
// lease on it.
FileDescriptor OpenRegular(int folder, const char* name);

// True while somebody has the file open for writing, or mapped; false where the file system can't tell.
bool IsBeingWritten(int file);

}  // namespace korv
