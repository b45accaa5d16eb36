#pragma once

#include <list>
#include <string>
#include <vector>

// The table of cameras, as those who register them see it. Failures are thrown (pavane/store/database.h).
namespace pavane {

struct CameraRecord {
    int id = 0;
    int ownerRvId = 0;
    std::string name;           // unique per owner
    std::string recordingPath;  // "<share path>/<camera folder>" or empty
    int recStorageStatus = 0;   // 1 = the folder is not in use
};

// Adds the cameras, or changes those that exist already under (owner, name); ids are not looked at. All or
// nothing.
void ImportCameras(std::vector<CameraRecord>& cameras);

struct CameraPage {
    std::list<CameraRecord> cameras;
    int total = 0;
};

// The cameras by ascending id: at most `limit`, after skipping `offset`; `total` counts all.
CameraPage ListCameras(int offset, int limit);

}  // namespace pavane
