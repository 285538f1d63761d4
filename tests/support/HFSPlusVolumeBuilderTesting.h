#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "support/HFSPlusVolumeBuilder.h"
#include "support/HFSPlusVolumeChecker.h"

/** @p count extents of @p length blocks, @p distance blocks from start to start. */
[[nodiscard]] inline HFSPlusBuilderExtents comb(uint32_t start, uint32_t count, uint32_t length,
                                                uint32_t distance)
{
    HFSPlusBuilderExtents extents;
    for (uint32_t index = 0; index < count; index++) {
        extents.push_back({start + index * distance, length});
    }
    return extents;
}

[[nodiscard]] inline HFSPlusCheckResult checked(MemoryBlockDevice& device)
{
    HFSPlusCheckDeviceReader reader(device);
    return checkHFSPlusVolume(reader);
}

/** What the checker of the system says of the volume; nothing to say where none is installed. */
[[nodiscard]] inline testing::AssertionResult systemCheckerAccepts(HFSPlusVolumeBuilder& builder)
{
    if (std::system("command -v fsck.hfsplus >/dev/null 2>&1") != 0) {
        return testing::AssertionSuccess();
    }
    const testing::TestInfo* test = testing::UnitTest::GetInstance()->current_test_info();
    std::string name = std::string(test->test_suite_name()) + "." + test->name() + ".img";
    std::ranges::replace(name, '/', '-');
    const std::string path = testing::TempDir() + name;
    if (!builder.buildFile(path)) {
        return testing::AssertionFailure() << builder.error();
    }
    const std::string command = "fsck.hfsplus -fn '" + path + "' >/dev/null 2>&1";
    const int status = std::system(command.c_str());
    std::filesystem::remove(path);
    return status == 0 ? testing::AssertionSuccess()
                       : testing::AssertionFailure() << "fsck.hfsplus ends with " << status;
}

/** Builds the volume and has it judged by our checker and the system's. */
[[nodiscard]] inline std::unique_ptr<MemoryBlockDevice> builtSound(HFSPlusVolumeBuilder& builder)
{
    std::unique_ptr<MemoryBlockDevice> device = builder.build();
    if (device == nullptr) {
        ADD_FAILURE() << builder.error();
        return nullptr;
    }
    const HFSPlusCheckResult result = checked(*device);
    EXPECT_TRUE(result.consistent) << result.description();
    EXPECT_TRUE(systemCheckerAccepts(builder));
    return device;
}
