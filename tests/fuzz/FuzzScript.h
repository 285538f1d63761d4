#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "fuzz/FuzzVolumes.h"
#include "support/MemoryBlockDevice.h"

/** An input of the fuzz targets: a volume to begin from, choices for the run, and damages.
 *
 *  Byte 0 is the volume, bytes 1 to 3 are the target's choices; then come damages of
 *  kStepSize bytes each: what, where (24 bits), how, and a value (24 bits). With bit 7 of byte 1
 *  set, what follows is a sparse patch instead: place (24 bits, in units of 4 bytes), how many
 *  bytes, and these bytes, again and again. Any bytes are an input; what is missing is 0.
 */
class FuzzScript {
public:
    static constexpr size_t kHeadSize = 4;
    static constexpr size_t kStepSize = 8;
    static constexpr size_t kMostSteps = 32;
    static constexpr uint8_t kPatchBit = 0x80;

    /** Which volumes byte 0 chooses from. */
    enum class Volumes { kBuilt, kSamples };

    FuzzScript(std::span<const uint8_t> input, Volumes volumes);

    [[nodiscard]] const FuzzVolume& volume() const { return _volume; }
    /** The target's choices, 0 to 2. */
    [[nodiscard]] uint8_t choice(size_t index) const;

    /** The volume with all damages done. */
    [[nodiscard]] std::unique_ptr<MemoryBlockDevice> makeVolume() const;

private:
    struct Step {
        uint8_t what;
        uint32_t where;
        uint8_t how;
        uint32_t value;
    };

    void _applyPatch(MemoryBlockDevice& memory) const;
    void _applyStep(MemoryBlockDevice& memory, const Step& step) const;
    void _damageField(MemoryBlockDevice& memory, const Step& step) const;
    void _damageNode(MemoryBlockDevice& memory, const Step& step) const;
    void _damageByte(MemoryBlockDevice& memory, const Step& step) const;
    void _markBits(MemoryBlockDevice& memory, const Step& step) const;
    [[nodiscard]] uint64_t _newValue(const MemoryBlockDevice& memory, const Step& step,
                                     uint64_t old, uint32_t size,
                                     std::span<const HFSPlusVolumeSurvey::Field> fields) const;

    std::span<const uint8_t> _input;
    const FuzzVolume& _volume;
};
