#include "korv/framework/upload_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "platform/korv/configuration.h"

#include "korv/framework/log.h"
#include "korv/system/file_descriptor.h"

namespace korv {

namespace {

constexpr const char* kPrefix = "upload.";

// The process that a file belongs to, by its name; 0 for a file of another name.
pid_t OwnerOf(const std::string& name) {
    pid_t owner = 0;
    if (name.rfind(kPrefix, 0) == 0) {
        const char* const digits = name.c_str() + std::strlen(kPrefix);
        std::from_chars(digits, name.c_str() + name.size(), owner);
    }
    return owner;
}

void Remove(const std::string& path) {
    if (unlink(path.c_str()) != 0 && errno != ENOENT) {
        LogLine(std::string("an uploaded file could not be removed: ") + std::strerror(errno));
    }
}

}  // namespace

std::string UploadFolder() { return KORV::GetConfiguration().stateDir + "/uploads"; }

UploadFiles::~UploadFiles() {
    for (const std::string& path : m_paths) {
        Remove(path);
    }
}

std::string UploadFiles::Store(std::string_view content) {
    std::string path = UploadFolder() + "/" + kPrefix + std::to_string(getpid()) + ".XXXXXX";
    const FileDescriptor file(mkostemp(path.data(), O_CLOEXEC));
    if (!file) {
        throw std::system_error(errno, std::generic_category(), "an upload could not be stored");
    }
    m_paths.push_back(path);
    while (!content.empty()) {
        const ssize_t written = write(file.Get(), content.data(), content.size());
        if (written < 0 && errno != EINTR) {
            throw std::system_error(errno, std::generic_category(), "an upload could not be stored");
        }
        content.remove_prefix(written > 0 ? static_cast<std::size_t>(written) : 0);
    }
    return path;
}

void RemoveLeftUploads() {
    for (const auto& entry : std::filesystem::directory_iterator(UploadFolder())) {
        const pid_t owner = OwnerOf(entry.path().filename());
        if (owner > 0 && kill(owner, 0) != 0 && errno == ESRCH) {
            Remove(entry.path());
        }
    }
}

}  // namespace korv
