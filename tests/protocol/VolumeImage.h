#pragma once

#include <string>

class HFSPlusVolumeBuilder;

/** A volume in a file of its own, which goes with the object. */
class VolumeImage {
public:
    /** A small volume with a file in one piece. */
    VolumeImage();
    /** The volume that @p builder describes. */
    explicit VolumeImage(HFSPlusVolumeBuilder& builder);
    VolumeImage(const VolumeImage&) = delete;
    VolumeImage& operator=(const VolumeImage&) = delete;
    ~VolumeImage();

    [[nodiscard]] const std::string& path() const { return _path; }
    /** Every byte of the file. */
    [[nodiscard]] std::string bytes() const;

private:
    std::string _path;
};

/** A path in the folder for temporary files that no other test uses. */
[[nodiscard]] std::string uniqueTemporaryPath(const std::string& name);
