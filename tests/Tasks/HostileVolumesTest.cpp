#include <gtest/gtest.h>

#include <optional>

#include "Tasks/HostileRuns.h"
#include "support/BootCachePlaylist.h"
#include "support/HFSPlusVolumeBuilder.h"
#include "support/HFSPlusVolumeBuilderBytes.h"
#include "support/HFSPlusVolumeBuilderPatcher.h"

// Volumes made to attack whoever reads them, one class of damage after another. Each is opened and
// every command is run on it; whatever cannot be understood is refused before anything is written.

namespace {

using Patcher = HFSPlusVolumeBuilderPatcher;

constexpr uint32_t kBlockSize = 1024;
constexpr uint32_t kTotalBlocks = 3000;
constexpr uint32_t kExtents = kHFSPlusBuilderExtentsID;
constexpr uint32_t kCatalog = kHFSPlusBuilderCatalogID;
constexpr uint32_t kAttributes = kHFSPlusBuilderAttributesID;

constexpr const char* kExtentsMessage = "Overflow extents file is inconsistent.";
constexpr const char* kCatalogMessage = "Catalog file is inconsistent.";
constexpr const char* kVolumeMessage = "Volume is inconsistent.";
constexpr const char* kHeaderMessage = "B-Tree header is inconsistent.";
constexpr const char* kMapMessage = "B-Tree file has inconsistent map node.";
constexpr const char* kNoHarm = "";  // nobody looks there, or it does not matter

HFSPlusBuilderExtents pieces(uint32_t start, uint32_t count, uint32_t step)
{
    HFSPlusBuilderExtents extents;
    for (uint32_t piece = 0; piece < count; ++piece) {
        extents.push_back({start + piece * step, 1});
    }
    return extents;
}

/** A volume with something of everything, every tree of at least two levels. */
HFSPlusVolumeBuilder everything(bool journaled = true)
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(kBlockSize).totalBlocks(kTotalBlocks);
    if (journaled) {
        builder.journal(200, 32);
    }
    builder.extentsNodeSize(512).catalogNodeSize(4096).attributesNodeSize(4096);
    builder.extentsTree().maximumLeafRecords = 3;
    builder.catalogTree().maximumLeafRecords = 4;
    builder.attributesTree().maximumLeafRecords = 2;
    builder.badBlocks({{1900, 2}}).startupExtents({{1910, 4}});
    builder.folder("/folder", 30).folder("/folder/inner", 31);
    builder.file("/folder/pieces", 32).data(pieces(600, 40, 3)).resource(pieces(601, 20, 3));
    builder.file("/folder/inner/other", 33).data(pieces(1000, 30, 2));
    builder.file("/small", 34).data({{1200, 4}});
    builder.attribute("inline", "some bytes").forkAttribute("fork", pieces(1300, 12, 2));
    for (uint32_t file = 40; file < 50; ++file) {
        builder.file("/Applications/App" + std::to_string(file), file)
            .data({{1400 + 4 * file, 1}, {1402 + 4 * file, 1}});
        builder.attribute("name", std::string(60, 'x'));
    }
    addPlaylist(builder, playlistBytes({{1200 * kBlockSize, 4 * kBlockSize, 1}}), {{1800, 1}});
    return builder;
}

HostileRuns runsOn(HFSPlusVolumeBuilder builder)
{
    const auto memory = builder.build();
    if (memory == nullptr) {
        ADD_FAILURE() << builder.error();
        return {builder.error(), {}, 0};
    }
    return runEveryCommand(*memory);
}

/** What came of @p builder, by default a volume with everything, with @p damage done to it. */
std::string errorOf(const HFSPlusBuilderDamage& damage, HFSPlusVolumeBuilder builder = everything())
{
    builder.damage(damage);
    return runsOn(std::move(builder)).error();
}

/** A node in use of each kind in a tree: its root, an index node, and its first leaf. */
struct Nodes {
    uint32_t root = 0;
    uint32_t leaf = 0;
};

