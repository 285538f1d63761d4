#include "support/CrashStates.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <set>

#include "support/RecordingBlockDevice.h"

namespace {

/** A device and a file that share one recording. */
class CrashStatesTest : public testing::Test {
protected:
    using Bytes = std::vector<uint8_t>;

    /** Writes sectors full of @p byte. */
    void writeDevice(uint64_t sector, size_t count, uint8_t byte)
    {
        const Bytes bytes(count * 512, byte);
        ASSERT_EQ(_device.writeAt(bytes.data(), bytes.size(), sector * 512),
                  static_cast<int64_t>(bytes.size()));
    }
    void synchronizeDevice() { ASSERT_EQ(_device.synchronize(), 0); }

    [[nodiscard]] std::unique_ptr<PlatformWritableFile> openFile()
    {
        int errorNumber = 0;
        return _file.opener()(true, errorNumber);
    }
    static void writeFile(PlatformWritableFile& file, uint64_t offset, size_t count, uint8_t byte)
    {
        const Bytes bytes(count, byte);
        ASSERT_EQ(file.writeAt(bytes.data(), count, offset), static_cast<int64_t>(count));
    }

    [[nodiscard]] CrashStates states() const
    {
        return {*_before, std::nullopt, _recording->events()};
    }

    /** The first byte of each sector. */
    [[nodiscard]] static Bytes sectors(const CrashState& state)
    {
        Bytes bytes;
        for (uint64_t offset = 0; offset < state.device->size(); offset += 512) {
            uint8_t byte = 0;
            state.device->peek(&byte, 1, offset);
            bytes.push_back(byte);
        }
        return bytes;
    }

    /** All different states of the device that so many seeds lead to. */
    [[nodiscard]] std::set<Bytes> sectorsOfSeeds(uint64_t count) const
    {
        const CrashStates given = states();
        std::set<Bytes> found;
        for (uint64_t seed = 0; seed < count; ++seed) {
            found.insert(sectors(given.stateFromSeed(seed)));
        }
        return found;
    }

    MemoryBlockDevice _memory{4 * 512};
    std::unique_ptr<MemoryBlockDevice> _before = _memory.clone();
    std::shared_ptr<Recording> _recording = std::make_shared<Recording>();
    RecordingBlockDevice _device{_memory.share(), _recording};
    RecordingFile _file{_recording};
};

}  // namespace

TEST_F(CrashStatesTest, EachPrefixHoldsThoseEventsAndNoOther)
{
    writeDevice(0, 1, 1);
    const auto file = openFile();
    writeFile(*file, 0, 700, 7);
    writeDevice(1, 2, 2);
    ASSERT_EQ(file->setSize(600), 0);
    synchronizeDevice();
    writeDevice(0, 1, 3);

    const CrashStates given = states();

    ASSERT_EQ(given.events().size(), 7U);
    EXPECT_EQ(sectors(given.stateAfter(0)), (Bytes{0, 0, 0, 0}));
    EXPECT_EQ(sectors(given.stateAfter(1)), (Bytes{1, 0, 0, 0}));
    EXPECT_EQ(given.stateAfter(1).file, std::nullopt);
    EXPECT_EQ(given.stateAfter(2).file, Bytes());
    EXPECT_EQ(given.stateAfter(3).file, Bytes(700, 7));
    EXPECT_EQ(sectors(given.stateAfter(3)), (Bytes{1, 0, 0, 0}));
    EXPECT_EQ(sectors(given.stateAfter(4)), (Bytes{1, 2, 2, 0}));
    EXPECT_EQ(given.stateAfter(5).file, Bytes(600, 7));
    EXPECT_EQ(sectors(given.stateAfter(7)), (Bytes{3, 2, 2, 0}));
}

TEST_F(CrashStatesTest, WhatCameBeforeAMediumsOwnBarrierIsThereInEveryState)
{
    writeDevice(0, 1, 1);
    synchronizeDevice();
    const auto file = openFile();
    writeFile(*file, 0, 512, 7);
    ASSERT_EQ(file->synchronize(), 0);
    const size_t first = _recording->events().size();
    writeFile(*file, 512, 512, 8);
    writeDevice(1, 1, 2);
    synchronizeDevice();  // does nothing for the file
    const CrashStates given = states();

    std::set<Bytes> files;
    for (uint64_t seed = 0; seed < 2000; ++seed) {
        const CrashState state = given.stateFromSeed(seed);
        const std::string place = "cut before event " + std::to_string(first + 2) + ",";
        if (state.description.starts_with(place)) {
            EXPECT_EQ(sectors(state)[0], 1);
            ASSERT_TRUE(state.file);
            files.insert(*state.file);
        }
    }

    Bytes whole(1024, 7);
    std::fill_n(whole.begin() + 512, 512, 8);
    Bytes grown = whole;
    std::fill_n(grown.begin() + 512, 512, 0);
    EXPECT_EQ(files, (std::set<Bytes>{Bytes(512, 7), whole, grown}));
}

