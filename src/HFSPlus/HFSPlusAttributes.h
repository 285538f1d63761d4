#pragma once

#include "HFSPlus/HFSPlusBTreeFile.h"

/** The attributes file (TN1150, "Attributes File"): opened so that its extents are known; its
 *  nodes are never written. */
class HFSPlusAttributes : public HFSPlusBTreeFile {
public:
    [[nodiscard]] static std::unique_ptr<HFSPlusAttributes> initWithVolume(HFSPlusVolume& volume,
                                                                           VZDefragErrorSlot error);

    /** Order of two raw keys whose names lie inside them: file, name by raw units, start block. */
    [[nodiscard]] static int compare(std::span<const uint8_t> left, std::span<const uint8_t> right);
    /** Succeeds and writes nothing. */
    [[nodiscard]] bool flush() override;

private:
    explicit HFSPlusAttributes(HFSPlusVolume& volume);
};
