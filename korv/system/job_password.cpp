#include "korv/system/job_password.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <filesystem>
#include <system_error>

#include <sys/stat.h>

#include "platform/korv/configuration.h"

#include "include/run_as_scope.h"
#include "korv/system/file_descriptor.h"

namespace korv {

namespace {

constexpr mode_t kPrivateFile = S_IRUSR | S_IWUSR;
constexpr const char* kExtension = ".password";
constexpr std::size_t kLongestPassword = 4096;

std::string Folder() { return KORV::GetConfiguration().stateDir + "/jobs"; }
std::string PathOf(long long id) { return Folder() + "/" + std::to_string(id) + kExtension; }

void Check(bool isRight, const char* what) {
    if (!isRight) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

}  // namespace

void KeepJobPassword(long long id, const std::string& password) {
    const RunAsScope root = IF_RUN_AS;
    const std::string path = PathOf(id);
    Check(mkdir(Folder().c_str(), S_IRWXU) == 0 || errno == EEXIST, "cannot make the folder of jobs");
    unlink(path.c_str());
    const FileDescriptor file(
        open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, kPrivateFile));
    Check(file &&
              write(file.Get(), password.data(), password.size()) == static_cast<ssize_t>(password.size()) &&
              fsync(file.Get()) == 0,
          "cannot keep the password of a job");
    const FileDescriptor folder(open(Folder().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    Check(folder && fsync(folder.Get()) == 0, "cannot keep the password of a job");
}

std::string ReadJobPassword(long long id) {
    const RunAsScope root = IF_RUN_AS;
    const FileDescriptor file(open(PathOf(id).c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    std::string password(kLongestPassword, '\0');
    const ssize_t length = file ? read(file.Get(), password.data(), password.size()) : 0;
    password.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
    return password;
}

std::vector<long long> ListJobPasswords() {
    const RunAsScope root = IF_RUN_AS;
    std::vector<long long> ids;
    std::error_code error;
    for (std::filesystem::directory_iterator each(Folder(), error), end; !error && each != end;
         each.increment(error)) {
        const std::string name = each->path().filename();
        long long id = 0;
        const auto [rest, problem] = std::from_chars(name.data(), name.data() + name.size(), id);
        if (problem == std::errc() && std::string(rest) == kExtension) {
            ids.push_back(id);
        }
    }
    return ids;
}

void ForgetJobPassword(long long id) {
    const RunAsScope root = IF_RUN_AS;
    const std::string path = PathOf(id);
    const FileDescriptor file(open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW));
    struct stat status {};
    if (!file || fstat(file.Get(), &status) != 0) {
        return;
    }
    const std::string nothing(static_cast<std::size_t>(status.st_size), '\0');
    if (write(file.Get(), nothing.data(), nothing.size()) > 0) {
        fsync(file.Get());
    }
    unlink(path.c_str());
}

}  // namespace korv