Nodes nodesOf(Patcher& patcher, uint32_t treeID)
{
    const auto& plan = patcher.plan();
    const auto& tree = treeID == kExtents   ? plan.extentsTree
                       : treeID == kCatalog ? plan.catalogTree
                                            : plan.attributesTree;
    return {tree.rootNode, patcher.leafWithRecord(treeID, 0).value_or(0)};
}

/** Damages the root and the first leaf of every tree, one at a time, and tells what came of it. */
struct NodeErrors {
    std::string extentsRoot;
    std::string extentsLeaf;
    std::string catalogRoot;
    std::string catalogLeaf;
    std::string attributesRoot;
    std::string attributesLeaf;

    bool operator==(const NodeErrors&) const = default;
};

std::ostream& operator<<(std::ostream& stream, const NodeErrors& errors)
{
    return stream << "\n  extents: " << errors.extentsRoot << " | " << errors.extentsLeaf
                  << "\n  catalog: " << errors.catalogRoot << " | " << errors.catalogLeaf
                  << "\n  attributes: " << errors.attributesRoot << " | " << errors.attributesLeaf;
}

using NodeDamage = std::function<bool(Patcher& patcher, uint32_t treeID, uint32_t node)>;

NodeErrors errorsOf(const NodeDamage& damage)
{
    const auto error = [&](uint32_t treeID, bool isLeaf) {
        return errorOf(
            [&](Patcher& patcher) {
                const Nodes nodes = nodesOf(patcher, treeID);
                return damage(patcher, treeID, isLeaf ? nodes.leaf : nodes.root);
            },
            everything(false));
    };
    return {error(kExtents, false), error(kExtents, true),     error(kCatalog, false),
            error(kCatalog, true),  error(kAttributes, false), error(kAttributes, true)};
}

/** What a damage leads to that is met wherever a tree is searched or scanned. */
const NodeErrors kAllRefused = {kExtentsMessage, kExtentsMessage, kCatalogMessage,
                                kCatalogMessage, kVolumeMessage,  kVolumeMessage};

}  // namespace

TEST(HostileVolumes, TheVolumeIsSoundBeforeItIsDamaged)
{
    const HostileRuns runs = runsOn(everything());
    EXPECT_EQ(runs.error(), "");
    for (const auto& [command, error] : runs.errors) {
        if (!command.starts_with("MAP")) {  // which is asked for files that do not exist
            EXPECT_EQ(error, "") << command;
        }
    }
}

TEST(HostileVolumes, RecordOffsetsOutsideTheNodeOrNotAscendingAreRefused)
{
    for (const auto& given : std::vector<std::pair<const char*, uint32_t>>{{"offset[0]", 16},
                                                                           {"offset[0]", 0},
                                                                           {"offset[1]", 14},
                                                                           {"offset[1]", 0xFFFE},
                                                                           {"offset[1]", 0},
                                                                           {"offset[1]", 15},
                                                                           {"numRecords", 0xFFFF},
                                                                           {"numRecords", 254}}) {
        SCOPED_TRACE(std::string(given.first) + " " + std::to_string(given.second));
        EXPECT_EQ(errorsOf([&](Patcher& patcher, uint32_t treeID, uint32_t node) {
                      return patcher.node(treeID, node, given.first, given.second);
                  }),
                  kAllRefused);
    }
}

TEST(HostileVolumes, KeysOfImpossibleLengthsAreRefused)
{
    for (const uint32_t length : {0u, 1u, 7u, 11u, 600u, 0xFFFEu, 0xFFFFu}) {
        SCOPED_TRACE(length);
        EXPECT_EQ(errorsOf([&](Patcher& patcher, uint32_t treeID, uint32_t node) {
                      return patcher.nodeBytes(treeID, node, 14, length, 2);
                  }),
                  kAllRefused);
    }
}

