#include "tests/unit/korv/tree_manifest.h"

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <vector>

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>

#include "korv/system/child_process.h"

namespace fs = std::filesystem;

namespace {

std::string Content(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    return std::to_string(std::hash<std::string>()(text));
}

std::string Attributes(const fs::path& path) {
    std::vector<char> names(65536);
    const ssize_t length = llistxattr(path.c_str(), names.data(), names.size());
    std::set<std::string> lines;
    for (ssize_t i = 0; i < length;) {
        const std::string name(names.data() + i);
        i += static_cast<ssize_t>(name.size()) + 1;
        std::vector<char> value(65536);
        const ssize_t size = lgetxattr(path.c_str(), name.c_str(), value.data(), value.size());
        if (name != "trusted.korv.move") {
            lines.insert(name + "=" +
                         std::to_string(std::hash<std::string>()(
                             std::string(value.data(), size > 0 ? static_cast<std::size_t>(size) : 0))));
        }
    }
    std::string text;
    for (const std::string& line : lines) {
        text += " " + line;
    }
    return text;
}

void Check(bool isRight) {
    if (!isRight) {
        throw std::runtime_error("cannot make a test tree");
    }
}

}  // namespace

manifest::Manifest manifest::Of(const std::string& root) {
    Manifest manifest;
    std::map<ino_t, std::string> firstNames;
    std::vector<fs::path> paths{root};
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        paths.push_back(entry.path());
    }
    std::sort(paths.begin(), paths.end());
    for (const fs::path& path : paths) {
        struct stat status {};
        Check(lstat(path.c_str(), &status) == 0);
        std::ostringstream line;
        line << std::oct << status.st_mode << std::dec << " " << status.st_uid << ":" << status.st_gid << " "
             << status.st_mtim.tv_sec << "." << status.st_mtim.tv_nsec << Attributes(path);
        const std::string name = path.lexically_relative(root);
        if (S_ISREG(status.st_mode)) {
            line << " size " << status.st_size << " content " << Content(path);
        }
        if (S_ISLNK(status.st_mode)) {
            line << " leads to " << fs::read_symlink(path).string();
        }
        if (S_ISCHR(status.st_mode)) {
            line << " device " << major(status.st_rdev) << "," << minor(status.st_rdev);
        }
        if (!S_ISDIR(status.st_mode) && status.st_nlink > 1) {
            line << " is " << firstNames.try_emplace(status.st_ino, name).first->second;
        }
        manifest[name] = line.str();
    }
    return manifest;
}

std::string manifest::Difference(const Manifest& left, const Manifest& right) {
    std::string text;
    for (const auto& [path, line] : left) {
        const auto other = right.find(path);
        if (other == right.end()) {
            text += "- " + path + "\n";
        } else if (other->second != line) {
            text.append("! ").append(path).append("\n    ").append(line);
            text.append("\n    ").append(other->second).append("\n");
        }
    }
    for (const auto& [path, line] : right) {
        text += left.contains(path) ? "" : "+ " + path + "\n";
    }
    return text;
}

void manifest::MakeTree(const std::string& root, int files) {
    constexpr int kFolders = 20;
    constexpr std::size_t kLargest = 300'000;
    fs::create_directories(root + "/special");
    const std::string special = root + "/special/";
    for (int i = 0; i < files; ++i) {
        const std::string folder =
            root + "/cam" + std::to_string(i % 3) + "/day" + std::to_string(i % kFolders);
        fs::create_directories(folder);
        std::string text(static_cast<std::size_t>(i) * 7919 % kLargest, '\0');
        for (std::size_t k = 0; k < text.size(); ++k) {
            text[k] = static_cast<char>(k * 31 + static_cast<std::size_t>(i));
        }
        std::ofstream(folder + "/" + std::to_string(i) + ".mp4") << text;
    }
    std::ofstream(special + "f\xc3\xa4 \n\xff" + std::string(200, 'n')) << "odd name";
    fs::create_symlink("../../outside", special + "link");
    fs::create_symlink(std::string(2000, 'l'), special + "long link");
    Check(mkfifo((special + "pipe").c_str(), 0640) == 0);
    Check(mknod((special + "null").c_str(), S_IFCHR | 0666, makedev(1, 3)) == 0);
    Check(mknod((special + "socket").c_str(), S_IFSOCK | 0600, 0) == 0);
    std::ofstream(special + "first") << std::string(5000, 'h');
    fs::create_hard_link(special + "first", root + "/cam0/second");
    fs::create_hard_link(special + "first", special + "third");
    std::ofstream(special + "setuid") << "x";
    Check(lchown((special + "setuid").c_str(), 60001, 60102) == 0);
    Check(chmod((special + "setuid").c_str(), 06751) == 0);
    const int sparse = open((special + "sparse").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    constexpr off_t kFar = 4'000'000;
    Check(pwrite(sparse, "far", 3, kFar) == 3 && ftruncate(sparse, 2 * kFar) == 0);
    close(sparse);
    Check(setxattr((special + "first").c_str(), "user.note", "kept", 4, 0) == 0);
    Check(setxattr(root.c_str(), "trusted.korv.share", "token", 5, 0) == 0);
    Check(korv::RunProgram("/usr/bin/setfacl",
                           {"-m", "u:60001:rwx,g:60102:r-x", "-m", "d:u:60002:rwx", root + "/cam1"},
                           std::chrono::seconds(10))
              .exitCode == 0);
    Check(korv::RunProgram("/usr/bin/setfacl", {"-m", "u:60001:r", special + "setuid"},
                           std::chrono::seconds(10))
              .exitCode == 0);
    const timespec times[] = {{1'600'000'000, 5}, {1'600'000'001, 123'456'789}};
    Check(utimensat(AT_FDCWD, (special + "link").c_str(), times, AT_SYMLINK_NOFOLLOW) == 0);
    Check(utimensat(AT_FDCWD, (special + "first").c_str(), times, 0) == 0);
    Check(utimensat(AT_FDCWD, (root + "/cam2").c_str(), times, 0) == 0);
}
