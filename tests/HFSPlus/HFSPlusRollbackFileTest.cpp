#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "HFSPlus/HFSPlusAllocation.h"
#include "HFSPlus/HFSPlusCatalog.h"
#include "HFSPlus/HFSPlusChangeMark.h"
#include "HFSPlus/HFSPlusRollbackFile.h"
#include "HFSPlus/HFSPlusRollbackFormat.h"
#include "HFSPlus/HFSPlusVolume.h"
#include "HFSPlus/HFSPlusVolumeProber.h"
#include "HFSPlusVolumeTestFixture.h"
#include "support/RecordingFile.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t kMovie = 20;
constexpr uint64_t kHeaderPlace = 1024;
constexpr uint64_t kUnmounted = 0x100;

/** A device in memory with a file beside it. */
class HFSPlusRollbackFileTest : public testing::Test {
protected:
    HFSPlusRollbackFileTest() : memory(builder().build()), before(memory->clone()) {}

    static HFSPlusVolumeBuilder builder()
    {
        return plainVolume().file("/movie", kMovie).data({{200, 4}});
    }

    /** Opens the volume as the program does; null with the reason in error. */
    std::unique_ptr<HFSPlusVolume> open()
    {
        error.clear();
        faults = std::make_unique<FaultyBlockDevice>(memory->share());
        const auto device = VZDefragVolume::initWithBlockDevice("/dev/memory", faults->share());
        HFSPlusVolumeProber prober;
        prober.setRollbackFile(std::make_shared<HFSPlusRollbackFile>("undo", file->opener()));
        std::unique_ptr<VZDefragError> failure;
        bool valid = false;
        std::unique_ptr<VZDefragVolume> volume;
        if (prober.probe(*device, valid, &failure) && valid) {
            volume = prober.initWithVolume(*device, &failure);
        }
        error = failure != nullptr ? failure->description() : "";
        return std::unique_ptr<HFSPlusVolume>(static_cast<HFSPlusVolume*>(volume.release()));
    }

    /** A change to bitmap, catalog and header. */
    static void change(HFSPlusVolume& volume, uint32_t block = 700)
    {
        ASSERT_TRUE(volume.allocation().set(block, 1, nullptr));
        HFSPlusHostExtentRecord extents = {};
        extents[0] = {.startBlock = block, .blockCount = 4};
        ASSERT_TRUE(volume.catalog().updateForkExtents(extents, kMovie, 0, false, nullptr));
    }

    /** Leaves the volume as a power cut after @p writes writes of a change does. */
    void cutOffAfter(uint64_t writes)
    {
        const auto volume = open();
        ASSERT_NE(volume, nullptr) << error;
        change(*volume);
        ASSERT_TRUE(volume->changeMark().begin(nullptr));
        faults->stopAfterWrites(writes);
        EXPECT_FALSE(volume->flush(nullptr));
    }

    [[nodiscard]] HFSPlusVolumeHeader header(uint64_t place = kHeaderPlace) const
    {
        HFSPlusVolumeHeader bytes = {};
        memory->peek(&bytes, sizeof bytes, place);
        return bytes;
    }

    [[nodiscard]] uint64_t alternatePlace() const { return memory->size() - 1024; }

    void putHeader(const HFSPlusVolumeHeader& bytes) { memory->poke(&bytes, 512, kHeaderPlace); }

    void editFile(const std::function<void(Bytes&)>& edit)
    {
        Bytes bytes = file->bytes().value_or(Bytes());
        edit(bytes);
        file = std::make_unique<RecordingFile>(std::make_shared<Recording>(), bytes);
    }

    void expectRefusal(const std::string& reason)
    {
        const auto device = memory->clone();
        const RecordedFileBytes bytes = file->bytes();
        EXPECT_EQ(open(), nullptr);
        EXPECT_EQ(error, reason);
        EXPECT_TRUE(memory->hasSameBytesAs(*device));
        EXPECT_EQ(file->bytes(), bytes);
    }

    void expectAsBefore()
    {
        EXPECT_NE(open(), nullptr) << error;
        EXPECT_TRUE(memory->hasSameBytesAs(*before));
        EXPECT_TRUE(file->isEmpty());
    }