TEST(HostileVolumes, NamesThatLeaveTheirKeyAreRefused)
{
    for (const uint32_t length : {3u * 255, 256u, 0xFFFFu}) {
        SCOPED_TRACE(length);
        const auto setNameLength = [&](Patcher& patcher, uint32_t treeID, uint32_t node) {
            const uint32_t offset = treeID == kCatalog ? 6 : 12;
            return patcher.nodeBytes(treeID, node, 14 + offset, length, 2);
        };
        const auto error = [&](uint32_t treeID, bool isLeaf) {
            return errorOf(
                [&](Patcher& patcher) {
                    const Nodes nodes = nodesOf(patcher, treeID);
                    return setNameLength(patcher, treeID, isLeaf ? nodes.leaf : nodes.root);
                },
                everything(false));
        };
        EXPECT_EQ(error(kCatalog, true), kCatalogMessage);
        EXPECT_EQ(error(kCatalog, false), kCatalogMessage);
        EXPECT_EQ(error(kAttributes, true), kVolumeMessage);
        EXPECT_EQ(error(kAttributes, false), kVolumeMessage);
    }
}

TEST(HostileVolumes, RecordsShorterThanTheirTypeAreRefused)
{
    // A folder's record that says it is a file's is too short for one.
    EXPECT_EQ(errorOf(damagedCatalogRecord(30, "recordType", 2)), kCatalogMessage);
    EXPECT_EQ(errorOf([](Patcher& patcher) {
                  return patcher.node(kExtents, nodesOf(patcher, kExtents).leaf, "offset[1]",
                                      14 + 12 + 60);
              }),
              kExtentsMessage);
    // A record of some bytes that says it has a fork, then one that ends within its type.
    EXPECT_EQ(errorOf([](Patcher& patcher) {
                  const uint32_t leaf = patcher.leafWithRecord(kAttributes, 2).value_or(0);
                  const uint32_t key = 14 + 2 + 12 + 2 * 6;
                  return leaf != 0 && patcher.nodeBytes(kAttributes, leaf, key, 0x20, 4);
              }),
              kVolumeMessage);
    EXPECT_EQ(errorOf([](Patcher& patcher) {
                  return patcher.node(kAttributes, nodesOf(patcher, kAttributes).leaf, "offset[1]",
                                      14 + 14 + 2);
              }),
              kVolumeMessage);
}

TEST(HostileVolumes, NodeSizesThatAreNoneAreRefused)
{
    for (const uint32_t treeID : {kExtents, kCatalog, kAttributes}) {
        for (const uint32_t nodeSize : {0u, 1u, 256u, 3000u, 32768u, 65535u}) {
            SCOPED_TRACE(std::to_string(treeID) + " " + std::to_string(nodeSize));
            EXPECT_EQ(errorOf(damagedTreeHeader(treeID, "nodeSize", nodeSize)), kHeaderMessage);
        }
        // As large as the file allows, but not what the nodes were made for.
        EXPECT_NE(errorOf(damagedTreeHeader(treeID, "nodeSize", treeID == kExtents ? 1024 : 8192)),
                  "");
    }
}

TEST(HostileVolumes, SumsThatLeaveThirtyTwoBitsAreRefused)
{
    for (const char* fork : {"dataFork", "resourceFork"}) {
        const std::string extent = std::string(fork) + ".extents[3]";
        EXPECT_EQ(errorOf(damagedCatalogRecord(32, extent + ".startBlock", 0xFFFFFFFF)),
                  kVolumeMessage);
        EXPECT_EQ(errorOf(damagedCatalogRecord(32, extent + ".blockCount", 0xFFFFFFFF)),
                  kVolumeMessage);
    }
    for (const char* fork :
         {"catalogFile", "extentsFile", "allocationFile", "attributesFile", "startupFile"}) {
        SCOPED_TRACE(fork);
        const std::string name = fork;
        EXPECT_EQ(errorOf(damagedHeader(name + ".extents[0].startBlock", 0xFFFFFFFF)),
                  kVolumeMessage);
        EXPECT_EQ(errorOf(damagedHeader(name + ".extents[0].blockCount", 0xFFFFFFFF)),
                  kVolumeMessage);
        EXPECT_EQ(errorOf(damagedHeader(name + ".totalBlocks", 0xFFFFFFFF)), kVolumeMessage);
        EXPECT_EQ(errorOf(damagedHeader(name + ".logicalSize", UINT64_MAX)), kVolumeMessage);
    }
    EXPECT_EQ(errorOf(damagedJournalInfo("size", UINT64_MAX)), kVolumeMessage);
    EXPECT_EQ(errorOf(damagedJournalInfo("offset", UINT64_MAX - 4)), kVolumeMessage);
    EXPECT_EQ(errorOf(damagedOverflowRecord(32, 0, 8, "extents[0].blockCount", 0xFFFFFFFF)),
              kVolumeMessage);
}

