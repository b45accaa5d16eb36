#pragma once

#include <list>
#include <optional>
#include <string>
#include <vector>

#include "pavane/store/database.h"

// The table of cameras, as those who register them see it. Failures are thrown (pavane/store/database.h).
namespace pavane {

struct CameraRecord {
    int id = 0;
    int ownerRvId = 0;
    std::string name;           // unique per owner
    std::string recordingPath;  // "<share path>/<camera folder>" or empty
    int recStorageStatus = 0;   // 1 = the folder is not in use
    std::string ip{};           // empty = none
    int occupiedMB = 0;         // space that its recordings take
    int rotatedBySpace = 0;     // 1 = the oldest recordings go when less than the next is free
    int rotationBySpaceMB = 0;
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

std::optional<CameraRecord> FindCamera(int id);

// The cameras that record into the recording share `shareId`, by ascending id: those of its owner whose
// folder lies below its own and is in use. Reads no other cameras. None for a share that there isn't.
std::list<CameraRecord> ListCamerasOfShare(int shareId);

// The statement that reads them; :share stands for the share's id.
std::string CamerasOfShareStatement(DatabaseKind kind);

}  // namespace pavane
