#pragma once

#include <string>

// The partitions of attached external disks.

// What a partition, or the disk it is on, is doing.
enum EXT_PARTITION_STATUS : int {
    EXT_PARTITION_NORMAL = 0,
    EXT_PARTITION_FAILED = 1,
    EXT_PARTITION_CHECKED = 2,
    EXT_PARTITION_UNUSABLE = 3,
    EXT_PARTITION_UNKNOWN = 4,
    EXT_PARTITION_INITIALISED = 5,
    EXT_PARTITION_FORMATTED = 6,
};

// One usable partition; texts are cut to their sizes.
struct ExtPartition {
    int status;           // EXT_PARTITION_STATUS
    char text[32];        // a further text of the platform's
    char shareName[16];   // the external share on it; empty = none
    char mountPath[128];  // where it is mounted; empty = not known
};

// Partitions in the order of their disks; owns them.
class ExtPartitionTable {
public:
    ExtPartitionTable() = default;
    ~ExtPartitionTable() { Clear(); }
    ExtPartitionTable(const ExtPartitionTable&) = delete;
    ExtPartitionTable& operator=(const ExtPartitionTable&) = delete;

    // Makes room for `capacity` partitions; false without memory.
    bool Reserve(int capacity);
    // Adds a zeroed partition; null without memory. At most as many as were reserved.
    ExtPartition* Add();
    void Clear();

    const ExtPartition* const* begin() const { return m_rows; }
    const ExtPartition* const* end() const { return m_rows + m_count; }

private:
    ExtPartition** m_rows = nullptr;
    int m_count = 0;
};

// Fills `table`, which comes in empty, with the usable partitions of the disks of one kind
// (KORV_EXT_DEVICE_TYPE). When a step fails it is logged and `table` is left empty. Opens the root scope for
// the enumeration.
void GetExtDevInfo(int deviceType, ExtPartitionTable& table);