TEST(HostileVolumes, CyclesEnd)
{
    const auto linkToItself = [](Patcher& patcher, uint32_t treeID, uint32_t node) {
        return patcher.node(treeID, node, "fLink", node);
    };
    // Nobody goes along the links of these leaves; what does go along them is sound or counted.
    EXPECT_EQ(errorsOf(linkToItself),
              (NodeErrors{kNoHarm, kNoHarm, kNoHarm, kNoHarm, kNoHarm, kNoHarm}));
    for (const uint32_t treeID : {kExtents, kCatalog, kAttributes}) {
        const char* const message = treeID == kExtents   ? kExtentsMessage
                                    : treeID == kCatalog ? kCatalogMessage
                                                         : kVolumeMessage;
        // The root is its own first child. The keys there are those of the tree's first record.
        const uint32_t keySize = treeID == kExtents ? 12 : treeID == kCatalog ? 24 : 22;
        EXPECT_EQ(errorOf(
                      [&](Patcher& patcher) {
                          const uint32_t root = nodesOf(patcher, treeID).root;
                          return patcher.nodeBytes(treeID, root, 14 + keySize, root, 4);
                      },
                      everything(false)),
                  message)
            << treeID;
        EXPECT_EQ(errorOf([&](Patcher& patcher) {
                      return patcher.node(treeID, 0, "fLink", 0) &&
                             patcher.node(treeID, 0, "fLink", 1);
                  }),
                  kMapMessage)
            << treeID;
    }
    // A folder in itself, for whoever goes through "/Applications".
    HFSPlusVolumeBuilder builder = everything();
    builder.folder("/Applications", 60).folder("/Applications/a", 61);
    builder.folder("/Applications/a/b", 62);
    EXPECT_EQ(errorOf(damagedCatalogRecord(62, "folderID", 61), builder), kNoHarm);
    // A record of no blocks would be asked for again and again.
    EXPECT_EQ(errorOf(damagedOverflowRecord(32, 0, 16, "extents[0].blockCount", 0)),
              "Overflow extent record missing.");
}

TEST(HostileVolumes, MapsThatCallUsedNodesFreeAreRefused)
{
    for (const uint32_t treeID : {kExtents, kCatalog, kAttributes}) {
        const char* const message = treeID == kExtents   ? kExtentsMessage
                                    : treeID == kCatalog ? kCatalogMessage
                                                         : kVolumeMessage;
        for (const bool isLeaf : {false, true}) {
            EXPECT_EQ(errorOf([&](Patcher& patcher) {
                          const Nodes nodes = nodesOf(patcher, treeID);
                          return patcher.treeMap(treeID, isLeaf ? nodes.leaf : nodes.root, false);
                      }),
                      message);
        }
        EXPECT_EQ(errorOf([&](Patcher& patcher) { return patcher.treeMap(treeID, 0, false); }),
                  kNoHarm);  // the header node
    }
}

TEST(HostileVolumes, DepthsThatAreNotThoseOfTheTreeAreRefused)
{
    for (const uint32_t depth : {0u, 1u, 17u, 0xFFFFu}) {
        SCOPED_TRACE(depth);
        EXPECT_EQ(errorOf(damagedTreeHeader(kExtents, "treeDepth", depth)), kExtentsMessage);
        EXPECT_EQ(errorOf(damagedTreeHeader(kCatalog, "treeDepth", depth)), kCatalogMessage);
        EXPECT_EQ(errorOf(damagedTreeHeader(kAttributes, "treeDepth", depth)), kVolumeMessage);
    }
}

