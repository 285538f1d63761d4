#include "fuzz/FuzzScript.h"

#include <gtest/gtest.h>

#include <random>
#include <set>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

std::unique_ptr<MemoryBlockDevice> volumeOf(const Bytes& input)
{
    return FuzzScript(input, FuzzScript::Volumes::kBuilt).makeVolume();
}

/** The input that does one damage to volume @p volume. */
Bytes oneStep(uint8_t volume, uint8_t what, uint32_t where, uint8_t how, uint32_t value)
{
    return {volume,
            0,
            0,
            0,
            what,
            static_cast<uint8_t>(where >> 16),
            static_cast<uint8_t>(where >> 8),
            static_cast<uint8_t>(where),
            how,
            static_cast<uint8_t>(value >> 16),
            static_cast<uint8_t>(value >> 8),
            static_cast<uint8_t>(value)};
}

std::set<HFSPlusFieldGroup> emptyGroups(const HFSPlusVolumeSurvey& survey)
{
    std::set<HFSPlusFieldGroup> groups;
    for (uint8_t group = 0; group < static_cast<uint8_t>(HFSPlusFieldGroup::kCount); ++group) {
        if (survey.fields(HFSPlusFieldGroup{group}).empty()) {
            groups.insert(HFSPlusFieldGroup{group});
        }
    }
    return groups;
}

uint64_t numberOf(const MemoryBlockDevice& memory, const HFSPlusVolumeSurvey::Field& field)
{
    Bytes bytes(field.size);
    memory.peek(bytes.data(), bytes.size(), field.place);
    uint64_t number = 0;
    for (const uint8_t byte : bytes) {
        number = number << 8 | byte;
    }
    return number;
}

}  // namespace

TEST(FuzzScript, EveryVolumeToBeginFromIsSoundAndMostKindsOfFieldsAreFoundInIt)
{
    std::set<HFSPlusFieldGroup> missing = emptyGroups(*fuzzVolumeAtIndex(0).survey);
    for (size_t index = 0; index < fuzzVolumeCount(); ++index) {
        const FuzzVolume& volume = fuzzVolumeAtIndex(index);
        EXPECT_TRUE(volume.survey->isSound()) << volume.name;
        EXPECT_GT(volume.survey->nodes().size(), 2U) << volume.name;
        EXPECT_GT(volume.survey->fields(HFSPlusFieldGroup::kRecord).size(), 20U) << volume.name;

        std::erase_if(missing, [&](HFSPlusFieldGroup group) {
            return !volume.survey->fields(group).empty();
        });
    }
    for (const HFSPlusFieldGroup group : missing) {
        ADD_FAILURE() << "group " << static_cast<int>(group) << " is nowhere";
    }
}

TEST(FuzzScript, TheFieldsOfARealVolumeHoldWhatTheirGroupSays)
{
    const HFSPlusVolumeSurvey& survey = *fuzzVolumeAtIndex(builtFuzzVolumeCount()).survey;
    const MemoryBlockDevice& memory = *fuzzVolumeAtIndex(builtFuzzVolumeCount()).memory;

    EXPECT_EQ(numberOf(memory, survey.fields(HFSPlusFieldGroup::kHeader)[0]), 0x482BU);
    EXPECT_EQ(numberOf(memory, survey.fields(HFSPlusFieldGroup::kAlternate)[0]), 0x482BU);
    for (const auto& field : survey.fields(HFSPlusFieldGroup::kKeyLength)) {
        const uint64_t length = numberOf(memory, field);
        EXPECT_TRUE(length >= 6 && length <= 516 && length % 2 == 0) << length;
    }
    for (const auto& field : survey.fields(HFSPlusFieldGroup::kRecordOffset)) {
        const uint64_t offset = numberOf(memory, field);
        EXPECT_TRUE(offset >= 14 && offset < 8192 && offset % 2 == 0) << offset;
    }
    for (const auto& field : survey.fields(HFSPlusFieldGroup::kChild)) {
        EXPECT_LT(numberOf(memory, field), survey.result().catalog.totalNodes);
    }
}

TEST(FuzzScript, AnyBytesAreAnInputAndTheSameBytesMakeTheSameVolume)
{
    std::mt19937 random(1);
    for (uint32_t round = 0; round < 200; ++round) {
        Bytes input(random() % 100);
        for (uint8_t& byte : input) {
            byte = static_cast<uint8_t>(random());
        }
        EXPECT_TRUE(volumeOf(input)->hasSameBytesAs(*volumeOf(input)));
    }
}

TEST(FuzzScript, AStepChangesOneFieldAndLeavesTheVolumeToBeginFromAlone)
{
    constexpr uint8_t kHeaderStep = 0;
    constexpr uint8_t kSetSmall = 0;
    const HFSPlusVolumeSurvey& survey = *fuzzVolumeAtIndex(0).survey;
    const auto before = volumeOf({0});

    const auto damaged = volumeOf(oneStep(0, kHeaderStep, 0, kSetSmall, 0x99));

    EXPECT_EQ(numberOf(*damaged, survey.fields(HFSPlusFieldGroup::kHeader)[0]), 0x99U);
    EXPECT_FALSE(damaged->hasSameBytesAs(*before));
    EXPECT_TRUE(volumeOf({0})->hasSameBytesAs(*before));
    EXPECT_TRUE(damaged->hasSameBytesAs(*volumeOf(oneStep(0, kHeaderStep, 9, kSetSmall, 0x99))));
}

TEST(FuzzScript, EveryKindOfStepChangesBytesOfSomeVolume)
{
    for (uint8_t what = 0; what < 32; ++what) {
        bool changed = false;
        for (uint8_t volume = 0; volume < builtFuzzVolumeCount() && !changed; ++volume) {
            const auto damaged = volumeOf(oneStep(volume, what, 0x123456, 100, 0xFEDC));
            changed = !damaged->hasSameBytesAs(*volumeOf({volume}));
        }
        EXPECT_TRUE(changed) << "step " << uint32_t{what};
    }
}

TEST(FuzzScript, APatchPutsItsBytesWhereItSays)
{
    const auto patched = volumeOf({0, FuzzScript::kPatchBit, 0, 0, 0, 1, 0, 2, 'A', 'B'});
    Bytes bytes(2);

    patched->peek(bytes.data(), bytes.size(), 1024);

    EXPECT_EQ(bytes, (Bytes{'A', 'B'}));
    EXPECT_EQ(patched->size(), volumeOf({0})->size());
}
