#include "support/HFSPlusVolumeBuilderRecords.h"

#include <algorithm>

#include "support/HFSPlusVolumeBuilderNames.h"

namespace {

constexpr uint32_t kDate = 3600000000;  // in 2018
constexpr uint16_t kThreadExists = 0x0002;
constexpr uint16_t kHasFolderCount = 0x0010;
constexpr uint32_t kRootParent = 1;
constexpr uint32_t kInlineAttribute = 0x10;
constexpr uint32_t kForkAttribute = 0x20;
constexpr uint32_t kExtentsAttribute = 0x30;

void putAttributeKey(HFSPlusVolumeBuilderBytes& key, const HFSPlusBuilderAttribute& attribute,
                     uint32_t startBlock)
{
    key.clear();
    key.put16(static_cast<uint16_t>(12 + 2 * attribute.name.size()));
    key.put16(0);
    key.put32(attribute.fileID);
    key.put32(startBlock);
    key.name(attribute.name);
}

bool visitForkAttribute(const HFSPlusBuilderSpec& spec, const HFSPlusBuilderAttribute& attribute,
                        const HFSPlusBuilderRecordSink& sink)
{
    HFSPlusVolumeBuilderBytes key;
    HFSPlusVolumeBuilderBytes data;
    const HFSPlusBuilderExtents& extents = attribute.fork.extents;
    putAttributeKey(key, attribute, 0);
    data.put32(kForkAttribute);
    data.put32(0);
    data.forkData(extents, attribute.fork.size(spec.blockSize), spec.blockSize);
    if (!sink(key.bytes(), data.bytes())) {
        return false;
    }
    uint64_t block = 0;
    for (size_t index = 0; index < extents.size(); index++) {
        if (index >= 8 && index % 8 == 0) {
            putAttributeKey(key, attribute, static_cast<uint32_t>(block));
            data.clear();
            data.put32(kExtentsAttribute);
            data.put32(0);
            data.extentRecord(extents, index);
            if (!sink(key.bytes(), data.bytes())) {
                return false;
            }
        }
        block += extents[index].blockCount;
    }
    return true;
}

}  // namespace

HFSPlusVolumeBuilderCatalog::HFSPlusVolumeBuilderCatalog(const HFSPlusBuilderSpec& spec)
    : _spec(spec), _children(spec.objects.size())
{
    for (size_t index = 1; index < spec.objects.size(); index++) {
        _children[spec.objects[index].parent].push_back(index);
    }
    for (std::vector<size_t>& children : _children) {
        std::ranges::sort(children, [&](size_t one, size_t two) {
            return compareNames(spec.objects[one].name, spec.objects[two].name,
                                spec.binaryCompare) < 0;
        });
    }
}

bool HFSPlusVolumeBuilderCatalog::visit(const HFSPlusBuilderRecordSink& sink)
{
    struct Stretch {
        uint32_t firstCNID;
        const HFSPlusBuilderBulk* bulk;  // null: the object of this index
        size_t object;
    };
    std::vector<Stretch> stretches;
    for (size_t index = 0; index < _spec.objects.size(); index++) {
        stretches.push_back({_spec.objects[index].cnid, nullptr, index});
    }
    for (const HFSPlusBuilderBulk& bulk : _spec.bulks) {
        stretches.push_back({bulk.firstCNID, &bulk, 0});
    }
    std::ranges::sort(stretches, {}, &Stretch::firstCNID);

    _sink = &sink;
    if (!_visitObject(_spec.objects[0], 0)) {
        return false;
    }
    return std::ranges::all_of(stretches, [&](const Stretch& stretch) {
        if (stretch.bulk != nullptr) {
            return _visitBulkThreads(*stretch.bulk);
        }
        return _visitThread(_spec.objects[stretch.object]) && _visitChildren(stretch.object);
    });
}

bool HFSPlusVolumeBuilderCatalog::_visitBulkThreads(const HFSPlusBuilderBulk& bulk)
{
    for (uint64_t number = 0; number < bulk.count; number++) {
        if (!_visitThread(_bulkObject(bulk, number))) {
            return false;
        }
    }
    return true;
}

bool HFSPlusVolumeBuilderCatalog::_visitChildren(size_t folder)
{
    const std::vector<size_t>& children = _children[folder];
    const auto bulk = std::ranges::find(_spec.bulks, folder, &HFSPlusBuilderBulk::folder);
    const uint64_t count = bulk == _spec.bulks.end() ? 0 : bulk->count;
    HFSPlusBuilderObject made = count > 0 ? _bulkObject(*bulk, 0) : HFSPlusBuilderObject{};
    std::u16string_view previous;
    std::u16string previousMade;
    uint64_t number = 0;
    size_t child = 0;
    while (child < children.size() || number < count) {
        const HFSPlusBuilderObject* object =
            child < children.size() ? &_spec.objects[children[child]] : nullptr;
        const bool takesMade =
            number < count &&
            (object == nullptr || compareNames(made.name, object->name, _spec.binaryCompare) < 0);
        const HFSPlusBuilderObject& next = takesMade ? made : *object;
        if ((child > 0 || number > 0) &&
            compareNames(previous, next.name, _spec.binaryCompare) >= 0) {
            return false;
        }
        if (!_visitObject(next, takesMade ? 0 : children[child])) {
            return false;
        }
        if (!takesMade) {
            previous = object->name;
            child++;
            continue;
        }
        previousMade = made.name;
        previous = previousMade;
        number++;
        if (number < count) {
            made = _bulkObject(*bulk, number);
        }
    }
    return true;
}

