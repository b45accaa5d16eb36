#include "korv/system/extended_attributes.h"

#include <algorithm>
#include <cerrno>
#include <map>
#include <sstream>
#include <vector>

#include <sys/xattr.h>

namespace korv {

namespace {

// The kernel's own bounds.
constexpr std::size_t kLongestList = 65536;
constexpr std::size_t kLongestValue = 65536;
constexpr const char* kAccessRights = "system.posix_acl_access";

std::vector<std::string> Split(const std::string& names) {
    std::vector<std::string> split;
    std::istringstream stream(names);
    for (std::string name; std::getline(stream, name, '\0');) {
        if (IsPortable(name)) {
            split.push_back(name);
        }
    }
    return split;
}

int ErrorOf(ssize_t result) { return result < 0 ? errno : 0; }

}  // namespace

bool IsPortable(const std::string& name) {
    return name != kMoveMark && !name.starts_with("btrfs.") && !name.starts_with("system.nfs4_") &&
           name != "security.selinux";
}

AttributeFile::AttributeFile(int folder, const std::string& name)
    : m_path("/proc/self/fd/" + std::to_string(folder) + "/" + name) {}

int AttributeFile::List(std::string& names) const {
    // Most files have none, and asking for the size alone tells so.
    const ssize_t size =
        m_path.empty() ? flistxattr(m_file, nullptr, 0) : llistxattr(m_path.c_str(), nullptr, 0);
    names.clear();
    if (size <= 0) {
        return size == 0 || errno == ENOTSUP ? 0 : errno;
    }
    names.resize(kLongestList);
    const ssize_t length = m_path.empty() ? flistxattr(m_file, names.data(), names.size())
                                          : llistxattr(m_path.c_str(), names.data(), names.size());
    names.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
    return ErrorOf(length);
}

int AttributeFile::Get(const std::string& name, std::string& value) const {
    value.resize(kLongestValue);
    const ssize_t length = m_path.empty()
                               ? fgetxattr(m_file, name.c_str(), value.data(), value.size())
                               : lgetxattr(m_path.c_str(), name.c_str(), value.data(), value.size());
    value.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
    return ErrorOf(length);
}

int AttributeFile::Set(const std::string& name, const std::string& value) const {
    return ErrorOf(m_path.empty() ? fsetxattr(m_file, name.c_str(), value.data(), value.size(), 0)
                                  : lsetxattr(m_path.c_str(), name.c_str(), value.data(), value.size(), 0));
}

int AttributeFile::Remove(const std::string& name) const {
    const int error = ErrorOf(m_path.empty() ? fremovexattr(m_file, name.c_str())
                                             : lremovexattr(m_path.c_str(), name.c_str()));
    return error == ENODATA ? 0 : error;
}

int AttributeFile::CopyTo(const AttributeFile& to, bool isNew) const {
    std::string names;
    std::string value;
    if (const int error = List(names)) {
        return error;
    }
    const std::vector<std::string> own = Split(names);
    const bool replacesInherited = std::find(own.begin(), own.end(), kAccessRights) != own.end();
    std::map<std::string, bool> isExtra;
    if (!isNew || !replacesInherited) {
        if (const int error = to.List(names)) {
            return error;
        }
        for (const std::string& name : Split(names)) {
            isExtra[name] = true;
        }
    }
    for (const std::string& name : own) {
        isExtra[name] = false;
        int error = Get(name, value);
        error = error != 0 ? error : to.Set(name, value);
        if (error != 0 && error != ENODATA) {
            return error;
        }
    }
    for (const auto& [name, extra] : isExtra) {
        const int error = extra ? to.Remove(name) : 0;
        if (error != 0) {
            return error;
        }
    }
    return 0;
}

int AttributeFile::Compare(const AttributeFile& other) const {
    std::string names;
    std::map<std::string, std::string> values;
    for (const AttributeFile* file : {this, &other}) {
        std::map<std::string, std::string> found;
        if (const int error = file->List(names)) {
            return error;
        }
        for (const std::string& name : Split(names)) {
            if (const int error = file->Get(name, found[name])) {
                return error;
            }
        }
        if (file == &other) {
            return found == values ? 0 : EBADE;
        }
        values = std::move(found);
    }
    return 0;
}

}  // namespace korv
