#include "Tasks/HFSPlusScanTask.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "HFSPlus/HFSPlusCatalogTesting.h"
#include "HFSPlus/HFSPlusExtents.h"
#include "HFSPlus/HFSPlusFormatConversion.h"
#include "Tasks/ReportRun.h"
#include "VZDefragOutput.h"
#include "base/StandardOutputCapture.h"

namespace {

constexpr const char* kMissing = "SCAN,ERROR,Overflow extent record missing.";
constexpr uint32_t kDate2001 = 3061152000;  // 978307200 in Unix time

HFSPlusVolumeBuilder smallVolume()
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(512).totalBlocks(8000).contents(false);
    return builder;
}

/** @p count extents of @p blocks blocks with one block between them. */
HFSPlusBuilderExtents pieces(uint32_t start, uint32_t count, uint32_t blocks = 1)
{
    HFSPlusBuilderExtents extents;
    for (uint32_t index = 0; index < count; ++index) {
        extents.push_back({start + index * (blocks + 1), blocks});
    }
    return extents;
}

std::string printed(const HFSPlusBuilderExtents& extents)
{
    std::string text;
    for (const HFSPlusBuilderExtent& extent : extents) {
        text += "," + std::to_string(extent.startBlock) + "," + std::to_string(extent.blockCount);
    }
    return text;
}

Lines scan(HFSPlusVolume& volume, const std::string& words = "")
{
    return framed(runReport<HFSPlusScanTask>(volume, "SCAN " + words), "SCAN");
}

/** A scan of what @p builder makes. */
Lines scanned(HFSPlusVolumeBuilder builder, const std::string& words = "")
{
    const HFSPlusOpenedVolume volume(std::move(builder));
    EXPECT_TRUE(volume) << volume.error();
    return volume ? scan(*volume, words) : Lines();
}

/** Files in two folders and in the root folder, one of them in two pieces. */
HFSPlusVolumeBuilder mixedVolume()
{
    HFSPlusVolumeBuilder builder = smallVolume();
    builder.file("/whole", 20).data({{2000, 5}});
    builder.file("/Library/Fonts/Arial", 21).data({{2010, 5}, {2020, 5}});
    builder.file("/empty", 22);
    return builder;
}

/** Files of ten pieces, so that each needs an overflow record. */
HFSPlusVolumeBuilder overflowingVolume()
{
    HFSPlusVolumeBuilder builder = smallVolume();
    builder.file("/a", 20).data(pieces(2000, 10)).resource(pieces(3000, 10));
    return builder;
}

/** The percentages that a scan reports. */
std::vector<int> progressOf(const Lines& lines)
{
    std::vector<int> values;
    for (const std::string& line : lines) {
        if (line.starts_with("SCAN,PROGRESS,")) {
            values.push_back(std::stoi(fieldsOf(line)[2]));
        }
    }
    return values;
}

/** How many reads a scan with @p words makes when the catalog's cache keeps one node. */
uint64_t readsOfScan(HFSPlusOpenedVolume& volume, const std::string& words)
{
    volume->catalog().setNodeCacheSize(volume->catalog().nodeSize());
    volume.memory().clearOperations();
    EXPECT_GT(scan(*volume, words).size(), 0u);
    return volume.memory().readCount();
}

}  // namespace

TEST(HFSPlusScanTask, AFileIsOneLineOfAllItsFields)
{
    HFSPlusVolumeBuilder builder = smallVolume();
    builder.folder("/folder", 30);
    builder.file("/folder/name", 31).data({{2000, 3}, {2010, 4}}).resource({{2020, 5}});
    builder.type(0x54455854, 0xABCDEF01);
    builder.damage(damagedCatalogRecord(31, "createDate", kDate2001));
    builder.damage(damagedCatalogRecord(31, "contentModDate", kDate2001 + 1));
    builder.damage(damagedCatalogRecord(31, "attributeModDate", kDate2001 + 2));
    builder.damage(damagedCatalogRecord(31, "accessDate", kDate2001 + 3));

    EXPECT_EQ(scanned(builder),
              Lines({"SCAN,FILE,30,31,name,978307200,978307201,978307203,54455854,ABCDEF01,2000,3,"
                     "2010,4,2020,5"}));
}