    std::unique_ptr<MemoryBlockDevice> memory;
    std::unique_ptr<MemoryBlockDevice> before;
    std::unique_ptr<FaultyBlockDevice> faults;
    std::unique_ptr<RecordingFile> file =
        std::make_unique<RecordingFile>(std::make_shared<Recording>());
    std::string error;
};

}  // namespace

TEST(HFSPlusRollbackChecksum, IsCRC32C)
{
    const std::string text = "123456789";
    const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
    EXPECT_EQ(HFSPlusRollbackChecksum({bytes, 9}), 0xE3069283u);
    EXPECT_EQ(HFSPlusRollbackChecksum({bytes + 4, 5}, HFSPlusRollbackChecksum({bytes, 4})),
              0xE3069283u);
}

TEST_F(HFSPlusRollbackFileTest, OpeningAndReadingMakesNoFile)
{
    EXPECT_NE(open(), nullptr);
    EXPECT_EQ(file->bytes(), std::nullopt);
    EXPECT_TRUE(memory->hasSameBytesAs(*before));
}

TEST_F(HFSPlusRollbackFileTest, AnUndisturbedRunLeavesTheBytesOfOneWithoutTheFile)
{
    {
        const auto volume = open();
        change(*volume);
        ASSERT_TRUE(volume->flush(nullptr));
        change(*volume, 710);
        ASSERT_TRUE(volume->flush(nullptr));
        ASSERT_TRUE(volume->finishChanges(nullptr));
        EXPECT_TRUE(file->isEmpty());
    }
    HFSPlusOpenedVolume other(before->clone());
    change(*other);
    ASSERT_TRUE(other->flush(nullptr));
    change(*other, 710);
    ASSERT_TRUE(other->flush(nullptr));
    ASSERT_TRUE(other->finishChanges(nullptr));
    EXPECT_TRUE(memory->hasSameBytesAs(other.memory()));
}

TEST_F(HFSPlusRollbackFileTest, WhatACutLeavesHalfDoneIsUndoneWhereverTheCutIs)
{
    for (const uint64_t writes : {0u, 1u, 2u}) {
        cutOffAfter(writes);
        expectAsBefore();
    }
}

TEST_F(HFSPlusRollbackFileTest, AChangeThatIsCompleteStays)
{
    const HFSPlusVolumeHeader alternateBefore = header(alternatePlace());
    {
        const auto volume = open();
        change(*volume);
        ASSERT_TRUE(volume->flush(nullptr));
        faults->stopAfterWrites(0);  // the mark stays
    }
    EXPECT_EQ(header().attributes & kUnmounted, 0u);
    // As if the copy of the header, written last, had not reached the disk, nor the cut of the
    // file, whose last record before the mark's was that copy.
    memory->poke(&alternateBefore, sizeof alternateBefore, alternatePlace());
    editFile([&](Bytes& bytes) {
        HFSPlusRollbackRecord record = {};
        record.magic = kHFSPlusRollbackRecordMagic;
        record.generation = 1;
        record.offset = alternatePlace();
        record.nbyte = sizeof alternateBefore;
        const auto* old = reinterpret_cast<const uint8_t*>(&alternateBefore);
        record.checksum = HFSPlusRollbackChecksum(record, {old, sizeof alternateBefore});
        const auto* first = reinterpret_cast<const uint8_t*>(&record);
        bytes.insert(bytes.end(), first, first + sizeof record);
        bytes.insert(bytes.end(), old, old + sizeof alternateBefore);
    });

    const auto volume = open();

    ASSERT_NE(volume, nullptr) << error;
    EXPECT_EQ(header().attributes & kUnmounted, kUnmounted);
    EXPECT_EQ(header().writeCount, alternateBefore.writeCount + 1);
    const HFSPlusVolumeHeader primary = header();
    const HFSPlusVolumeHeader alternate = header(alternatePlace());
    EXPECT_EQ(std::memcmp(&primary, &alternate, sizeof primary), 0);
    uint32_t set = 0;
    EXPECT_TRUE(volume->allocation().isSet(700, 1, set, nullptr));
    EXPECT_EQ(set, 1u);
    EXPECT_TRUE(file->isEmpty());
}

