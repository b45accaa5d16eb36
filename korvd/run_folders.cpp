#include "korvd/run_folders.h"

#include <grp.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include <sys/stat.h>

#include "korv/framework/service_user.h"
#include "korv/framework/upload_files.h"

namespace {

namespace fs = std::filesystem;

constexpr mode_t kPrivateMode = 0700;
constexpr mode_t kLogMode = 0750;
constexpr mode_t kClosedMode = 0710;  // the service user, whose group it is, passes
constexpr mode_t kPassableMode = 0711;

[[noreturn]] void Fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

void PrepareFolder(const std::string& path, const korv::UserIds& owner, mode_t mode) {
    fs::create_directories(fs::path(path).parent_path());
    if (mkdir(path.c_str(), kPrivateMode) != 0 && errno != EEXIST) {
        Fail("cannot make " + path);
    }
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
        throw std::runtime_error(path + " is not a folder");
    }
    if (lchown(path.c_str(), owner.uid, owner.gid) != 0 || chmod(path.c_str(), mode) != 0) {
        Fail("cannot set owner and mode of " + path);
    }
}

}  // namespace

void PrepareFolders(const korv::Settings& settings) {
    const korv::UserIds service = korv::IdsOf(settings.node.serviceUser);
    const group* const adm = getgrnam("adm");
    PrepareFolder(settings.node.stateDir, service, kPrivateMode);
    fs::remove_all(korv::UploadFolder());
    PrepareFolder(korv::UploadFolder(), service, kPrivateMode);
    PrepareFolder(settings.node.logDir, {0, adm != nullptr ? adm->gr_gid : 0}, kLogMode);
    PrepareFolder(settings.node.runDir, {0, service.gid}, kClosedMode);
    PrepareFolder(settings.node.runDir + "/nginx", korv::IdsOf(settings.nginx.user), kPrivateMode);
    PrepareFolder(settings.node.runDir + "/service", service, kPrivateMode);
    if (!settings.node.sambaInclude.empty()) {
        fs::create_directories(fs::path(settings.node.sambaInclude).parent_path());
    }
}

void MakeRunFolder(const korv::Settings& settings) {
    fs::create_directories(fs::path(settings.node.runDir).parent_path());
    if (mkdir(settings.node.runDir.c_str(), kPrivateMode) != 0 && errno != EEXIST) {
        Fail("cannot make " + settings.node.runDir);
    }
}

void CloseRunFolder(const korv::Settings& settings) {
    if (chmod(settings.node.runDir.c_str(), kClosedMode) != 0) {
        Fail("cannot close " + settings.node.runDir);
    }
}

void OpenRunFolder(const korv::Settings& settings) {
    if (chmod(settings.node.runDir.c_str(), kPassableMode) != 0) {
        Fail("cannot open " + settings.node.runDir);
    }
}