TEST(HFSPlusScanTask, DatesArePrintedIn64Bits)
{
    HFSPlusVolumeBuilder builder = smallVolume();
    builder.file("/name", 20);
    builder.damage(damagedCatalogRecord(20, "createDate", 0));
    builder.damage(damagedCatalogRecord(20, "contentModDate", 0xFFFFFFFF));
    builder.damage(damagedCatalogRecord(20, "accessDate", 2082844800));

    EXPECT_EQ(scanned(builder),
              Lines({"SCAN,FILE,2,20,name,-2082844800,2212122495,0,00000000,00000000"}));
}

TEST(HFSPlusScanTask, ThreeExtentsInTheRecordAndTenInTwoOverflowRecordsArePrintedInFileOrder)
{
    HFSPlusVolumeBuilder builder = smallVolume();
    builder.freeExtentsNodes(4);
    builder.file("/name", 20).data(pieces(2000, 3, 2));
    builder.damage(damagedCatalogRecord(20, "dataFork.totalBlocks", 6 + 10));
    const HFSPlusOpenedVolume volume(builder);
    ASSERT_TRUE(volume) << volume.error();
    HFSPlusHostExtentRecord first = {};
    HFSPlusHostExtentRecord second = {};
    for (uint32_t index = 0; index < first.size(); ++index) {
        first[index] = {7000 - 10 * index, 1};
    }
    second[0] = {3000, 1};
    second[1] = {2900, 1};
    ASSERT_TRUE(volume->extents().insertExtentRecord(diskOrder(second), 14, 20, 0, nullptr));
    ASSERT_TRUE(volume->extents().insertExtentRecord(diskOrder(first), 6, 20, 0, nullptr));

    const Lines lines = scan(*volume);

    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(extentsOf(lines[0]),
              ",2000,2,2003,2,2006,2,7000,1,6990,1,6980,1,6970,1,6960,1,6950,1,6940,1,6930,1,"
              "3000,1,2900,1");
}

TEST(HFSPlusScanTask, TheResourceForksExtentsFollowTheDataForks)
{
    const Lines lines = scanned(overflowingVolume());

    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(extentsOf(lines[0]), printed(pieces(2000, 10)) + printed(pieces(3000, 10)));
}

TEST(HFSPlusScanTask, AnEmptyForkPrintsNoPairs)
{
    HFSPlusVolumeBuilder builder = smallVolume();
    builder.file("/none", 20);
    builder.file("/resource", 21).resource({{2000, 3}});

    const Lines lines = scanned(builder);

    EXPECT_EQ(extentsOf(lineOf(lines, 20)), "");
    EXPECT_EQ(extentsOf(lineOf(lines, 21)), ",2000,3");
}

TEST(HFSPlusScanTask, AnExtentWithAZeroNumberIsNotPrinted)
{
    HFSPlusVolumeBuilder builder = smallVolume();
    builder.file("/name", 20).data({{2000, 3}, {2010, 2}, {2020, 1}});
    builder.damage(damagedCatalogRecord(20, "dataFork.extents[0].startBlock", 0));
    builder.damage(damagedCatalogRecord(20, "dataFork.extents[1].blockCount", 0));
    builder.damage(damagedCatalogRecord(20, "dataFork.totalBlocks", 1));

    EXPECT_EQ(extentsOf(lineOf(scanned(builder), 20)), ",2020,1");
}

TEST(HFSPlusScanTask, FoldersAndThreadsAreNotListed)
{
    EXPECT_EQ(namesOf(scanned(mixedVolume())),
              (std::multiset<std::string>{"whole", "Arial", "empty"}));
}

TEST(HFSPlusScanTask, FragOnlyListsFilesWithAForkInMoreThanOneExtent)
{
    HFSPlusVolumeBuilder builder = mixedVolume();
    builder.file("/resource", 23).data({{2030, 5}}).resource({{2040, 1}, {2050, 1}});
    builder.file("/both whole", 24).data({{2060, 5}}).resource({{2070, 5}});

    EXPECT_EQ(namesOf(scanned(builder, "--frag-only")),
              (std::multiset<std::string>{"Arial", "resource"}));
}

TEST(HFSPlusScanTask, FragOnlyLeavesOutAFileWithoutBlocksWhateverItsExtentsSay)
{
    HFSPlusVolumeBuilder builder = smallVolume();
    builder.file("/empty", 20).data({{2000, 5}});
    builder.damage(damagedCatalogRecord(20, "dataFork.totalBlocks", 0));

    EXPECT_EQ(scanned(builder, "--frag-only"), Lines());
}