TEST(HostileVolumes, SpecialFilesWithoutExtentsOrWithThoseOfOthersAreRefused)
{
    const auto emptied = [](const std::string& fork) {
        return [fork](Patcher& patcher) {
            bool done = true;
            for (uint32_t index = 0; index < 8; ++index) {
                const std::string extent = fork + ".extents[" + std::to_string(index) + "]";
                done = patcher.header(extent + ".startBlock", 0) &&
                       patcher.header(extent + ".blockCount", 0) && done;
            }
            return done;
        };
    };
    for (const char* fork : {"extentsFile", "catalogFile", "allocationFile"}) {
        EXPECT_NE(errorOf(emptied(fork)), "") << fork;
    }
    const auto start = [](Patcher& patcher, uint32_t treeID) {
        const auto& plan = patcher.plan();
        return treeID == kExtents   ? plan.extentsTree.extents[0].startBlock
               : treeID == kCatalog ? plan.catalogTree.extents[0].startBlock
                                    : plan.allocationExtents[0].startBlock;
    };
    for (const uint32_t other : {kExtents, kCatalog, kHFSPlusBuilderAllocationID}) {
        for (const char* fork :
             {"extentsFile", "catalogFile", "allocationFile", "attributesFile", "startupFile"}) {
            SCOPED_TRACE(std::string(fork) + " on file " + std::to_string(other));
            const std::string field = std::string(fork) + ".extents[0].startBlock";
            const bool isOwn =
                (other == kExtents && fork == std::string("extentsFile")) ||
                (other == kCatalog && fork == std::string("catalogFile")) ||
                (other == kHFSPlusBuilderAllocationID && fork == std::string("allocationFile"));
            const std::string error = errorOf(
                [&](Patcher& patcher) { return patcher.header(field, start(patcher, other)); });
            EXPECT_EQ(error.empty(), isOwn) << error;
        }
    }
}

TEST(HostileVolumes, OverflowRecordsOfSpecialFilesLeadNowhere)
{
    // Each special file claims a block more than its extents hold, and a record is there for it.
    for (const auto& [fileID, fork] : std::vector<std::pair<uint32_t, std::string>>{
             {kExtents, "extentsFile"},
             {kCatalog, "catalogFile"},
             {kHFSPlusBuilderAllocationID, "allocationFile"},
             {kHFSPlusBuilderStartupID, "startupFile"},
             {kAttributes, "attributesFile"}}) {
        SCOPED_TRACE(fork);
        const std::string error = errorOf([fileID = fileID, fork = fork](Patcher& patcher) {
            return patcher.overflowRecord(32, 0, 8, "fileID", fileID) &&
                   patcher.header(fork + ".totalBlocks", 2000);
        });
        EXPECT_NE(error, "");
    }
}

TEST(HostileVolumes, HeadersThatDisagreeWithTheDeviceAreRefused)
{
    EXPECT_EQ(errorOf(damagedHeader("totalBlocks", kTotalBlocks + 1)), kVolumeMessage);
    EXPECT_EQ(errorOf(damagedHeader("totalBlocks", 0xFFFFFFFF)), kVolumeMessage);
    EXPECT_EQ(errorOf(damagedHeader("totalBlocks", 0)), kVolumeMessage);
    EXPECT_EQ(errorOf(damagedHeader("freeBlocks", kTotalBlocks + 1)), kVolumeMessage);
    for (const uint32_t blockSize : {0u, 1u, 256u, 1000u, 2048u, 0x80000000u, 0xFFFFFFFFu}) {
        EXPECT_EQ(errorOf(damagedHeader("blockSize", blockSize)), kVolumeMessage) << blockSize;
    }
    EXPECT_EQ(errorOf(damagedAlternateHeader("signature", 0)), "not valid");
    EXPECT_NE(errorOf(damagedHeader("journalInfoBlock", kTotalBlocks)), "");
    EXPECT_NE(errorOf(damagedHeader("journalInfoBlock", 0xFFFFFFFF)), "");
    HFSPlusVolumeBuilder wrapped = everything();
    wrapped.wrapper();
    EXPECT_NE(errorOf(damagedWrapper("drEmbedExtent.blockCount", 0xFFFF), wrapped), "");
    EXPECT_NE(errorOf(damagedWrapper("drEmbedExtent.startBlock", 0xFFFF), wrapped), "");
    EXPECT_NE(errorOf(damagedWrapper("drAlBlkSiz", 0), wrapped), "");
    EXPECT_NE(errorOf(damagedWrapper("drAlBlkSiz", 0xFFFFFFFF), wrapped), "");
}

