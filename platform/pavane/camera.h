#pragma once

#include <list>
#include <string>

// Cameras that record into the shares. Implemented in pavane/recorder/camera.cpp.

// A camera as registered with the application. A value type.
class Camera {
public:
    Camera();

    int GetId() const;
    // The recording server that owns the camera; 0 = this server.
    int GetOwnerRvId() const;
    // Absolute path of the camera's own recording folder, "<share path>/<camera folder>"; empty when it has
    // none. Valid as long as the camera.
    const std::string& GetStoragePath() const;
    const std::string& GetName() const;
    // Address as text; empty when it has none.
    const std::string& GetIp() const;
    // Space that its recordings occupy, in MB.
    int GetOccupied() const;
    // Whether, and below how many MB, the oldest recordings go.
    bool IsRotatedBySpace() const;
    int GetRotationBySpace() const;

private:
    friend struct CameraAccess;  // the platform's own way to the fields

    int m_id = 0;
    int m_ownerRvId = 0;
    std::string m_storagePath;
    std::string m_name;
    std::string m_ip;
    int m_occupiedMB = 0;
    bool m_isRotatedBySpace = false;
    int m_rotationBySpaceMB = 0;
};

// Restricts a camera list. A rule as constructed restricts nothing.
struct CamFilterRule {
    static constexpr int kAnyRv = -1;

    // The recording server that owns the cameras: kAnyRv, 0 for this server, or an id.
    int ownerRvId = kAnyRv;
};

// The cameras that `filter` admits, by ascending id.
//   count       out, the number of cameras that the filter admits
//   withStatus  true: also ask each camera for its present state (not used here; slow)
// On failure an empty list and count 0. One query, by index.
std::list<Camera> CamGetList(const CamFilterRule& filter, int& count, bool withStatus);

// This server's cameras, by ascending id; the arguments narrow the list and are false or empty for all of
// them.
//   enabledOnly   only cameras that are switched on
//   name, group   only cameras of that name or group
//   withStatus    also ask each camera for its present state (slow)
//   withDeleted   also cameras that are marked as removed
// An empty list on failure.
std::list<Camera> GetCamLocalList(bool enabledOnly, const std::string& name, const std::string& group,
                                  bool withStatus, bool withDeleted);

// Path of the file that exists while the camera's recordings are being moved; its key "srcDir" names the
// camera's recording folder that they are moved out of.
std::string GetRecMigrateTmpFilePath(int camId);

// The cameras that record into the recording share `shareId`, by ascending id, added to `cameras`.
//   withStatus  also ask each camera for its present state (slow)
// 0 on success; `cameras` is unchanged otherwise. By index: other shares' cameras are not read.
int LoadAllUsingCam(std::list<Camera>& cameras, int shareId, bool withStatus);

// The recording server that owns the camera `camId`: 0 for this server, -1 when there is no such camera.
int GetCamOwnerRvId(int camId);
