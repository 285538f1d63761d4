#include "protocol/VolumeImage.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "support/HFSPlusVolumeBuilder.h"

std::string uniqueTemporaryPath(const std::string& name)
{
    static int count = 0;
    return testing::TempDir() + "vzdefrag-" + std::to_string(::getpid()) + "-" +
           std::to_string(++count) + "-" + name;
}

VolumeImage::VolumeImage() : _path(uniqueTemporaryPath("volume.img"))
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(4096).totalBlocks(1000).file("/movie", 20).automaticData(30);
    EXPECT_TRUE(builder.buildFile(_path)) << builder.error();
}

VolumeImage::VolumeImage(HFSPlusVolumeBuilder& builder) : _path(uniqueTemporaryPath("volume.img"))
{
    EXPECT_TRUE(builder.buildFile(_path)) << builder.error();
}

VolumeImage::~VolumeImage()
{
    std::filesystem::remove(_path);
}

std::string VolumeImage::bytes() const
{
    std::ifstream stream(_path, std::ios::binary);
    std::ostringstream content;
    content << stream.rdbuf();
    return content.str();
}
