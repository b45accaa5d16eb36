#include "korv/system/file_system_probe.h"

#include <memory>

#include <blkid/blkid.h>

namespace korv {

namespace {

using Probe = std::unique_ptr<blkid_struct_probe, decltype(&blkid_free_probe)>;

std::string Value(const Probe& probe, const char* name) {
    const char* value = nullptr;
    std::size_t length = 0;  // counts the NUL at the end
    const bool isThere = blkid_probe_lookup_value(probe.get(), name, &value, &length) == 0 && length > 0;
    return isThere ? std::string(value, length - 1) : std::string();
}

}  // namespace

FileSystemFacts ProbeFileSystem(const std::string& device) {
    FileSystemFacts facts;
    const Probe probe(blkid_new_probe_from_filename(device.c_str()), blkid_free_probe);
    if (probe == nullptr) {
        return facts;
    }
    blkid_probe_enable_superblocks(probe.get(), 1);
    blkid_probe_set_superblocks_flags(probe.get(),
                                      BLKID_SUBLKS_TYPE | BLKID_SUBLKS_LABEL | BLKID_SUBLKS_USAGE);
    blkid_probe_enable_partitions(probe.get(), 1);
    blkid_probe_set_partitions_flags(probe.get(), BLKID_PARTS_ENTRY_DETAILS);
    facts.isKnown = blkid_do_safeprobe(probe.get()) == 0;
    facts.type = Value(probe, "TYPE");
    facts.label = Value(probe, "LABEL");
    facts.usage = Value(probe, "USAGE");
    facts.partitionType = Value(probe, "PART_ENTRY_TYPE");
    return facts;
}

}  // namespace korv