TEST_F(HFSPlusRollbackFileTest, ATornLastRecordIsIgnored)
{
    cutOffAfter(0);
    editFile([](Bytes& bytes) { bytes.resize(bytes.size() - 100); });
    expectAsBefore();
}

TEST_F(HFSPlusRollbackFileTest, ACheckedVolumeNeedsTheRecordsNoMore)
{
    cutOffAfter(1);
    HFSPlusVolumeHeader checked = header();
    checked.attributes = checked.attributes | uint32_t{kUnmounted};
    checked.checkedDate = checked.checkedDate + 1;
    putHeader(checked);
    const auto asChecked = memory->clone();

    EXPECT_NE(open(), nullptr) << error;

    EXPECT_TRUE(memory->hasSameBytesAs(*asChecked));
    EXPECT_TRUE(file->isEmpty());
}

TEST_F(HFSPlusRollbackFileTest, AVolumeThatSomebodyElseChangedIsNotRolledBack)
{
    cutOffAfter(1);
    HFSPlusVolumeHeader changed = header();
    changed.modifyDate = changed.modifyDate + 1;
    putHeader(changed);

    expectRefusal("Volume was changed after rollback file undo was written.");
}

TEST_F(HFSPlusRollbackFileTest, AnotherVolumesFileIsLeftAlone)
{
    cutOffAfter(1);
    HFSPlusVolumeHeader other = header();
    other.createDate = other.createDate + 1;
    putHeader(other);
    expectRefusal("Rollback file undo belongs to another volume.");

    memory->setSize(memory->size() + 4096);
    expectRefusal("Rollback file undo belongs to another volume.");
}

TEST_F(HFSPlusRollbackFileTest, ADamagedHeaderIsAnErrorAndTheFileIsLeftAlone)
{
    cutOffAfter(1);
    for (const size_t place : {0u, 9u, 13u, 40u, 60u}) {
        editFile([&](Bytes& bytes) { bytes.at(place) ^= 1; });
        expectRefusal("Rollback file undo is damaged.");
        editFile([&](Bytes& bytes) { bytes.at(place) ^= 1; });
    }
    editFile([](Bytes& bytes) { bytes.resize(511); });
    expectRefusal("Rollback file undo is damaged.");
    editFile([](Bytes& bytes) { bytes = {'n', 'o', 't', 'e'}; });
    expectRefusal("Rollback file undo is damaged.");
}

TEST_F(HFSPlusRollbackFileTest, AHeaderOfZerosNeverReachedTheDisk)
{
    editFile([](Bytes& bytes) { bytes.assign(512, 0); });
    expectAsBefore();

    editFile([](Bytes& bytes) { bytes.assign(513, 0); });
    expectRefusal("Rollback file undo is damaged.");
}

TEST_F(HFSPlusRollbackFileTest, RecordsBeyondTheVolumeAreRefused)
{
    cutOffAfter(1);
    editFile([&](Bytes& bytes) {
        HFSPlusRollbackRecord record = {};
        record.magic = kHFSPlusRollbackRecordMagic;
        record.generation = 1;
        record.offset = memory->size() - 4;
        record.nbyte = 8;
        bytes.resize(sizeof(HFSPlusRollbackHeader) + sizeof record + 8);
        record.checksum = HFSPlusRollbackChecksum(record, std::span(bytes).last(8));
        std::memcpy(bytes.data() + sizeof(HFSPlusRollbackHeader), &record, sizeof record);
    });

    expectRefusal("Rollback file undo is damaged.");
}

TEST_F(HFSPlusRollbackFileTest, RecordsOfAnotherChangeThanTheHeaderTellsOfAreRefused)
{
    cutOffAfter(1);
    HFSPlusVolumeHeader later = header();
    later.writeCount = later.writeCount + 2;
    putHeader(later);

    expectRefusal("Rollback file undo is damaged.");
}

TEST_F(HFSPlusRollbackFileTest, AFileInUseIsAnError)
{
    const auto volume = open();
    change(*volume);
    ASSERT_TRUE(volume->flush(nullptr));

    expectRefusal("Rollback file undo is in use.");
}

