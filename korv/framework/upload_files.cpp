#include "korv/framework/upload_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <system_error>

#include "platform/korv/configuration.h"

#include "korv/framework/log.h"
#include "korv/system/file_descriptor.h"

namespace korv {

std::string UploadFolder() { return KORV::GetConfiguration().stateDir + "/uploads"; }

UploadFiles::~UploadFiles() {
    for (const std::string& path : m_paths) {
        if (unlink(path.c_str()) != 0 && errno != ENOENT) {
            LogLine(std::string("an uploaded file could not be removed: ") + std::strerror(errno));
        }
    }
}

std::string UploadFiles::Store(std::string_view content) {
    std::string path = UploadFolder() + "/upload.XXXXXX";
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

}  // namespace korv
