#include "protocol/OtherReaders.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <sstream>

#include "protocol/ToolProcess.h"

namespace {

constexpr uint32_t kFirstUserCNID = 16;

std::string reader(const std::string& name)
{
    return "/usr/bin/" + name;
}

/** The lines that a program prints. */
std::istringstream outputOf(const std::string& name, std::vector<std::string> arguments)
{
    ToolProcess process({.program = reader(name), .arguments = std::move(arguments)});
    std::string output = process.readToEnd();
    EXPECT_EQ(process.wait(), 0) << name;
    return std::istringstream(std::move(output));
}

}  // namespace

bool otherReadersAreInstalled()
{
    return ::access(reader("fls").c_str(), X_OK) == 0 &&
           ::access(reader("istat").c_str(), X_OK) == 0 &&
           ::access(reader("fsstat").c_str(), X_OK) == 0;
}

std::map<uint32_t, ListedObject> listedObjects(const std::string& image)
{
    std::map<uint32_t, ListedObject> objects;
    std::istringstream output = outputOf("fls", {"-r", "-p", "-f", "hfs", image});
    for (std::string line; std::getline(output, line);) {
        uint32_t cnid = 0;
        int pathAt = 0;
        char type = 0;
        if (std::sscanf(line.c_str(), "%c/%*c %" SCNu32 ":\t%n", &type, &cnid, &pathAt) != 2 ||
            pathAt == 0) {
            ADD_FAILURE() << "not a line of a listing: " << line;
            continue;
        }
        if (cnid >= kFirstUserCNID) {
            objects[cnid] = {"/" + line.substr(static_cast<size_t>(pathAt)), type == 'd'};
        }
    }
    return objects;
}

ListedForks listedForks(const std::string& image, uint32_t cnid)
{
    ListedForks forks;
    std::vector<HFSPlusCheckedExtent>* fork = nullptr;
    std::istringstream output = outputOf("istat", {"-r", "-f", "hfs", image, std::to_string(cnid)});
    for (std::string line; std::getline(output, line);) {
        HFSPlusCheckedExtent extent;
        if (std::sscanf(line.c_str(), " Starting address: %" SCNu32 ", length: %" SCNu32,
                        &extent.startBlock, &extent.blockCount) == 2) {
            if (fork == nullptr) {
                ADD_FAILURE() << "a run of no fork: " << line;
                return forks;
            }
            fork->push_back(extent);
            continue;
        }
        const size_t size = line.find(" size: ");
        if (!line.starts_with("Type: ")) {
            continue;
        }
        const bool isResource = line.starts_with("Type: RSRC");
        const bool isFork = isResource || line.starts_with("Type: DATA");
        fork = !isFork ? nullptr : isResource ? &forks.resource : &forks.data;
        if (isFork && size != std::string::npos) {
            (isResource ? forks.resourceSize : forks.dataSize) =
                std::stoull(line.substr(size + std::string(" size: ").size()));
        }
    }
    return forks;
}

uint32_t listedFreeBlocks(const std::string& image)
{
    uint32_t blocks = 0;
    std::istringstream output = outputOf("fsstat", {"-f", "hfs", image});
    bool found = false;
    for (std::string line; std::getline(output, line);) {
        found = std::sscanf(line.c_str(), "Number of Free Blocks: %" SCNu32, &blocks) == 1 || found;
    }
    EXPECT_TRUE(found);
    return blocks;
}