TEST(HFSPlusScanTask, FilesThatFragOnlyLeavesOutDoNotAdvanceTheProgressWhichStillEndsAt100)
{
    ImmediateServices services;
    HFSPlusVolumeBuilder builder = smallVolume();
    for (uint32_t file = 0; file < 9; ++file) {
        builder.file("/whole" + std::to_string(file), 20 + file).data({{2000 + 2 * file, 1}});
    }
    builder.file("/fragmented", 40).data({{3000, 1}, {3010, 1}});

    EXPECT_EQ(progressOf(scanned(builder, "--frag-only")), (std::vector<int>{0, 10, 100}));
}

TEST(HFSPlusScanTask, ProgressIsTheShareOfTheFilesListedCutToAWholeNumber)
{
    ImmediateServices services;
    HFSPlusVolumeBuilder builder = smallVolume();
    for (uint32_t file = 0; file < 3; ++file) {
        builder.file("/file" + std::to_string(file), 20 + file);
    }

    EXPECT_EQ(progressOf(scanned(builder)), (std::vector<int>{0, 33, 66, 100}));
}

TEST(HFSPlusScanTask, AFileCountOf0MakesTheProgress100AtOnce)
{
    ImmediateServices services;
    HFSPlusVolumeBuilder builder = mixedVolume();
    builder.damage(damagedHeader("fileCount", 0));
    builder.damage(damagedAlternateHeader("fileCount", 0));

    const Lines lines = scanned(builder);

    EXPECT_EQ(progressOf(lines), (std::vector<int>{0, 100}));
    EXPECT_EQ(namesOf(lines).size(), 3u);
}

TEST(HFSPlusScanTask, AFileCountThatIsTooSmallKeepsTheProgressAt100)
{
    ImmediateServices services;
    HFSPlusVolumeBuilder builder = mixedVolume();
    builder.damage(damagedHeader("fileCount", 2));
    builder.damage(damagedAlternateHeader("fileCount", 2));

    EXPECT_EQ(progressOf(scanned(builder)), (std::vector<int>{0, 50, 100}));
}

TEST(HFSPlusScanTask, FullPathsHasTheShortFormFAndFiltersNothing)
{
    const std::multiset<std::string> paths = {"/whole", "/Library/Fonts/Arial", "/empty"};

    EXPECT_EQ(namesOf(scanned(mixedVolume(), "-f")), paths);
    EXPECT_EQ(namesOf(scanned(mixedVolume(), "--full-paths")), paths);
    EXPECT_EQ(namesOf(scanned(mixedVolume(), "-f --frag-only")),
              (std::multiset<std::string>{"/Library/Fonts/Arial"}));
}

TEST(HFSPlusScanTask, OptionsAreTakenInTheirOwnLettersOnly)
{
    const Lines lines = scanned(mixedVolume(), "-F");

    EXPECT_EQ(lines.back(), "SCAN,ERROR,Unknown option: -F");
    EXPECT_EQ(namesOf(lines), (std::multiset<std::string>{"whole", "Arial", "empty"}));
}

TEST(HFSPlusScanTask, CommaBackslashAndNULInANameAreEscaped)
{
    HFSPlusVolumeBuilder builder = smallVolume();
    builder.file("/a,b", 20);
    builder.file("/c\\d", 21);
    builder.file(std::string("/e\0f", 4), 22);

    EXPECT_EQ(namesOf(scanned(builder)),
              (std::multiset<std::string>{"a\\,b", "c\\\\d", "e\\xC0\\x80f"}));
}

TEST(HFSPlusScanTask, FolderNamesInAFullPathAreEscapedToo)
{
    HFSPlusVolumeBuilder builder = smallVolume();
    builder.file("/a,b/c\\d/plain", 20);

    EXPECT_EQ(namesOf(scanned(builder, "-f")), (std::multiset<std::string>{"/a\\,b/c\\\\d/plain"}));
}

