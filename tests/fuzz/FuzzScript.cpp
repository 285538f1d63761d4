#include "fuzz/FuzzScript.h"

#include <algorithm>
#include <array>
#include <vector>

#include "support/HFSPlusVolumeBuilderBytes.h"

namespace {

using Field = HFSPlusVolumeSurvey::Field;
using Node = HFSPlusVolumeSurvey::Node;

constexpr uint32_t kSectorSize = 512;
constexpr size_t kPatchHeadSize = 4;

/** What a step does, by its lowest five bits: a damage to a field of the group, or one of these. */
enum class What : uint8_t { kNode = 100, kByte, kBits, kSize };
constexpr uint8_t groupOf(HFSPlusFieldGroup group)
{
    return static_cast<uint8_t>(group);
}
constexpr uint8_t kWhats[32] = {
    groupOf(HFSPlusFieldGroup::kHeader),       groupOf(HFSPlusFieldGroup::kHeader),
    groupOf(HFSPlusFieldGroup::kHeaderFork),   groupOf(HFSPlusFieldGroup::kHeaderFork),
    groupOf(HFSPlusFieldGroup::kHeaderFork),   groupOf(HFSPlusFieldGroup::kAlternate),
    groupOf(HFSPlusFieldGroup::kWrapper),      groupOf(HFSPlusFieldGroup::kJournal),
    groupOf(HFSPlusFieldGroup::kBitmap),       groupOf(HFSPlusFieldGroup::kTreeHeader),
    groupOf(HFSPlusFieldGroup::kTreeHeader),   groupOf(HFSPlusFieldGroup::kNodeMap),
    groupOf(HFSPlusFieldGroup::kDescriptor),   groupOf(HFSPlusFieldGroup::kDescriptor),
    groupOf(HFSPlusFieldGroup::kRecordOffset), groupOf(HFSPlusFieldGroup::kRecordOffset),
    groupOf(HFSPlusFieldGroup::kKeyLength),    groupOf(HFSPlusFieldGroup::kKey),
    groupOf(HFSPlusFieldGroup::kKey),          groupOf(HFSPlusFieldGroup::kChild),
    groupOf(HFSPlusFieldGroup::kFileFork),     groupOf(HFSPlusFieldGroup::kFileFork),
    groupOf(HFSPlusFieldGroup::kFileFork),     groupOf(HFSPlusFieldGroup::kOverflow),
    groupOf(HFSPlusFieldGroup::kOverflow),     groupOf(HFSPlusFieldGroup::kRecord),
    groupOf(HFSPlusFieldGroup::kRecord),       groupOf(HFSPlusFieldGroup::kFileOfNumbers),
    static_cast<uint8_t>(What::kNode),         static_cast<uint8_t>(What::kByte),
    static_cast<uint8_t>(What::kBits),         static_cast<uint8_t>(What::kSize),
};

uint64_t numberAt(const MemoryBlockDevice& memory, uint64_t place, uint32_t size)
{
    std::array<uint8_t, 8> bytes{};
    memory.peek(bytes.data(), size, place);
    return getBigEndian(bytes.data(), size);
}

/** Nothing beyond the device's end is written, which would make it longer. */
void setNumber(MemoryBlockDevice& memory, uint64_t place, uint32_t size, uint64_t value)
{
    std::array<uint8_t, 8> bytes{};
    putBigEndian(bytes.data(), value, size);
    if (place + size <= memory.size()) {
        memory.poke(bytes.data(), size, place);
    }
}

/** Many different bits of few. */
uint64_t mixed(uint64_t value)
{
    value = (value + 1) * 0x9E3779B97F4A7C15U;
    value ^= value >> 29;
    return value * 0xBF58476D1CE4E5B9U;
}

/** Element @p where of 2^24 equal parts of @p count. */
size_t scaled(uint32_t where, size_t count)
{
    return static_cast<size_t>(uint64_t{where} * count >> 24);
}

size_t volumeIndex(std::span<const uint8_t> input, FuzzScript::Volumes volumes)
{
    const size_t built = builtFuzzVolumeCount();
    const size_t choice = input.empty() ? 0 : input[0];
    return volumes == FuzzScript::Volumes::kBuilt ? choice % built
                                                  : built + choice % (fuzzVolumeCount() - built);
}

}  // namespace

FuzzScript::FuzzScript(std::span<const uint8_t> input, Volumes volumes)
    : _input(input), _volume(fuzzVolumeAtIndex(volumeIndex(input, volumes)))
{
}

uint8_t FuzzScript::choice(size_t index) const
{
    return index + 1 < _input.size() ? _input[index + 1] : 0;
}

std::unique_ptr<MemoryBlockDevice> FuzzScript::makeVolume() const
{
    auto memory = _volume.memory->clone();
    if ((choice(0) & kPatchBit) != 0) {
        _applyPatch(*memory);
        return memory;
    }
    for (size_t index = 0; index < kMostSteps; ++index) {
        const size_t start = kHeadSize + index * kStepSize;
        if (start + kStepSize > _input.size()) {
            break;
        }
        const uint8_t* const bytes = &_input[start];
        _applyStep(*memory, {.what = bytes[0],
                             .where = static_cast<uint32_t>(getBigEndian(bytes + 1, 3)),
                             .how = bytes[4],
                             .value = static_cast<uint32_t>(getBigEndian(bytes + 5, 3))});
    }
    return memory;
}

