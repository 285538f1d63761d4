#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>

#include "HFSPlus/ForkList.h"
#include "support/HFSPlusOpenedVolume.h"

/** What making a start-up profile came to. */
struct MadeProfile {
    bool made = false;
    ForkList forks;
    std::string error;
};

/** Makes the profile of class Profile. */
template <typename Profile>
[[nodiscard]] MadeProfile makeProfile(HFSPlusVolume& volume)
{
    std::unique_ptr<VZDefragError> error;
    HFSPlusFileForkSet set(volume);
    const auto profile = Profile::initWithVolume(volume, set, &error);
    return {profile != nullptr, forksOf(set), error != nullptr ? error->description() : ""};
}

template <typename Profile>
[[nodiscard]] MadeProfile makeProfile(HFSPlusVolumeBuilder builder)
{
    const HFSPlusOpenedVolume volume(std::move(builder));
    EXPECT_TRUE(volume) << volume.error();
    return volume ? makeProfile<Profile>(*volume) : MadeProfile{};
}
