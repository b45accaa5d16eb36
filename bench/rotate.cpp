// Rotation of a share with very many small recordings.
//   usage: bench_rotate make FOLDER FILES    makes the recordings, of one byte each
//          bench_rotate run FOLDER FILES     rotates them down to a tenth, prints what it took

#include <fcntl.h>
#include <unistd.h>

#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>
#include <string_view>

#include <sys/stat.h>

#include "pavane/recorder/rotation.h"

namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t kPerFolder = 1000;
constexpr std::uint64_t kBlock_bytes = 4096;  // what a file of one byte occupies
constexpr std::uint64_t kKeptPart = 10;

void MakeRecordings(const fs::path& share, std::uint64_t files) {
    constexpr time_t kFirst_s = 1'700'000'000;
    for (std::uint64_t i = 0; i < files; ++i) {
        const fs::path folder = share / ("camera" + std::to_string(i / kPerFolder));
        if (i % kPerFolder == 0) {
            fs::create_directory(folder);
        }
        const std::string path = folder / (std::to_string(i) + ".mp4");
        const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        const time_t time_s =
            kFirst_s + static_cast<time_t>((i * 7919) % files);  // the oldest lie everywhere
        const timespec times[2] = {{time_s, 0}, {time_s, 0}};
        if (fd < 0 || write(fd, "r", 1) != 1 || futimens(fd, times) != 0) {
            throw std::runtime_error("cannot make " + path);
        }
        close(fd);
    }
}

long PeakMemory_kb() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmHWM:", 0) == 0) {
            return std::stol(line.substr(std::strlen("VmHWM:")));
        }
    }
    throw std::runtime_error("the kernel does not say how much memory this took");
}

void Rotate(const fs::path& share, std::uint64_t files) {
    const auto start = std::chrono::steady_clock::now();
    const pavane::RotationResult result = pavane::RotateShare(share, files / kKeptPart * kBlock_bytes);
    const std::chrono::duration<double> time_s = std::chrono::steady_clock::now() - start;
    if (result.end != pavane::RotationEnd::kWithinLimit || result.failed != 0) {
        throw std::runtime_error("the rotation did not get done");
    }
    std::printf("%llu of %llu recordings removed in %.1f s (%.0f a second), peak memory %.1f MB\n",
                static_cast<unsigned long long>(result.removedFiles), static_cast<unsigned long long>(files),
                time_s.count(), static_cast<double>(result.removedFiles) / time_s.count(),
                static_cast<double>(PeakMemory_kb()) / 1024);
}

int Run(int argc, char** argv) {
    std::uint64_t files = 0;
    if (argc != 4 || std::from_chars(argv[3], argv[3] + std::strlen(argv[3]), files).ec != std::errc() ||
        files < kKeptPart) {
        throw std::invalid_argument("usage: bench_rotate make|run FOLDER FILES");
    }
    if (std::string_view(argv[1]) == "make") {
        MakeRecordings(argv[2], files);
    } else {
        Rotate(argv[2], files);
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Run(argc, argv);
    } catch (const std::exception& failure) {
        std::cerr << "bench_rotate: " << failure.what() << "\n";
        return 1;
    }
}
