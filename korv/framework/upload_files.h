#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace korv {

// The files that came with one request, 0600 and of the process's effective user. Removed when the object
// goes, whatever the method left of them.
class UploadFiles {
public:
    UploadFiles() = default;
    ~UploadFiles();
    UploadFiles(const UploadFiles&) = delete;
    UploadFiles& operator=(const UploadFiles&) = delete;

    // Stores `content` in a new file of the uploads folder and returns its path.
    // Throws std::system_error when it can't be stored; nothing of it is left then.
    std::string Store(std::string_view content);

private:
    std::vector<std::string> m_paths;
};

// <stateDir>/uploads, a folder of the service user.
std::string UploadFolder();

// Removes the files of processes that have died over their request; what can't be removed is logged. Needs
// the rights of the folder's owner. Throws std::system_error when the folder can't be read.
void RemoveLeftUploads();

}  // namespace korv