TEST(HFSPlusScanTask, AFileInNoFolderAtAllHasAFullPathAllTheSame)
{
    HFSPlusVolumeBuilder builder = smallVolume();
    builder.file("/name", 20);
    const HFSPlusOpenedVolume volume(builder);
    ASSERT_TRUE(volume) << volume.error();
    HFSPlusCatalogRecordInMemory(volume->catalog(), kHFSRootFolderID, u"name").setKey32(2, 0);

    EXPECT_EQ(namesOf(scan(*volume, "-f")), (std::multiset<std::string>{"/name"}));
}

TEST(HFSPlusScanTask, ASlashInANameIsPrintedAsAColon)
{
    HFSPlusVolumeBuilder builder = smallVolume();
    builder.file("/a:b", 20);

    EXPECT_EQ(namesOf(scanned(builder)), (std::multiset<std::string>{"a:b"}));
    EXPECT_EQ(namesOf(scanned(builder, "-f")), (std::multiset<std::string>{"/a:b"}));
}

TEST(HFSPlusScanTask, NamesBeyondASCIIArePrintedAsUTF8)
{
    HFSPlusVolumeBuilder builder = smallVolume();
    builder.file("/\u65e5\u672c:\U0001F600,", 20);
    builder.file("/\u0001\u007f\u0080", 21);

    EXPECT_EQ(namesOf(scanned(builder)),
              (std::multiset<std::string>{"\u65e5\u672c:\U0001F600\\,", "\u0001\u007f\u0080"}));
}

TEST(HFSPlusScanTask, AnUnpairedSurrogateIsPrintedAsTheReplacementCharacter)
{
    HFSPlusVolumeBuilder builder = smallVolume();
    builder.file("/ab", 20);
    const HFSPlusOpenedVolume volume(builder);
    ASSERT_TRUE(volume) << volume.error();
    HFSPlusCatalogRecordInMemory record(volume->catalog(), 2, u"ab");
    record.setKey16(8, 0xD800);

    EXPECT_EQ(namesOf(scan(*volume)), (std::multiset<std::string>{"\uFFFDb"}));
}

TEST(HFSPlusScanTask, TheFilesOfOneFolderCostOnePathLookup)
{
    HFSPlusVolumeBuilder builder = smallVolume();
    builder.catalogTree().maximumLeafRecords = 3;
    builder.catalogTree().maximumIndexRecords = 3;
    for (uint32_t file = 0; file < 20; ++file) {
        builder.file("/some/folder/file" + std::to_string(file));
    }
    HFSPlusOpenedVolume volume(builder);
    ASSERT_TRUE(volume) << volume.error();
    std::string path;
    std::ignore = readsOfScan(volume, "");  // leaves the cache as every scan leaves it
    const uint64_t reads = readsOfScan(volume, "");
    const HFSPlusCatalogAnswer file = lookUp(volume->catalog(), "/some/folder/file1");
    volume.memory().clearOperations();
    ASSERT_TRUE(volume->catalog().copyPathForCNID(path, file.record.parentID, nullptr));
    const uint64_t lookup = volume.memory().readCount();
    ASSERT_GE(lookup, 4u);

    const uint64_t more = readsOfScan(volume, "-f") - reads;

    // Where the lookup ends in a node that is there for another reason, it saves a read.
    EXPECT_GT(more, 0u);
    EXPECT_LE(more, lookup);
}

TEST(HFSPlusScanTask, AnUnknownOptionIsReportedAfterTheWholeScan)
{
    const Lines lines = scanned(mixedVolume(), "--bogus,word -f");

    EXPECT_EQ(namesOf(lines),
              (std::multiset<std::string>{"/whole", "/Library/Fonts/Arial", "/empty"}));
    EXPECT_EQ(lines.back(), "SCAN,ERROR,Unknown option: --bogus\\,word");
    EXPECT_EQ(lines.size(), 4u);
}

TEST(HFSPlusScanTask, TheScansOwnErrorReplacesThatOfAnUnknownOption)
{
    HFSPlusVolumeBuilder builder = overflowingVolume();
    builder.damage(damagedOverflowRecord(20, 0, 8, "extents[0].startBlock", 0));

    EXPECT_EQ(scanned(builder, "--bogus").back(), kMissing);
}

