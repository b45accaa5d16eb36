#pragma once

#include <ctime>
#include <string>
#include <string_view>

namespace pavane {

// A log file that several processes append to. It is made with mode 0640, group adm, while the process can be
// root. A file that was renamed or removed (rotation) is noticed within kCheck_s seconds and opened anew.
// Not safe for use from several threads.
class LogFile {
public:
    static constexpr std::time_t kCheck_s = 1;

    explicit LogFile(std::string path);
    ~LogFile();
    LogFile(const LogFile&) = delete;
    LogFile& operator=(const LogFile&) = delete;

    // Appends `entry` with one write. False when the file cannot be opened or written.
    bool Write(std::string_view entry);

private:
    bool IsStillInPlace() const;
    void Open();
    void Close();

    std::string m_path;
    int m_fd = -1;
    std::time_t m_checked_s = 0;
};

}  // namespace pavane
