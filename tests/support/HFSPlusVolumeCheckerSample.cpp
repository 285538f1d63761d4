#include "support/HFSPlusVolumeCheckerSample.h"

#include <cstdio>
#include <cstdlib>

bool HFSPlusCheckPatchedReader::read(void* buffer, size_t nbyte, uint64_t offset)
{
    if (!_reader.read(buffer, nbyte, offset)) {
        return false;
    }
    auto* bytes = static_cast<uint8_t*>(buffer);
    for (auto patch = _patches.lower_bound(offset);
         patch != _patches.end() && patch->first - offset < nbyte; ++patch) {
        bytes[patch->first - offset] = patch->second;
    }
    return true;
}

HFSPlusCheckSample::HFSPlusCheckSample(const std::string& name)
    : _whole(HFSPlusCheckFileReader::initWithPath(std::string(VZ_SAMPLE_VOLUMES_DIR) + "/" + name +
                                                  ".img"))
{
    if (_whole != nullptr) {
        _patched = std::make_unique<HFSPlusCheckPatchedReader>(*_whole);
        _sound = checkHFSPlusVolume(*_patched);
    }
}

HFSPlusCheckSample::HFSPlusCheckSample(std::unique_ptr<MemoryBlockDevice> device)
    : _device(std::move(device))
{
    if (_device != nullptr) {
        _whole = std::make_unique<HFSPlusCheckDeviceReader>(*_device);
        _patched = std::make_unique<HFSPlusCheckPatchedReader>(*_whole);
        _sound = checkHFSPlusVolume(*_patched);
    }
}

uint64_t HFSPlusCheckSample::_deviceByte(Place place) const
{
    if (place.cnid == 0) {
        return _sound.volumeOffset + place.offset;
    }
    uint64_t offset = place.offset;
    for (const HFSPlusCheckedExtent& extent : _sound.forkWithCNID(place.cnid)->extents) {
        const uint64_t size = uint64_t{extent.blockCount} * _sound.blockSize;
        if (offset < size) {
            return _sound.volumeOffset + uint64_t{extent.startBlock} * _sound.blockSize + offset;
        }
        offset -= size;
    }
    std::fprintf(stderr, "No such byte in file %u.\n", place.cnid);
    std::abort();
}

const HFSPlusCheckedTree& HFSPlusCheckSample::tree(uint32_t cnid) const
{
    return cnid == kCatalogFile ? _sound.catalog
                                : (cnid == kExtentsFile ? _sound.extents : _sound.attributesTree);
}

HFSPlusCheckSample::Place HFSPlusCheckSample::node(uint32_t cnid, uint32_t number) const
{
    return {cnid, uint64_t{number} * tree(cnid).nodeSize};
}

HFSPlusCheckSample::Place HFSPlusCheckSample::record(uint32_t cnid, uint32_t number, size_t index)
{
    const Place start = node(cnid, number);
    return start + get(start + (tree(cnid).nodeSize - 2 - 2 * index), 2);
}

HFSPlusCheckSample::Place HFSPlusCheckSample::leafData(
    uint32_t cnid, const std::function<bool(Place key, Place data)>& matches)
{
    uint32_t number = tree(cnid).firstLeafNode;
    // The sample is sound, so its leaves form a chain that ends.
    while (number != 0) {
        const Place leaf = node(cnid, number);
        const uint64_t count = get(leaf + 10, 2);
        for (size_t index = 0; index < count; ++index) {
            const Place key = record(cnid, number, index);
            const Place data = key + (2 + get(key, 2));
            if (matches(key, data)) {
                return data;
            }
        }
        number = static_cast<uint32_t>(get(leaf, 4));
    }
    std::fprintf(stderr, "No such record in tree %u.\n", cnid);
    std::abort();
}

HFSPlusCheckSample::Place HFSPlusCheckSample::catalogRecord(uint16_t type, uint32_t cnid)
{
    return leafData(kCatalogFile, [&](Place, Place data) {
        return get(data, 2) == type && get(data + 8, 4) == cnid;
    });
}

HFSPlusCheckSample::Place HFSPlusCheckSample::threadRecord(uint32_t cnid)
{
    return leafData(kCatalogFile, [&](Place key, Place data) {
        return get(data, 2) >= 3 && get(key + 2, 4) == cnid;
    });
}

uint64_t HFSPlusCheckSample::get(Place place, size_t nbyte)
{
    uint64_t value = 0;
    for (size_t index = 0; index < nbyte; ++index) {
        uint8_t byte = 0;
        if (!_patched->read(&byte, 1, _deviceByte(place + index))) {
            std::fprintf(stderr, "The sample volume cannot be read.\n");
            std::abort();
        }
        value = value << 8 | byte;
    }
    return value;
}

void HFSPlusCheckSample::put(Place place, size_t nbyte, uint64_t value)
{
    for (size_t index = 0; index < nbyte; ++index) {
        _patched->setByte(_deviceByte(place + index),
                          static_cast<uint8_t>(value >> 8 * (nbyte - 1 - index)));
    }
}

void HFSPlusCheckSample::change(Place place, size_t nbyte, int64_t by)
{
    put(place, nbyte, get(place, nbyte) + static_cast<uint64_t>(by));
}

void HFSPlusCheckSample::putBit(Place bitmap, uint64_t index, bool isSet)
{
    const Place place = bitmap + index / 8;
    const uint64_t mask = uint64_t{0x80} >> index % 8;
    put(place, 1, isSet ? get(place, 1) | mask : get(place, 1) & ~mask);
}
