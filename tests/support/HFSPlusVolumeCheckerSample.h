#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "support/HFSPlusVolumeChecker.h"
#include "support/MemoryBlockDevice.h"

/** A reader with some bytes changed, so that damage needs no copy of the volume. */
class HFSPlusCheckPatchedReader final : public HFSPlusCheckReader {
public:
    explicit HFSPlusCheckPatchedReader(HFSPlusCheckReader& reader) : _reader(reader) {}

    [[nodiscard]] bool read(void* buffer, size_t nbyte, uint64_t offset) override;
    [[nodiscard]] uint64_t size() const override { return _reader.size(); }

    void setByte(uint64_t offset, uint8_t value) { _patches[offset] = value; }
    void clear() { _patches.clear(); }

private:
    HFSPlusCheckReader& _reader;
    std::map<uint64_t, uint8_t> _patches;
};

/** A sound volume and the places in it that a test damages. Nothing reaches the image. */
class HFSPlusCheckSample {
public:
    /** A byte of a special file, or of the volume when cnid is 0. */
    struct Place {
        uint32_t cnid = 0;
        uint64_t offset = 0;

        Place operator+(uint64_t distance) const { return {cnid, offset + distance}; }
    };

    static constexpr uint32_t kExtentsFile = 3;
    static constexpr uint32_t kCatalogFile = 4;
    static constexpr uint32_t kAllocationFile = 6;
    static constexpr uint32_t kAttributesFile = 8;

    /** Takes a sample volume by its name. */
    explicit HFSPlusCheckSample(const std::string& name);
    /** Takes a built volume; null makes a volume that is not sound. */
    explicit HFSPlusCheckSample(std::unique_ptr<MemoryBlockDevice> device);

    /** Whether the image could be read and is sound as it is. */
    [[nodiscard]] bool isSound() const { return _sound.consistent; }
    [[nodiscard]] const HFSPlusCheckResult& sound() const { return _sound; }
    [[nodiscard]] HFSPlusCheckPatchedReader& reader() { return *_patched; }

    /** A field of the volume header. */
    [[nodiscard]] static Place headerField(uint64_t offset) { return {0, 1024 + offset}; }
    [[nodiscard]] Place node(uint32_t tree, uint32_t number) const;
    /** Where record @p index of a node begins, with its key length. */
    [[nodiscard]] Place record(uint32_t tree, uint32_t number, size_t index);
    /** The data of the first leaf record whose data @p matches takes; stops the test if none. */
    [[nodiscard]] Place leafData(uint32_t tree,
                                 const std::function<bool(Place key, Place data)>& matches);
    /** The catalog's data about a file or folder, and about its thread. */
    [[nodiscard]] Place catalogRecord(uint16_t type, uint32_t cnid);
    [[nodiscard]] Place threadRecord(uint32_t cnid);
    /** The number in the tree's header record. */
    [[nodiscard]] const HFSPlusCheckedTree& tree(uint32_t cnid) const;

    [[nodiscard]] uint64_t get(Place place, size_t nbyte);
    void put(Place place, size_t nbyte, uint64_t value);
    /** Adds to the number at @p place. */
    void change(Place place, size_t nbyte, int64_t by);
    /** Sets or clears the bit of a block in the bitmap. */
    void putBit(Place bitmap, uint64_t index, bool isSet);

    [[nodiscard]] HFSPlusCheckResult check() { return checkHFSPlusVolume(*_patched); }

private:
    [[nodiscard]] uint64_t _deviceByte(Place place) const;

    std::unique_ptr<MemoryBlockDevice> _device;
    std::unique_ptr<HFSPlusCheckReader> _whole;
    std::unique_ptr<HFSPlusCheckPatchedReader> _patched;
    HFSPlusCheckResult _sound;
};
