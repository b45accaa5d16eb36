#include "korv/system/partition_probe.h"

#include <array>
#include <cstdio>
#include <map>
#include <sstream>
#include <vector>

#include "korv/system/bounded_call.h"
#include "korv/system/device_manager.h"

namespace korv {

namespace {

// The facts as they come from the child; what is longer is cut.
struct CarriedFacts {
    bool isKnown;
    std::array<char, 32> type;
    std::array<char, 512> label;
    std::array<char, 32> usage;
    std::array<char, 64> partitionType;
};

template <std::size_t Size>
void Copy(std::array<char, Size>& to, const std::string& from) {
    snprintf(to.data(), Size, "%s", from.c_str());
}

CarriedFacts Pack(const FileSystemFacts& facts) {
    CarriedFacts packed{};
    packed.isKnown = facts.isKnown;
    Copy(packed.type, facts.type);
    Copy(packed.label, facts.label);
    Copy(packed.usage, facts.usage);
    Copy(packed.partitionType, facts.partitionType);
    return packed;
}

FileSystemFacts Unpack(const CarriedFacts& packed) {
    return {packed.isKnown, packed.type.data(), packed.label.data(), packed.usage.data(),
            packed.partitionType.data()};
}

// How much the kernel has written to and discarded on the disk; nothing is read from it for that.
std::string WritesOf(udev_device& disk) {
    constexpr std::array<std::size_t, 4> kCounts{4, 6, 11, 13};  // requests and sectors of either
    std::istringstream text(Attribute(disk, "stat"));
    std::vector<std::string> fields;
    for (std::string field; text >> field;) {
        fields.push_back(field);
    }
    std::string writes;
    for (const std::size_t field : kCounts) {
        writes += field < fields.size() ? fields[field] + " " : "";
    }
    return writes;
}

// Stays the same as long as the partition holds the same.
std::string ContentOf(udev_device& disk, udev_device& partition, const std::string& mountId) {
    std::string content = Attribute(disk, "diskseq") + " ";
    if (!mountId.empty()) {
        return content + mountId;
    }
    content += WritesOf(disk);
    for (const char* noted : {"ID_FS_TYPE", "ID_FS_UUID", "ID_FS_LABEL", "ID_PART_ENTRY_TYPE"}) {
        content += "\n" + Property(partition, noted);
    }
    return content;
}

struct Remembered {
    std::string content;
    FileSystemFacts facts;
};

// By device; as many as there ever were names of devices.
std::map<std::string, Remembered>& ProcessMemory() {
    static std::map<std::string, Remembered> memory;
    return memory;
}

}  // namespace

std::optional<FileSystemFacts> ProbePartition(udev_device& disk, udev_device& partition,
                                              const std::string& mountId) {
    const std::string node = udev_device_get_devnode(&partition);
    const std::string content = ContentOf(disk, partition, mountId);
    const auto known = ProcessMemory().find(node);
    if (known != ProcessMemory().end() && known->second.content == content) {
        return known->second.facts;
    }
    // All of a disk hangs together.
    const std::string subject =
        std::string("content ") + udev_device_get_syspath(&disk) + " " + Attribute(disk, "diskseq");
    const auto carried = CallApart(subject, [&node] { return std::optional(Pack(ProbeFileSystem(node))); });
    if (!carried) {
        return std::nullopt;
    }
    const FileSystemFacts facts = Unpack(*carried);
    ProcessMemory()[node] = {content, facts};
    return facts;
}

}  // namespace korv
