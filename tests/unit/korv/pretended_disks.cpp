#include "tests/unit/korv/pretended_disks.h"

#include <umockdev.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <vector>

namespace {

namespace fs = std::filesystem;

constexpr int kMajor = 8;
constexpr const char* kDeviceManagerData = "/run/udev/data";
constexpr std::uintmax_t kSize = std::uintmax_t{16} * 1024 * 1024;

std::string DeviceNumber(int minor) { return std::to_string(kMajor) + ":" + std::to_string(minor); }

}  // namespace

struct PretendedDisks::Testbed {
    UMockdevTestbed* bed;

    void Add(const std::string& path, const std::string& name, const Texts& properties,
             const Texts& attributes) {
        std::string text = "P: " + path + "\n";
        if (!name.empty()) {
            text.append("N: ").append(name).append("\nE: DEVNAME=/dev/").append(name).append("\n");
        }
        for (const auto& [key, value] : properties) {
            text.append("E: ").append(key).append("=").append(value).append("\n");
        }
        for (const auto& [key, value] : attributes) {
            text.append("A: ").append(key).append("=").append(value).append("\n");
        }
        GError* error = nullptr;
        if (umockdev_testbed_add_from_string(bed, text.c_str(), &error) == 0) {
            throw std::runtime_error(error->message);
        }
    }

    std::string Root() const {
        gchar* root = umockdev_testbed_get_root_dir(bed);
        std::string text = root;
        g_free(root);
        return text;
    }
};

PretendedDisks::PretendedDisks() : m_testbed(new Testbed{umockdev_testbed_new()}) {
    fs::remove_all(kDeviceManagerData);
}

PretendedDisks::~PretendedDisks() {
    g_object_unref(m_testbed->bed);
    delete m_testbed;
}

std::string PretendedDisks::AddDisk(const std::string& parent, const std::string& name,
                                    const Texts& properties, const Texts& attributes) {
    static int disksThatCame = 0;  // as the kernel counts them, for all tests
    const int minor = static_cast<int>(m_minors.size()) * 16;
    m_minors[name] = minor;
    Texts allProperties{{"DEVTYPE", "disk"},
                        {"SUBSYSTEM", "block"},
                        {"MAJOR", std::to_string(kMajor)},
                        {"MINOR", std::to_string(minor)},
                        {"ID_TYPE", "disk"}};
    Texts allAttributes{{"dev", DeviceNumber(minor)},
                        {"removable", "0"},
                        {"size", "32768"},
                        {"diskseq", std::to_string(++disksThatCame)}};
    for (const auto& [key, value] : properties) {
        allProperties[key] = value;
    }
    for (const auto& [key, value] : attributes) {
        allAttributes[key] = value;
    }
    std::string path = "/devices/" + parent + "/block/" + name;
    m_testbed->Add(path, name, allProperties, allAttributes);
    return path;
}

void PretendedDisks::AddUsbDevice(const std::string& path) {
    m_testbed->Add("/devices/" + path, "", {{"SUBSYSTEM", "usb"}, {"DEVTYPE", "usb_device"}}, {});
}

std::string PretendedDisks::AddUsbDisk(const std::string& name) {
    return AddDisk("pci0/usb1/1-1-" + name + "/host6", name, {{"ID_BUS", "usb"}});
}

std::string PretendedDisks::AddEsataDisk(const std::string& name) {
    return AddDisk("pci0/ata1-" + name + "/host1", name, {{"ID_BUS", "ata"}}, {{"removable", "1"}});
}

void PretendedDisks::AddPartition(const std::string& disk, int number, const Texts& properties) {
    const std::string name = fs::path(disk).filename().string() + std::to_string(number);
    const int minor = m_minors.at(fs::path(disk).filename()) + number;
    Texts all{{"DEVTYPE", "partition"},
              {"SUBSYSTEM", "block"},
              {"MAJOR", std::to_string(kMajor)},
              {"MINOR", std::to_string(minor)}};
    for (const auto& [key, value] : properties) {
        all[key] = value;
    }
    m_testbed->Add(disk + "/" + name, name, all,
                   {{"dev", DeviceNumber(minor)}, {"partition", std::to_string(number)}});
}

void PretendedDisks::SetWrites(const std::string& path, int count) {
    const std::string text = "7 0 56 1 " + std::to_string(count) + " 0 8 1 0 4 4 0 0 0 0 0 0\n";
    umockdev_testbed_set_attribute(m_testbed->bed, ("/sys" + path).c_str(), "stat", text.c_str());
}

void PretendedDisks::Pull(const std::string& disk) {
    const std::string name = fs::path(disk).filename();
    const std::string folder = "/sys" + disk;
    std::vector<std::string> partitions;
    for (const auto& entry : fs::directory_iterator(m_testbed->Root() + folder)) {
        const std::string partition = entry.path().filename();
        if (partition.compare(0, name.size(), name) == 0) {
            partitions.push_back((fs::path(folder) / partition).string());
        }
    }
    partitions.push_back(folder);
    for (const std::string& path : partitions) {
        umockdev_testbed_remove_device(m_testbed->bed, path.c_str());
        // The library leaves this, and another disk of the name couldn't come.
        fs::remove(m_testbed->Root() + "/sys/block/" + fs::path(path).filename().string());
    }
}

void PretendedDisks::Settle(const std::string& name) {
    fs::create_directories(kDeviceManagerData);
    std::ofstream(std::string(kDeviceManagerData) + "/b" + DeviceNumber(m_minors.at(name))) << "I:1\n";
}

std::string PretendedDisks::FileOf(const std::string& name) {
    std::string file = m_testbed->Root() + "/dev/" + name;
    std::ofstream(file).close();
    fs::resize_file(file, kSize);
    return file;
}
