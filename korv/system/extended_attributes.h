#pragma once

#include <string>

namespace korv {

// Marks a folder that a move has made to take another's place; never copied.
constexpr const char* kMoveMark = "trusted.korv.move";

// Extended attributes, POSIX ACLs among them, of one file.
class AttributeFile {
public:
    // Of a file that is open for reading.
    explicit AttributeFile(int file) : m_file(file) {}
    // Of the entry `name` of an open folder; a link's own.
    AttributeFile(int folder, const std::string& name);

    // Gives `to` exactly the attributes of this one. 0, or errno of the first that could not be read or set.
    // Those that only the source's file system can hold are left out (IsPortable).
    //   isNew  `to` was just made and has nothing but the access rights that its folder hands down, if any:
    //   it
    //          needn't be asked then when it gets others
    int CopyTo(const AttributeFile& to, bool isNew = false) const;

    // Whether the portable attributes of both are the same. 0, EBADE when they differ, or another errno.
    int Compare(const AttributeFile& other) const;

private:
    int List(std::string& names) const;
    int Get(const std::string& name, std::string& value) const;
    int Set(const std::string& name, const std::string& value) const;
    int Remove(const std::string& name) const;

    int m_file = -1;
    std::string m_path;  // used instead when it is not empty
};

// False for attributes that mirror a file system's own settings rather than belong to the file.
bool IsPortable(const std::string& name);

}  // namespace korv