TEST(HFSPlusScanTask, AParentThatIsNotInTheCatalogStopsTheScanBeforeTheLineBegins)
{
    const HFSPlusOpenedVolume volume(mixedVolume());
    ASSERT_TRUE(volume) << volume.error();
    // A thread of another type is none.
    const HFSPlusCatalogAnswer file = lookUp(volume->catalog(), "/Library/Fonts/Arial");
    HFSPlusCatalogRecordInMemory thread(volume->catalog(), file.record.parentID, u"");
    thread.setData16(0, 9);

    const Lines lines = scan(*volume, "-f");

    EXPECT_EQ(lines.back(), "SCAN,ERROR,Path lookup failed for file ID 21.");
    EXPECT_EQ(lineOf(lines, 21), "");
}

TEST(HFSPlusScanTask, TheErrorOfAPathLookupStopsTheScanBeforeTheLineBegins)
{
    const HFSPlusOpenedVolume volume(mixedVolume());
    ASSERT_TRUE(volume) << volume.error();
    const HFSPlusCatalogAnswer file = lookUp(volume->catalog(), "/Library/Fonts/Arial");
    const uint32_t folder = file.record.parentID;
    HFSPlusCatalogRecordInMemory(volume->catalog(), folder, u"").setData32(4, folder);

    const Lines lines = scan(*volume, "-f");

    EXPECT_EQ(lines.back(),
              "SCAN,ERROR,Unicode path conversion failed. A path component exceeded the maximum "
              "allowed length.");
    EXPECT_EQ(lineOf(lines, 21), "");
}

TEST(HFSPlusScanTask, AMissingOverflowRecordEndsTheLineAndTheScan)
{
    HFSPlusVolumeBuilder builder = overflowingVolume();
    builder.file("/b", 21);
    builder.damage(damagedOverflowRecord(20, 0, 8, "startBlock", 9));

    const Lines lines = scanned(builder);

    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(extentsOf(lines[0]), printed(pieces(2000, 8)));
    EXPECT_EQ(lines[1], kMissing);
}

TEST(HFSPlusScanTask, AMissingOverflowRecordOfTheResourceForkComesAfterTheDataFork)
{
    HFSPlusVolumeBuilder builder = overflowingVolume();
    builder.damage(damagedOverflowRecord(20, 0xFF, 8, "extents[0].startBlock", 0));

    const Lines lines = scanned(builder);

    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(extentsOf(lines[0]), printed(pieces(2000, 10)) + printed(pieces(3000, 8)));
    EXPECT_EQ(lines[1], kMissing);
}

TEST(HFSPlusScanTask, AnUnreadableOverflowRecordEndsTheLineAndTheScanWithItsError)
{
    HFSPlusVolumeBuilder builder = overflowingVolume();
    builder.damage([](HFSPlusVolumeBuilderPatcher& patcher) {
        return patcher.node(3, patcher.plan().extentsTree.rootNode, "numRecords", 0xFFFF);
    });

    const Lines lines = scanned(builder);

    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(extentsOf(lines[0]), printed(pieces(2000, 8)));
    EXPECT_EQ(lines[1], "SCAN,ERROR,Overflow extents file is inconsistent.");
}

TEST(HFSPlusScanTask, ADamagedCatalogEndsTheScanWithItsError)
{
    HFSPlusVolumeBuilder builder = mixedVolume();
    builder.damage([](HFSPlusVolumeBuilderPatcher& patcher) {
        return patcher.node(4, patcher.plan().catalogTree.firstLeafNode, "numRecords", 0xFFFF);
    });

    EXPECT_EQ(scanned(builder), Lines({"SCAN,ERROR,Catalog file is inconsistent."}));
}

TEST(HFSPlusScanTask, AnAbortedScanPrintsNoErrorEvenAfterAnUnknownOption)
{
    const HFSPlusOpenedVolume volume(mixedVolume());
    ASSERT_TRUE(volume) << volume.error();
    const auto event = std::make_shared<KLToolEvent>(KLToolEventStringType, "SCAN --bogus");
    const auto task = std::make_shared<HFSPlusScanTask>(*volume, event);
    task->abort();

    EXPECT_EQ(runTask(*task), Lines({"SCAN,START", "SCAN,DONE"}));
}