bool HFSPlusVolumeBuilderCatalog::_visitObject(const HFSPlusBuilderObject& object, size_t index)
{
    _key.clear();
    _key.put16(static_cast<uint16_t>(6 + 2 * object.name.size()));
    _key.put32(_parentID(object));
    _key.name(object.name);
    _data.clear();
    if (object.isFolder) {
        _putFolder(object, index);
    } else {
        _putFile(object);
    }
    return (*_sink)(_key.bytes(), _data.bytes());
}

bool HFSPlusVolumeBuilderCatalog::_visitThread(const HFSPlusBuilderObject& object)
{
    _key.clear();
    _key.put16(6);
    _key.put32(object.cnid);
    _key.put16(0);
    _data.clear();
    _data.put16(object.isFolder ? 3 : 4);
    _data.put16(0);
    _data.put32(_parentID(object));
    _data.name(object.name);
    return (*_sink)(_key.bytes(), _data.bytes());
}

void HFSPlusVolumeBuilderCatalog::_putFolder(const HFSPlusBuilderObject& object, size_t index)
{
    uint64_t valence = _children[index].size();
    for (const HFSPlusBuilderBulk& bulk : _spec.bulks) {
        valence += bulk.folder == index ? bulk.count : 0;
    }
    const auto folders = std::ranges::count_if(
        _children[index], [&](size_t child) { return _spec.objects[child].isFolder; });
    _data.put16(1);
    _data.put16(object.flags | (_spec.hfsx ? kHasFolderCount : uint16_t{0}));
    _data.put32(static_cast<uint32_t>(valence));
    _putCommon(object);
    _data.zeros(32);  // Finder information
    _data.put32(0);   // text encoding
    _data.put32(_spec.hfsx ? static_cast<uint32_t>(folders) : 0);
}

void HFSPlusVolumeBuilderCatalog::_putFile(const HFSPlusBuilderObject& object)
{
    const uint32_t blockSize = _spec.blockSize;
    _data.put16(2);
    _data.put16(object.flags | kThreadExists);
    _data.put32(0);
    _putCommon(object);
    _data.put32(object.fileType);
    _data.put32(object.fileCreator);
    _data.put16(object.finderFlags);
    _data.zeros(22);
    _data.put32(0);  // text encoding
    _data.put32(0);
    _data.forkData(object.data.extents, object.data.size(blockSize), 0);
    _data.forkData(object.resource.extents, object.resource.size(blockSize), 0);
}

void HFSPlusVolumeBuilderCatalog::_putCommon(const HFSPlusBuilderObject& object)
{
    const uint16_t fileMode = object.isFolder ? 0040755 : 0100644;
    _data.put32(object.cnid);
    for (int date = 0; date < 4; date++) {
        _data.put32(kDate);
    }
    _data.put32(0);  // backupDate
    _data.zeros(10);
    _data.put16(object.fileMode != 0 ? object.fileMode : fileMode);
    _data.put32(object.special);
}

HFSPlusBuilderObject HFSPlusVolumeBuilderCatalog::_bulkObject(const HFSPlusBuilderBulk& bulk,
                                                              uint64_t number)
{
    HFSPlusBuilderBulkFile file;
    bulk.generator(number, file);
    HFSPlusBuilderObject object;
    object.name = unitsOfText(file.name);
    object.cnid = static_cast<uint32_t>(bulk.firstCNID + number);
    object.parent = bulk.folder;
    object.data = std::move(file.data);
    object.resource = std::move(file.resource);
    return object;
}

uint32_t HFSPlusVolumeBuilderCatalog::_parentID(const HFSPlusBuilderObject& object) const
{
    return object.cnid == _spec.objects[0].cnid ? kRootParent : _spec.objects[object.parent].cnid;
}

bool visitAttributeRecords(const HFSPlusBuilderSpec& spec, const HFSPlusBuilderRecordSink& sink)
{
    for (const HFSPlusBuilderAttribute& attribute : spec.attributes) {
        if (attribute.hasFork) {
            if (!visitForkAttribute(spec, attribute, sink)) {
                return false;
            }
            continue;
        }
        HFSPlusVolumeBuilderBytes key;
        HFSPlusVolumeBuilderBytes data;
        putAttributeKey(key, attribute, 0);
        data.put32(kInlineAttribute);
        data.zeros(8);
        data.put32(static_cast<uint32_t>(attribute.bytes.size()));
        for (const char byte : attribute.bytes) {
            data.put8(static_cast<uint8_t>(byte));
        }
        if (!sink(key.bytes(), data.bytes())) {
            return false;
        }
    }
    return true;
}

bool visitOverflowRecords(const std::vector<HFSPlusBuilderOverflow>& records,
                          const HFSPlusBuilderRecordSink& sink)
{
    HFSPlusVolumeBuilderBytes key;
    HFSPlusVolumeBuilderBytes data;
    return std::ranges::all_of(records, [&](const HFSPlusBuilderOverflow& record) {
        key.clear();
        key.put16(10);
        key.put8(record.forkType);
        key.put8(0);
        key.put32(record.fileID);
        key.put32(record.startBlock);
        data.clear();
        data.extentRecord(record.extents, 0);
        return sink(key.bytes(), data.bytes());
    });
}