TEST_F(CrashStatesTest, WritesBehindABarrierAreLostTornAndReorderedInEveryWay)
{
    writeDevice(0, 2, 1);
    writeDevice(1, 2, 2);

    const std::set<Bytes> found = sectorsOfSeeds(3000);

    std::set<Bytes> possible;
    for (const uint8_t zero : Bytes{0, 1}) {
        for (const uint8_t one : Bytes{0, 1, 2}) {
            for (const uint8_t two : Bytes{0, 2}) {
                possible.insert({zero, one, two, 0});
            }
        }
    }
    EXPECT_EQ(found, possible);
}

TEST_F(CrashStatesTest, ABarrierKeepsTheOrderOfWhatLiesAroundIt)
{
    writeDevice(0, 1, 1);
    synchronizeDevice();
    writeDevice(1, 1, 2);

    EXPECT_EQ(sectorsOfSeeds(1000), (std::set<Bytes>{{0, 0, 0, 0}, {1, 0, 0, 0}, {1, 2, 0, 0}}));
}

TEST_F(CrashStatesTest, ACutOfTheFileMayBeLost)
{
    const auto file = openFile();
    writeFile(*file, 0, 512, 7);
    ASSERT_EQ(file->synchronize(), 0);
    ASSERT_EQ(file->setSize(0), 0);
    const CrashStates given = states();

    std::set<Bytes> files;
    for (uint64_t seed = 0; seed < 200; ++seed) {
        const CrashState state = given.stateFromSeed(seed);
        files.insert(state.file.value_or(Bytes()));
    }

    EXPECT_TRUE(files.contains(Bytes()));
    EXPECT_TRUE(files.contains(Bytes(512, 7)));
}

TEST_F(CrashStatesTest, OneSeedIsOneState)
{
    writeDevice(0, 4, 1);
    writeDevice(1, 2, 2);
    const CrashStates given = states();

    for (uint64_t seed = 0; seed < 50; ++seed) {
        const CrashState one = given.stateFromSeed(seed);
        const CrashState two = given.stateFromSeed(seed);
        EXPECT_TRUE(one.device->hasSameBytesAs(*two.device));
        EXPECT_EQ(one.description, two.description);
    }
}

TEST_F(CrashStatesTest, ARefusedWriteIsNotRecorded)
{
    _memory.setWritable(false);
    const Bytes bytes(512, 1);

    EXPECT_EQ(_device.duplicate()->writeAt(bytes.data(), 512, 0), -EROFS);

    EXPECT_TRUE(_recording->events().empty());
    _memory.setWritable(true);
    EXPECT_EQ(_device.duplicate()->writeAt(bytes.data(), 512, 512), 512);
    EXPECT_EQ(_recording->events().size(), 1U);
}

TEST_F(CrashStatesTest, ARecordingCallsOnceAfterSoManyMoreEvents)
{
    writeDevice(0, 1, 1);
    std::vector<size_t> calls;
    _recording->callAfter(2, [&] { calls.push_back(_recording->events().size()); });

    for (int write = 0; write < 5; ++write) {
        writeDevice(1, 1, 2);
    }

    EXPECT_EQ(calls, std::vector<size_t>{3});
}

TEST_F(CrashStatesTest, TheFileHasOneOpenerAtATimeAndIsMadeOnlyOnRequest)
{
    int errorNumber = 0;
    EXPECT_EQ(_file.opener()(false, errorNumber), nullptr);
    EXPECT_EQ(errorNumber, ENOENT);
    auto file = openFile();
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(_file.opener()(true, errorNumber), nullptr);
    EXPECT_EQ(errorNumber, EBUSY);
    file.reset();
    EXPECT_NE(_file.opener()(false, errorNumber), nullptr);
    EXPECT_EQ(_recording->events().size(), 1U);
}
