#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>

#include <linux/openat2.h>
#include <sys/syscall.h>

// Reading folders that may hold a million entries, and opening what is beneath one.

// Opens `path` beneath the folder open as `folder` without following a symbolic link anywhere and without
// entering another mount. Returns the descriptor (close-on-exec), or -1 with errno.
//   flags  as for open; nothing is created
inline int OpenBeneath(int folder, const char* path, int flags) noexcept {
    open_how how{};
    how.flags = static_cast<std::uint64_t>(flags) | O_CLOEXEC | O_NOFOLLOW;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_XDEV;
    long descriptor = -1;
    do {
        descriptor = syscall(SYS_openat2, folder, path, &how, sizeof how);
    } while (descriptor < 0 && (errno == EINTR || errno == EAGAIN) && (flags & O_NONBLOCK) == 0);
    return static_cast<int>(descriptor);
}

// What a folder lists, "." and ".." left out.
//   name  ends with a zero byte; valid until the next call of the stream
//   type  DT_*, DT_UNKNOWN on file systems that don't say
struct FolderEntry {
    std::string_view name;
    unsigned char type = DT_UNKNOWN;
};

// The position in one folder's list of entries; memory for some hundred entries at a time. The folder's
// descriptor is the caller's and is given to each call, so that it may be closed and opened again in between.
class FolderStream {
public:
    // True with the next entry; false at the end and on an error, which Error() tells apart.
    bool Next(int folder, FolderEntry& entry) {
        while (Fill(folder)) {
            const char* record = m_buffer->data() + m_position;
            const auto length = Field<std::uint16_t>(record, offsetof(dirent64, d_reclen));
            m_offset = Field<std::int64_t>(record, offsetof(dirent64, d_off));
            m_position += length;
            entry.name = record + offsetof(dirent64, d_name);
            entry.type = Field<unsigned char>(record, offsetof(dirent64, d_type));
            if (entry.name != "." && entry.name != "..") {
                return true;
            }
        }
        return false;
    }

    // Starts over.
    void Rewind() {
        m_offset = 0;
        Suspend();
    }

    // Drops the memory. The next call of Next goes on behind the entry that it gave last.
    void Suspend() {
        m_buffer.reset();
        m_position = m_length = 0;
        m_mustSeek = true;
    }

    // errno of the failure that ended the stream; 0 = it has come to its end.
    int Error() const { return m_error; }

private:
    static constexpr std::size_t kBufferSize = std::size_t{32} * 1024;
    using Buffer = std::array<char, kBufferSize>;

    // The records stand unaligned in the buffer for all that the compiler knows.
    template <typename T>
    static T Field(const char* record, std::size_t offset) {
        T value{};
        std::memcpy(&value, record + offset, sizeof value);
        return value;
    }

    bool Fill(int folder) {
        m_error = 0;
        if (m_position < m_length) {
            return true;
        }
        if (m_buffer == nullptr) {
            m_buffer = std::make_unique<Buffer>();
        }
        if (m_mustSeek && lseek(folder, m_offset, SEEK_SET) < 0) {
            m_error = errno;
            return false;
        }
        m_mustSeek = false;
        const long length = syscall(SYS_getdents64, folder, m_buffer->data(), m_buffer->size());
        m_position = 0;
        m_length = length > 0 ? static_cast<std::size_t>(length) : 0;
        m_error = length < 0 ? errno : 0;
        return length > 0;
    }

    std::unique_ptr<Buffer> m_buffer;
    std::size_t m_position = 0;
    std::size_t m_length = 0;
    off_t m_offset = 0;
    bool m_mustSeek = true;
    int m_error = 0;
};
