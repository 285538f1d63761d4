#include "support/HFSPlusVolumeBuilder.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "support/HFSPlusVolumeBuilderNames.h"
#include "support/HFSPlusVolumeBuilderPatcher.h"
#include "support/HFSPlusVolumeBuilderWriter.h"
#include "support/SparseFileSink.h"
#include "support/SparseMemorySink.h"

namespace {

constexpr uint32_t kRootFolderID = 2;
constexpr uint16_t kSymbolicLinkMode = 0120777;
constexpr uint32_t kTypeSymbolicLink = 0x736C6E6B;     // slnk
constexpr uint32_t kCreatorSymbolicLink = 0x72686170;  // rhap
constexpr uint32_t kTypeHardLink = 0x686C6E6B;         // hlnk
constexpr uint32_t kCreatorHardLink = 0x6866732B;      // hfs+

void nameByNumber(uint64_t index, HFSPlusBuilderBulkFile& file)
{
    std::array<char, 32> name{};
    std::snprintf(name.data(), name.size(), "file %010llu", static_cast<unsigned long long>(index));
    file.name = name.data();
}

}  // namespace

HFSPlusVolumeBuilder::HFSPlusVolumeBuilder()
{
    HFSPlusBuilderObject root;
    root.cnid = kRootFolderID;
    root.isFolder = true;
    root.name = _spec.volumeName;
    _spec.objects.push_back(root);
}

bool HFSPlusVolumeBuilder::writeTo(SparseSink& sink)
{
    auto plan = std::make_shared<HFSPlusVolumeBuilderPlan>(_spec);
    if (!plan->settle(_error)) {
        return false;
    }
    _plan = plan;
    HFSPlusVolumeBuilderWriter writer(*plan, sink);
    if (!writer.write()) {
        _error = "the volume could not be written";
        return false;
    }
    HFSPlusVolumeBuilderPatcher patcher(*plan, sink);
    for (size_t index = 0; index < _spec.damages.size(); index++) {
        if (!_spec.damages[index](patcher)) {
            _error = "damage " + std::to_string(index) + " hits nothing";
            return false;
        }
    }
    return true;
}

bool HFSPlusVolumeBuilder::buildFile(const std::string& path)
{
    SparseFileSink sink(path);
    if (!sink.isOpen()) {
        _error = "the file could not be created";
        return false;
    }
    return writeTo(sink);
}

std::unique_ptr<MemoryBlockDevice> HFSPlusVolumeBuilder::build(uint32_t deviceBlockSize)
{
    auto device = std::make_unique<MemoryBlockDevice>(0, deviceBlockSize);
    SparseMemorySink sink(*device);
    return writeTo(sink) ? std::move(device) : nullptr;
}

HFSPlusVolumeBuilder& HFSPlusVolumeBuilder::folder(std::string_view path, uint32_t cnid)
{
    _selected = _object(path, cnid, true);
    return *this;
}

HFSPlusVolumeBuilder& HFSPlusVolumeBuilder::file(std::string_view path, uint32_t cnid)
{
    _selected = _object(path, cnid, false);
    return *this;
}

HFSPlusVolumeBuilder& HFSPlusVolumeBuilder::symbolicLink(std::string_view path, uint32_t cnid,
                                                         std::string target)
{
    file(path, cnid).type(kTypeSymbolicLink, kCreatorSymbolicLink).mode(kSymbolicLinkMode);
    automaticData(1).dataSize(target.size());
    return dataBeginning(std::move(target));
}

HFSPlusVolumeBuilder& HFSPlusVolumeBuilder::hardLink(std::string_view path, uint32_t cnid,
                                                     uint32_t reference)
{
    return file(path, cnid).type(kTypeHardLink, kCreatorHardLink).mode(0100444, reference);
}

HFSPlusVolumeBuilder& HFSPlusVolumeBuilder::attribute(std::string_view name, std::string bytes)
{
    HFSPlusBuilderAttribute attribute;
    attribute.object = _selected;
    attribute.name = unitsOfText(name);
    attribute.bytes = std::move(bytes);
    _spec.attributes.push_back(std::move(attribute));
    return *this;
}

HFSPlusVolumeBuilder& HFSPlusVolumeBuilder::forkAttribute(std::string_view name,
                                                          HFSPlusBuilderExtents extents)
{
    HFSPlusBuilderAttribute attribute;
    attribute.object = _selected;
    attribute.name = unitsOfText(name);
    attribute.fork.extents = std::move(extents);
    attribute.hasFork = true;
    _spec.attributes.push_back(std::move(attribute));
    return *this;
}

HFSPlusVolumeBuilder& HFSPlusVolumeBuilder::manyFiles(uint64_t count,
                                                      HFSPlusBuilderGenerator generator,
                                                      std::string_view folder, uint32_t firstCNID)
{
    HFSPlusBuilderBulk bulk;
    bulk.folder = _object(folder, 0, true);
    bulk.firstCNID = firstCNID;
    bulk.count = count;
    bulk.generator = generator != nullptr ? std::move(generator) : nameByNumber;
    _spec.bulks.push_back(std::move(bulk));
    return *this;
}

size_t HFSPlusVolumeBuilder::_object(std::string_view path, uint32_t cnid, bool isFolder)
{
    const std::vector<std::u16string> components = unitsOfPath(path);
    size_t current = 0;
    for (size_t depth = 0; depth < components.size(); depth++) {
        const bool isLast = depth + 1 == components.size();
        const auto [place, isNew] =
            _index.try_emplace({current, components[depth]}, _spec.objects.size());
        if (isNew) {
            HFSPlusBuilderObject object;
            object.name = components[depth];
            object.parent = current;
            object.isFolder = !isLast || isFolder;
            _spec.objects.push_back(std::move(object));
        }
        current = place->second;
    }
    if (cnid != 0) {
        _spec.objects[current].cnid = cnid;
    }
    return current;
}

HFSPlusBuilderJournal& HFSPlusVolumeBuilder::_journal()
{
    if (!_spec.journal.has_value()) {
        _spec.journal.emplace();
    }
    return *_spec.journal;
}