void FuzzScript::_applyPatch(MemoryBlockDevice& memory) const
{
    size_t index = kHeadSize;
    while (index + kPatchHeadSize < _input.size()) {
        const uint64_t place = 4 * getBigEndian(&_input[index], 3);
        const size_t given = _input[index + 3];
        index += kPatchHeadSize;
        const size_t count = std::min(given, _input.size() - index);
        if (place + count <= memory.size()) {
            memory.poke(&_input[index], count, place);
        }
        index += count;
    }
}

void FuzzScript::_applyStep(MemoryBlockDevice& memory, const Step& step) const
{
    switch (What{kWhats[step.what % 32]}) {
        case What::kNode:
            return _damageNode(memory, step);
        case What::kByte:
            return _damageByte(memory, step);
        case What::kBits:
            return _markBits(memory, step);
        case What::kSize:
            // Shorter or longer, by sectors or by more than a block.
            return memory.setSize(step.how % 2 == 0 ? memory.size() + step.value % 64 * kSectorSize
                                                    : uint64_t{step.value} * kSectorSize %
                                                          (_volume.memory->size() + kSectorSize));
        default:
            return _damageField(memory, step);
    }
}

uint64_t FuzzScript::_newValue(const MemoryBlockDevice& memory, const Step& step, uint64_t old,
                               uint32_t size, std::span<const Field> fields) const
{
    const uint64_t sign = uint64_t{1} << (8 * size - 1);
    const uint32_t totalBlocks = _volume.survey->result().totalBlocks;
    const Field& other = fields[scaled(step.value, fields.size())];
    switch (step.how % 20) {
        case 0:
            return step.value % 256;
        case 1:
            return UINT64_MAX - step.value % 4;
        case 2:
            return sign - 1 + step.value % 3;
        case 3:
            return old + 1 + step.value % 16;
        case 4:
            return old - 1 - step.value % 16;
        case 5:
            return old << (1 + step.value % 7);
        case 6:
            return old >> (1 + step.value % 7);
        case 7:
            return old ^ (uint64_t{1} << step.value % (8 * size));
        case 8:
            return totalBlocks + 2 - step.value % 5;
        case 9:
            return step.value % totalBlocks;
        case 10:
            return step.value;
        case 11:
            return uint64_t{step.value} << 8;
        case 12:
        case 13:
        case 14:
            return numberAt(memory, other.place, std::min(size, other.size));
        case 15:
            return uint64_t{1} << step.value % 64;
        case 16:
            return 512U << step.value % 8;
        case 17:
            return old + (uint64_t{1} << step.value % 40);
        case 18:
            return 0 - old - step.value % 3;
        default:
            return mixed(step.value);
    }
}

void FuzzScript::_damageField(MemoryBlockDevice& memory, const Step& step) const
{
    const auto group = HFSPlusFieldGroup{kWhats[step.what % 32]};
    const std::span<const Field> fields = _volume.survey->fields(group);
    if (fields.empty()) {
        return;
    }
    const Field& field = fields[scaled(step.where, fields.size())];
    const uint64_t old = numberAt(memory, field.place, field.size);
    const uint64_t value = _newValue(memory, step, old, field.size, fields);
    setNumber(memory, field.place, field.size, value);
    constexpr uint8_t kExchange = 14;
    if (step.how % 20 == kExchange) {
        const Field& other = fields[scaled(step.value, fields.size())];
        setNumber(memory, other.place, other.size, old);
    }
    // A change of the header may be in both copies.
    if (group == HFSPlusFieldGroup::kHeader && step.how >= 128) {
        const HFSPlusCheckResult& result = _volume.survey->result();
        const uint64_t offset = field.place - result.volumeOffset - 1024;
        setNumber(memory, result.volumeOffset + result.volumeSize - 1024 + offset, field.size,
                  value);
    }
}

void FuzzScript::_damageNode(MemoryBlockDevice& memory, const Step& step) const
{
    const std::span<const Node> nodes = _volume.survey->nodes();
    if (nodes.empty()) {
        return;
    }
    const Node& target = nodes[scaled(step.where, nodes.size())];
    const Node& source = nodes[scaled(step.value, nodes.size())];
    for (size_t index = 0; index < target.size(); ++index) {
        std::array<uint8_t, kSectorSize> bytes{};
        if (step.how % 3 == 1) {
            memory.peek(bytes.data(), bytes.size(), source[index % source.size()]);
        } else if (step.how % 3 == 2) {
            for (size_t byte = 0; byte < bytes.size(); ++byte) {
                bytes[byte] = static_cast<uint8_t>(mixed(step.value + byte * 977 + index) >> 32);
            }
        }
        if (target[index] + bytes.size() <= memory.size()) {
            memory.poke(bytes.data(), bytes.size(), target[index]);
        }
    }
}

void FuzzScript::_damageByte(MemoryBlockDevice& memory, const Step& step) const
{
    const std::span<const uint64_t> sectors = _volume.survey->sectors();
    const uint64_t place = sectors[scaled(step.where, sectors.size())] + step.value % kSectorSize;
    setNumber(memory, place, 1, step.how);
}

/** Sets or clears a run of bits of the bitmap. */
void FuzzScript::_markBits(MemoryBlockDevice& memory, const Step& step) const
{
    const std::span<const Field> bytes = _volume.survey->fields(HFSPlusFieldGroup::kBitmap);
    const size_t bits = 8 * bytes.size();
    const size_t first = scaled(step.where, bits);
    const size_t end = std::min(bits, first + 1 + step.value % 64);
    for (size_t bit = first; bit < end; ++bit) {
        const uint64_t mask = 0x80U >> (bit % 8);
        const uint64_t old = numberAt(memory, bytes[bit / 8].place, 1);
        setNumber(memory, bytes[bit / 8].place, 1, step.how % 2 == 0 ? old | mask : old & ~mask);
    }
}