TEST(HFSPlusScanTask, AScanAbortedOnItsWayEndsWithTheDoneLine)
{
    ImmediateServices services;
    HFSPlusVolumeBuilder builder = smallVolume();
    builder.catalogTree().maximumLeafRecords = 2;
    for (uint32_t file = 0; file < 20; ++file) {
        builder.file("/file" + std::to_string(file), 20 + file);
    }
    const HFSPlusOpenedVolume volume(builder);
    ASSERT_TRUE(volume) << volume.error();
    const auto event = std::make_shared<KLToolEvent>(KLToolEventStringType, "SCAN");
    const auto task = std::make_shared<HFSPlusScanTask>(*volume, event);
    int reports = 0;
    services.afterProgress = [&] {
        if (++reports == 4) {
            task->abort();
        }
    };

    const Lines lines = framed(runTask(*task), "SCAN");

    EXPECT_GE(namesOf(lines).size(), 2u);
    EXPECT_LE(namesOf(lines).size(), 5u);
    for (const std::string& line : lines) {
        EXPECT_FALSE(line.starts_with("SCAN,ERROR")) << line;
    }
}

TEST(HFSPlusScanTask, AnAbortIsNoticedWithinAForkOfManyOverflowRecords)
{
    HFSPlusBuilderExtents extents;
    for (uint32_t index = 0; index < 400; ++index) {
        extents.push_back({2000 + 2 * index, 1});
    }
    HFSPlusVolumeBuilder builder = smallVolume();
    builder.file("/many", 20).data(extents);
    const HFSPlusOpenedVolume volume(builder);
    ASSERT_TRUE(volume) << volume.error();
    HFSPlusCatalogLookupRecord record;
    ASSERT_TRUE(volume->catalog().copyRecordForCNID(record, 20, nullptr));
    size_t found = 0;
    std::unique_ptr<VZDefragError> error;
    const auto task = std::make_shared<KLToolTask>();
    task->setAction([&] {
        const auto visit = [&](const HFSPlusHostExtentDescriptor& /*extent*/) {
            if (++found == 100) {
                task->abort();
            }
        };
        EXPECT_FALSE(volume->extents().visitForkExtents(diskOrder(record.file.dataFork), 20,
                                                        kHFSDataForkType, visit, &error));
    });

    EXPECT_EQ(runTask(*task), Lines());

    ASSERT_NE(error, nullptr);
    EXPECT_TRUE(error->isUserCancelled());
    EXPECT_LT(found, 110u);
}

TEST(HFSPlusScanTask, WaitsForTheVolumesGateBeforeItLooksAtTheVolume)
{
    const HFSPlusOpenedVolume volume(mixedVolume());
    ASSERT_TRUE(volume) << volume.error();

    EXPECT_TRUE(waitsForGate<HFSPlusScanTask>(*volume, "SCAN"));

    const KLClosedGate gate(volume->gate());  // given back
}

TEST(HFSPlusScanTask, HoldsTheGateWhileItLists)
{
    ImmediateServices services;
    const HFSPlusOpenedVolume volume(mixedVolume());
    ASSERT_TRUE(volume) << volume.error();
    std::thread other;
    std::atomic<bool> entered = false;
    bool enteredTooSoon = false;
    services.afterProgress = [&] {
        if (!other.joinable()) {
            other = std::thread([&] {
                const KLClosedGate gate(volume->gate());
                entered = true;
            });
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        enteredTooSoon = enteredTooSoon || entered;
    };

    std::ignore = scan(*volume);
    other.join();

    EXPECT_FALSE(enteredTooSoon);
    EXPECT_TRUE(entered);
}

TEST(HFSPlusScanTask, ALineOfManyPiecesIsNotSplitByTheLinesOfAnotherThread)
{
    constexpr uint32_t kPieces = 40000;  // a line of some 500 KiB
    HFSPlusVolumeBuilder builder;
    builder.blockSize(512).totalBlocks(200000).contents(false);
    builder.file("/name", 20).data(pieces(50000, kPieces));
    const HFSPlusOpenedVolume volume(builder);
    ASSERT_TRUE(volume) << volume.error();
    const StandardOutputCapture rest;  // what the other thread prints behind the command
    std::atomic<bool> ended = false;
    std::thread other([&] {
        while (!ended) {
            VZDefragWriteOutput("OTHER\n");
            std::this_thread::sleep_for(std::chrono::microseconds(20));
        }
    });

    const Lines lines = runReport<HFSPlusScanTask>(*volume, "SCAN");
    ended = true;
    other.join();

    EXPECT_EQ(extentsOf(lineOf(lines, 20)), printed(pieces(50000, kPieces)));
}
