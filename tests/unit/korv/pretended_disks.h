#pragma once

#include <map>
#include <string>

// Disks that aren't there, for this process only: the program runs with umockdev's library preloaded, and
// with a /run of its own, where the device manager would note what it knows.
class PretendedDisks {
public:
    PretendedDisks();
    ~PretendedDisks();
    PretendedDisks(const PretendedDisks&) = delete;
    PretendedDisks& operator=(const PretendedDisks&) = delete;

    using Texts = std::map<std::string, std::string>;

    // Attaches a disk below `parent`, a path under /sys/devices; `properties` and `attributes` go over what a
    // plain disk has. Returns its own path.
    std::string AddDisk(const std::string& parent, const std::string& name, const Texts& properties,
                        const Texts& attributes = {});
    // Attaches a USB device, below which disks can be; `path` as that of a disk's parent.
    void AddUsbDevice(const std::string& path);
    // Attaches a USB stick or a disk at a port that disks are pulled from.
    std::string AddUsbDisk(const std::string& name);
    std::string AddEsataDisk(const std::string& name);
    // Adds the partition of that number to the disk at `disk`.
    void AddPartition(const std::string& disk, int number, const Texts& properties = {});
    // The kernel has written to the disk at `path` so many times.
    void SetWrites(const std::string& path, int count);
    // The disk at that path, with its partitions, is gone.
    void Pull(const std::string& disk);

    // The device manager has finished with the disk.
    void Settle(const std::string& name);

    // The file that stands behind "/dev/<name>"; makes it large enough for a file system.
    std::string FileOf(const std::string& name);

private:
    struct Testbed;
    Testbed* m_testbed;
    std::map<std::string, int> m_minors;
};