TEST_F(HFSPlusRollbackFileTest, ARunDoesNotBeginInAFileThatSomebodyWroteTo)
{
    const auto volume = open();
    editFile([](Bytes& bytes) { bytes = {1}; });
    volume->changeMark().setRollbackFile(
        std::make_shared<HFSPlusRollbackFile>("undo", file->opener()));
    change(*volume);

    std::unique_ptr<VZDefragError> failure;
    EXPECT_FALSE(volume->flush(&failure));

    EXPECT_EQ(failure->description(), "Rollback file undo is in use.");
    EXPECT_TRUE(memory->hasSameBytesAs(*before));
    EXPECT_EQ(file->bytes(), Bytes{1});
}

TEST_F(HFSPlusRollbackFileTest, AFileThatCannotBeMadeEndsTheRunBeforeTheVolumeIsTouched)
{
    const auto volume = open();
    volume->changeMark().setRollbackFile(std::make_shared<HFSPlusRollbackFile>(
        "undo", [](bool /*create*/, int& errorNumber) -> std::unique_ptr<PlatformWritableFile> {
            errorNumber = EACCES;
            return nullptr;
        }));
    change(*volume);

    std::unique_ptr<VZDefragError> failure;
    EXPECT_FALSE(volume->flush(&failure));

    EXPECT_EQ(failure->description(), "Unable to open rollback file undo. An error 13 occurred.");
    EXPECT_TRUE(memory->hasSameBytesAs(*before));
}

TEST_F(HFSPlusRollbackFileTest, AFlushTakesOneBarrierOfTheFile)
{
    const auto recording = std::make_shared<Recording>();
    file = std::make_unique<RecordingFile>(recording);
    const auto volume = open();
    ASSERT_TRUE(volume->changeMark().begin(nullptr));
    for (uint32_t round = 0; round < 3; ++round) {
        change(*volume, 700 + 10 * round);
        recording->clear();
        ASSERT_TRUE(volume->flush(nullptr));
        uint32_t barriers = 0;
        for (const RecordedEvent& event : recording->events()) {
            barriers += event.kind == RecordedEvent::Kind::kSynchronize ? 1 : 0;
        }
        EXPECT_EQ(barriers, 1u);
    }
}

TEST_F(HFSPlusRollbackFileTest, ACopyFromBeforeTheRunLeavesTheRecordsToTheVolumeThatNeedsThem)
{
    cutOffAfter(1);
    const auto torn = std::exchange(memory, before->clone());
    expectRefusal("Rollback file undo belongs to another volume.");

    memory = torn->clone();
    expectAsBefore();
}

TEST_F(HFSPlusRollbackFileTest, AFileThatAnEarlierRunLeftDoesNotTouchWhatALaterOneLeft)
{
    cutOffAfter(0);
    const RecordedFileBytes ofEarlierRun = file->bytes();
    expectAsBefore();
    // Without a file.
    {
        HFSPlusOpenedVolume later(memory->share());
        change(*later);
        later.beginChanges();
        later.faults().stopAfterWrites(1);
        EXPECT_FALSE(later->flush(nullptr));
    }
    editFile([&](Bytes& bytes) { bytes = *ofEarlierRun; });
    expectRefusal("Volume was changed after rollback file undo was written.");

    // With another file.
    memory = before->clone();
    file = std::make_unique<RecordingFile>(std::make_shared<Recording>());
    cutOffAfter(1);
    editFile([&](Bytes& bytes) { bytes = *ofEarlierRun; });
    expectRefusal("Volume was changed after rollback file undo was written.");
}

TEST_F(HFSPlusRollbackFileTest, TheMarkIsThatOfAMountedVolumeAndItsCountBelongsToTheRun)
{
    const auto volume = open();
    ASSERT_TRUE(volume->changeMark().begin(nullptr));

    const uint32_t first = header().writeCount;
    EXPECT_EQ(header().attributes & (kUnmounted | kHFSBootVolumeInconsistentMask),
              uint32_t{kHFSBootVolumeInconsistentMask});
    EXPECT_GE(first, 0x80000000U);
    change(*volume);
    ASSERT_TRUE(volume->flush(nullptr));
    EXPECT_EQ(header().writeCount, first + 1);
    ASSERT_TRUE(volume->finishChanges(nullptr));
    ASSERT_TRUE(volume->changeMark().begin(nullptr));
    EXPECT_NE(header().writeCount, first);
}