TEST(HostileVolumes, ForksThatShareBlocksAreRefused)
{
    const auto errorOfFileAt = [](const HFSPlusBuilderExtents& extents) {
        HFSPlusVolumeBuilder builder = everything();
        builder.unchecked();
        builder.file("/zz", 70).data(extents);
        return runsOn(std::move(builder)).error();
    };
    const auto overlap = [](const std::string& error) {
        return error.starts_with("Invalid overlapping extent with start block = ");
    };
    EXPECT_EQ(errorOfFileAt({{2500, 2}, {2510, 2}}), "");
    EXPECT_TRUE(overlap(errorOfFileAt({{2500, 2}, {2501, 2}})));   // itself
    EXPECT_TRUE(overlap(errorOfFileAt({{1203, 1}})));              // another file
    EXPECT_TRUE(overlap(errorOfFileAt({{601, 1}})));               // a resource fork
    EXPECT_TRUE(overlap(errorOfFileAt({{1322, 1}})));              // an attribute
    EXPECT_TRUE(overlap(errorOfFileAt({{210, 2}})));               // the journal
    EXPECT_TRUE(overlap(errorOfFileAt({{1900, 1}})));              // bad blocks
    EXPECT_TRUE(overlap(errorOfFileAt({{1913, 1}})));              // the startup file
    EXPECT_TRUE(overlap(errorOfFileAt({{1, 1}})));                 // the header
    EXPECT_TRUE(overlap(errorOfFileAt({{kTotalBlocks - 1, 1}})));  // the alternate one
    EXPECT_TRUE(overlap(errorOf(                                   // the playlist
        damagedCatalogRecord(34, "dataFork.extents[0].startBlock", 1797))));
    const auto plan = [] {
        HFSPlusVolumeBuilder builder = everything();
        std::ignore = builder.build();
        return builder.plan();
    }();
    for (const auto& extents : {plan.allocationExtents, plan.catalogTree.extents,
                                plan.extentsTree.extents, plan.attributesTree.extents}) {
        const uint32_t last = extents[0].startBlock + extents[0].blockCount - 1;
        EXPECT_TRUE(overlap(errorOf([&](Patcher& patcher) {
            return patcher.catalogRecord(34, "dataFork.extents[0].startBlock", last) &&
                   patcher.catalogRecord(34, "dataFork.extents[0].blockCount", 1) &&
                   patcher.catalogRecord(34, "dataFork.totalBlocks", 1);
        })));
    }
}

TEST(HostileVolumes, NodesThatAreOnlyClaimedTakeNoMemory)
{
    constexpr uint64_t kNodes = 0xFFFFFFF0;
    for (const uint64_t freeNodes : {uint64_t{0}, kNodes - 4}) {
        HFSPlusVolumeBuilder builder;
        builder.blockSize(65536).totalBlocks(0x7FFFFFF0).contents(false).catalogNodeSize(4096);
        builder.file("/f", 20).data({{60000, 1}, {60010, 1}});
        builder.damage([&](Patcher& patcher) {
            return patcher.header("catalogFile.extents[0].blockCount", kNodes / 16) &&
                   patcher.header("catalogFile.totalBlocks", kNodes / 16) &&
                   patcher.header("catalogFile.logicalSize", kNodes * 4096) &&
                   patcher.treeHeader(kCatalog, "totalNodes", kNodes) &&
                   patcher.treeHeader(kCatalog, "freeNodes", freeNodes);
        });
        const auto memory = builder.build();
        ASSERT_NE(memory, nullptr) << builder.error();
        const HostileRuns runs = runEveryCommandButBitmap(*memory);  // judges the memory
        EXPECT_TRUE(runs.error().starts_with("Invalid overlapping extent")) << runs.error();
        EXPECT_EQ(runs.errors.at("SCAN"), "");
    }
}
