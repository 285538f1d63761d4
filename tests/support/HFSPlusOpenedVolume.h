#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "HFSPlus/HFSPlusChangeMark.h"
#include "HFSPlus/HFSPlusVolume.h"
#include "VZDefragVolume.h"
#include "support/FaultyBlockDevice.h"
#include "support/HFSPlusVolumeBuilder.h"
#include "support/HFSPlusVolumeChecker.h"
#include "support/MemoryBlockDevice.h"

/** A built volume in memory, opened the way the program opens one.
 *
 *  The log starts empty when the volume is open, and faults are asked for after that. Where
 *  building or opening fails, the object is false and error() says why.
 */
class HFSPlusOpenedVolume {
public:
    explicit HFSPlusOpenedVolume(HFSPlusVolumeBuilder builder, uint32_t deviceBlockSize = 512)
        : _builder(std::move(builder)), _memory(_builder.build(deviceBlockSize))
    {
        if (_memory == nullptr) {
            _error = _builder.error();
        } else {
            _attach();
        }
    }

    /** Opens what @p memory holds. */
    explicit HFSPlusOpenedVolume(std::unique_ptr<MemoryBlockDevice> memory)
        : _memory(std::move(memory))
    {
        _attach();
    }

    [[nodiscard]] explicit operator bool() const { return _volume != nullptr; }
    [[nodiscard]] HFSPlusVolume& operator*() const { return *_volume; }
    [[nodiscard]] HFSPlusVolume* operator->() const { return _volume.get(); }
    [[nodiscard]] HFSPlusVolume& volume() const { return *_volume; }
    [[nodiscard]] const std::string& error() const { return _error; }

    [[nodiscard]] MemoryBlockDevice& memory() const { return *_memory; }
    [[nodiscard]] FaultyBlockDevice& faults() const { return *_faults; }
    /** Where everything was built; only for a volume from a builder. */
    [[nodiscard]] const HFSPlusVolumeBuilderPlan& plan() const { return _builder.plan(); }
    [[nodiscard]] std::vector<MemoryBlockDevice::Operation> operations() const
    {
        return _memory->operations();
    }

    /** The device with nothing opened, as the probe sees it. */
    [[nodiscard]] VZDefragVolume& device() const { return *_device; }

    /** Ends the volume object; what it writes then reaches the device. */
    void close() { _volume.reset(); }
    /** Opens what the device holds now, in a new volume object. */
    void reopen()
    {
        close();
        _open();
    }

    /** Marks the volume as one that is being changed and empties the log: what follows are the
     *  writes of a test's own. */
    void beginChanges()
    {
        EXPECT_TRUE(_volume->changeMark().begin(nullptr));
        _memory->clearOperations();
    }

    /** The verdict on what the device holds now, whatever is still in memory. */
    [[nodiscard]] HFSPlusCheckResult check(HFSPlusCheckOptions options = {}) const
    {
        if (_volume != nullptr && _volume->changeMark().isSet()) {
            options.demandsUnmounted = false;
        }
        const std::unique_ptr<MemoryBlockDevice> copy = _memory->clone();
        HFSPlusCheckDeviceReader reader(*copy);
        return checkHFSPlusVolume(reader, options);
    }

    /** The hashes of all forks as they are on the device now. */
    [[nodiscard]] HFSPlusForkHashes hashes(const HFSPlusHashOptions& options = {}) const
    {
        const std::unique_ptr<MemoryBlockDevice> copy = _memory->clone();
        HFSPlusCheckDeviceReader reader(*copy);
        return hashForks(reader, checkHFSPlusVolume(reader), options);
    }

private:
    void _attach()
    {
        _faults = std::make_unique<FaultyBlockDevice>(_memory->share());
        _device = VZDefragVolume::initWithBlockDevice("/dev/memory", _faults->share());
        _open();
    }

    void _open()
    {
        std::unique_ptr<VZDefragError> failure;
        _volume = HFSPlusVolume::initWithVolume(*_device, &failure);
        _error = failure != nullptr ? failure->description() : "";
        _memory->clearOperations();
    }

    HFSPlusVolumeBuilder _builder;
    std::unique_ptr<MemoryBlockDevice> _memory;
    std::unique_ptr<FaultyBlockDevice> _faults;
    std::unique_ptr<VZDefragVolume> _device;
    std::unique_ptr<HFSPlusVolume> _volume;  // null when it could not be opened
    std::string _error;
};
