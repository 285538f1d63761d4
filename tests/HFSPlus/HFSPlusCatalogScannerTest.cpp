#include "HFSPlus/HFSPlusCatalogScanner.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <future>
#include <set>
#include <thread>

#include "HFSPlusCatalogTesting.h"
#include "KLKit/KLToolTask.h"

namespace {

/** Notes the files it is given, and may do something at each. */
class Census final : public HFSPlusCatalogScanDelegate {
public:
    void scanCatalogFilesWillStart() override { ++starts; }
    bool scanCatalogFile(const HFSPlusCatalogFile& file, std::span<const uint8_t> key,
                         VZDefragErrorSlot error) override
    {
        fileIDs.push_back(file.fileID);
        keySizes.insert(key.size());
        if (atFile) {
            atFile();
        }
        return fileIDs.size() < stopAt || VZDefragFail(error, "Third file.");
    }
    void scanCatalogFilesDidFinish() override { ++finishes; }

    std::vector<uint32_t> fileIDs;
    std::set<size_t> keySizes;
    std::function<void()> atFile;
    size_t stopAt = std::numeric_limits<size_t>::max();
    int starts = 0;
    int finishes = 0;
};

/** A volume of 100 files 1000 to 1099 in a catalog of @p totalNodes nodes with @p freeNodes free.
 *
 *  The counts are only numbers of the header record; leaves and their chain are as they should be.
 */
HFSPlusVolumeBuilder hundredFiles()
{
    HFSPlusVolumeBuilder builder;
    builder.totalBlocks(4000).manyFiles(100, nullptr, "/many", 1000);
    builder.catalogTree().maximumLeafRecords = 3;
    builder.catalogTree().shuffled = true;
    return builder;
}

HFSPlusVolumeBuilder hundredFilesWithNodes(uint32_t totalNodes, uint32_t freeNodes)
{
    HFSPlusVolumeBuilder builder = hundredFiles();
    builder.catalogTree().totalNodes = totalNodes;
    builder.damage(damagedTreeHeader(kHFSCatalogFileID, "freeNodes", freeNodes));
    return builder;
}

std::vector<uint32_t> sorted(std::vector<uint32_t> fileIDs)
{
    std::sort(fileIDs.begin(), fileIDs.end());
    return fileIDs;
}

std::vector<uint32_t> thousandTo(uint32_t end)
{
    std::vector<uint32_t> fileIDs;
    for (uint32_t cnid = 1000; cnid < end; ++cnid) {
        fileIDs.push_back(cnid);
    }
    return fileIDs;
}

std::string errorOfScanning(HFSPlusVolume& volume, Census& census)
{
    std::unique_ptr<VZDefragError> error;
    const bool scanned = volume.scanCatalogFiles(census, &error);
    EXPECT_NE(scanned, error != nullptr);
    return error != nullptr ? error->description() : "";
}

/** Makes the next scans of @p volume sparse or not, by the free nodes that the header tells. */
HFSPlusVolumeBuilder scannedAs(HFSPlusVolumeBuilder builder, bool sparse)
{
    builder.totalBlocks(4000).catalogTree().totalNodes = 1000;
    builder.damage(damagedTreeHeader(kHFSCatalogFileID, "freeNodes", sparse ? 900 : 100));
    return builder;
}

class HFSPlusCatalogScannerOfBothKinds : public testing::TestWithParam<bool> {};

INSTANTIATE_TEST_SUITE_P(Kinds, HFSPlusCatalogScannerOfBothKinds, testing::Bool(),
                         [](const testing::TestParamInfo<bool>& kind) {
                             return kind.param ? "Sparse" : "Bulk";
                         });

TEST(HFSPlusCatalogScanner, ACatalogOfAThousandNodesWith150FreeIsReadInBulk)
{
    HFSPlusOpenedVolume volume(hundredFilesWithNodes(1000, 150));
    ASSERT_TRUE(volume) << volume.error();
    Census census;

    ASSERT_EQ(errorOfScanning(*volume, census), "");

    EXPECT_EQ(sorted(census.fileIDs), thousandTo(1100));
    // Sequential reads of a megabyte: the nodes are 4 KiB or larger.
    size_t largest = 0;
    for (const MemoryBlockDevice::Operation& operation : volume.operations()) {
        largest = std::max(largest, operation.nbyte);
    }
    EXPECT_EQ(largest, 1048576U);
}

TEST(HFSPlusCatalogScanner, ACatalogOfAThousandNodesWith801FreeIsReadLeafByLeaf)
{
    HFSPlusOpenedVolume volume(hundredFilesWithNodes(1000, 801));
    ASSERT_TRUE(volume) << volume.error();
    Census census;

    ASSERT_EQ(errorOfScanning(*volume, census), "");

    EXPECT_EQ(census.fileIDs, thousandTo(1100));
    for (const MemoryBlockDevice::Operation& operation : volume.operations()) {
        EXPECT_EQ(operation.nbyte, volume->catalog().nodeSize());
    }
}

TEST(HFSPlusCatalogScanner, ARatioOfExactlyFiveIsReadInBulk)
{
    HFSPlusOpenedVolume volume(hundredFilesWithNodes(1000, 800));
    ASSERT_TRUE(volume) << volume.error();
    Census census;

    ASSERT_EQ(errorOfScanning(*volume, census), "");

    EXPECT_NE(census.fileIDs, thousandTo(1100));
    EXPECT_EQ(sorted(census.fileIDs), thousandTo(1100));
}

TEST(HFSPlusCatalogScanner, ACatalogThatCountsAllItsNodesAsFreeIsReadLeafByLeaf)
{
    HFSPlusOpenedVolume volume(hundredFilesWithNodes(1000, 1000));
    ASSERT_TRUE(volume) << volume.error();
    Census census;

    ASSERT_EQ(errorOfScanning(*volume, census), "");

    EXPECT_EQ(census.fileIDs, thousandTo(1100));
}

TEST_P(HFSPlusCatalogScannerOfBothKinds, GivesEachFileOnceWithItsKeyAndNoFoldersOrThreads)
{
    HFSPlusOpenedVolume volume(scannedAs(smallCatalog(), GetParam()));
    ASSERT_TRUE(volume) << volume.error();
    Census census;

    ASSERT_EQ(errorOfScanning(*volume, census), "");

    EXPECT_EQ(sorted(census.fileIDs), (std::vector<uint32_t>{20, 32, 40}));
    // The keys of "Readme", "Arial" and "a/b", with the eight bytes before each name.
    EXPECT_EQ(census.keySizes, (std::set<size_t>{8 + 12, 8 + 10, 8 + 6}));
    EXPECT_EQ(census.starts, 1);
    EXPECT_EQ(census.finishes, 1);
}

TEST_P(HFSPlusCatalogScannerOfBothKinds, ARefusalOfTheThirdFileEndsTheScan)
{
    HFSPlusOpenedVolume volume(scannedAs(hundredFiles(), GetParam()));
    ASSERT_TRUE(volume) << volume.error();
    Census census;
    census.stopAt = 3;

    EXPECT_EQ(errorOfScanning(*volume, census), "Third file.");

    EXPECT_EQ(census.fileIDs.size(), 3U);
    EXPECT_EQ(census.finishes, 1);
}

/** Scans on the thread of a tool task, which @p atFile may abort. */
std::string errorOfScanningInTask(HFSPlusVolume& volume, Census& census,
                                  const std::function<void(KLToolTask&)>& before)
{
    const auto task = std::make_shared<KLToolTask>();
    std::promise<std::string> verdict;
    before(*task);
    task->setAction([&] {
        std::unique_ptr<VZDefragError> error;
        const bool scanned = volume.scanCatalogFiles(census, &error);
        verdict.set_value(scanned ? "" : error->isUserCancelled() ? "cancelled" : "failed");
    });
    task->start();
    return verdict.get_future().get();
}

TEST_P(HFSPlusCatalogScannerOfBothKinds, AbortingTheTaskBetweenTwoNodesIsACancellation)
{
    HFSPlusOpenedVolume volume(scannedAs(hundredFiles(), GetParam()));
    ASSERT_TRUE(volume) << volume.error();
    Census census;
    size_t filesAtAbort = 0;

    const std::string verdict = errorOfScanningInTask(*volume, census, [&](KLToolTask& task) {
        census.atFile = [&] {
            if (filesAtAbort == 0) {
                task.abort();
                filesAtAbort = census.fileIDs.size();
            }
        };
    });

    EXPECT_EQ(verdict, "cancelled");
    // The rest of the node may still come, three records at most.
    EXPECT_LE(census.fileIDs.size(), filesAtAbort + 2);
    EXPECT_EQ(census.finishes, 1);
}

TEST_P(HFSPlusCatalogScannerOfBothKinds, ATaskThatIsAbortedAlreadyGetsNoFile)
{
    HFSPlusOpenedVolume volume(scannedAs(hundredFiles(), GetParam()));
    ASSERT_TRUE(volume) << volume.error();
    Census census;

    const std::string verdict =
        errorOfScanningInTask(*volume, census, [](KLToolTask& task) { task.abort(); });

    EXPECT_EQ(verdict, "cancelled");
    EXPECT_TRUE(census.fileIDs.empty());
    EXPECT_EQ(census.starts, 1);
    EXPECT_EQ(census.finishes, 1);
}

TEST_P(HFSPlusCatalogScannerOfBothKinds, WhicheverReadFailsEndsTheScan)
{
    HFSPlusOpenedVolume built(scannedAs(hundredFiles(), GetParam()));
    ASSERT_TRUE(built) << built.error();

    uint64_t reads = 0;
    for (bool reached = true; reached; ++reads) {
        HFSPlusOpenedVolume volume(built.memory().clone());
        ASSERT_TRUE(volume) << volume.error();
        volume.faults().fail(FaultyBlockDevice::Operation::kRead, reads + 1, EIO);
        Census census;
        const std::string error = errorOfScanning(*volume, census);
        reached = volume.faults().faultReached();
        EXPECT_EQ(error.empty(), !reached) << reads;
        EXPECT_EQ(census.finishes, 1);
    }
    EXPECT_GT(reads, 1U);
}

TEST_P(HFSPlusCatalogScannerOfBothKinds, ADamagedFileRecordIsNotPassedOver)
{
    struct Damage {
        size_t offset;
        uint16_t value;
    };
    for (const Damage damage : {Damage{0, 4}, Damage{0, 518}, Damage{6, 0x8003}}) {
        HFSPlusOpenedVolume volume(scannedAs(smallCatalog(), GetParam()));
        ASSERT_TRUE(volume) << volume.error();
        HFSPlusCatalogRecordInMemory record(volume->catalog(), 2, u"Readme");
        record.setKey16(damage.offset, damage.value);
        Census census;

        EXPECT_EQ(errorOfScanning(*volume, census), kCatalogInconsistent);
    }
}

TEST_P(HFSPlusCatalogScannerOfBothKinds, ARecordTooShortForAFileIsNotPassedOver)
{
    HFSPlusOpenedVolume volume(scannedAs(smallCatalog(), GetParam()));
    ASSERT_TRUE(volume) << volume.error();
    HFSPlusCatalogRecordInMemory(volume->catalog(), 2, u"Library").setData16(0, kHFSPlusFileRecord);
    Census census;

    EXPECT_EQ(errorOfScanning(*volume, census), kCatalogInconsistent);
    EXPECT_EQ(census.finishes, 1);
}

TEST_P(HFSPlusCatalogScannerOfBothKinds, RecordsOfUnknownTypesAreIgnored)
{
    HFSPlusOpenedVolume volume(scannedAs(smallCatalog(), GetParam()));
    ASSERT_TRUE(volume) << volume.error();
    HFSPlusCatalogRecordInMemory(volume->catalog(), 2, u"Readme").setData16(0, 77);
    Census census;

    ASSERT_EQ(errorOfScanning(*volume, census), "");

    EXPECT_EQ(sorted(census.fileIDs), (std::vector<uint32_t>{32, 40}));
}

TEST_P(HFSPlusCatalogScannerOfBothKinds, ALeafWithRecordsOutsideItIsInconsistent)
{
    // The leaf has twelve records; the last one, a thread, seems to reach into the offsets table.
    const auto stretchLastRecord = [](HFSPlusVolumeBuilderPatcher& patcher) {
        const std::optional<uint32_t> leaf = patcher.leafWithRecord(kHFSCatalogFileID, 11);
        return leaf && patcher.node(kHFSCatalogFileID, *leaf, "offset[12]", 4094);
    };
    HFSPlusVolumeBuilder builder = scannedAs(smallCatalog(), GetParam()).catalogNodeSize(4096);
    HFSPlusOpenedVolume volume(builder.damage(stretchLastRecord));
    ASSERT_TRUE(volume) << volume.error();
    Census census;

    EXPECT_EQ(errorOfScanning(*volume, census), kCatalogInconsistent);
}

TEST(HFSPlusCatalogScanner, ALeafChainThatLeadsToAnotherKindOfNodeIsInconsistent)
{
    HFSPlusOpenedVolume volume(scannedAs(hundredFiles(), true));
    ASSERT_TRUE(volume) << volume.error();
    HFSPlusCatalog& catalog = volume->catalog();
    catalog.cachedNodeWithIndex(catalog.firstLeafNode(), {}, nullptr)->setFLink(catalog.rootNode());
    Census census;

    EXPECT_EQ(errorOfScanning(*volume, census), kCatalogInconsistent);
    EXPECT_EQ(census.finishes, 1);
}

TEST(HFSPlusCatalogScanner, ALeafChainThatIsACircleIsInconsistent)
{
    HFSPlusOpenedVolume volume(scannedAs(hundredFiles(), true));
    ASSERT_TRUE(volume) << volume.error();
    HFSPlusCatalog& catalog = volume->catalog();
    catalog.cachedNodeWithIndex(catalog.firstLeafNode(), {}, nullptr)
        ->setFLink(catalog.firstLeafNode());
    Census census;

    EXPECT_EQ(errorOfScanning(*volume, census), kCatalogInconsistent);
}

TEST(HFSPlusCatalogScanner, ABulkScanInterpretsNothingButLeavesInUse)
{
    HFSPlusOpenedVolume volume(scannedAs(hundredFiles(), false));
    ASSERT_TRUE(volume) << volume.error();
    HFSPlusCatalog& catalog = volume->catalog();
    // Index nodes full of garbage do not matter to a scan of the leaves.
    const HFSPlusCachedNode root = catalog.cachedNodeWithIndex(catalog.rootNode(), {}, nullptr);
    std::memset(root->recordDataAtIndex(0), 0xFF, catalog.nodeSize() - 14);
    Census census;

    ASSERT_EQ(errorOfScanning(*volume, census), "");

    EXPECT_EQ(sorted(census.fileIDs), thousandTo(1100));
}

/** Scans as a task named SCAN and returns what was logged on the way. */
std::string logOfScanning(HFSPlusVolume& volume, int scans)
{
    const auto task = std::make_shared<KLToolTask>();
    std::promise<bool> done;
    task->setName("SCAN");
    task->setAction([&] {
        bool scanned = true;
        for (int scan = 0; scan < scans; ++scan) {
            Census census;
            scanned = volume.scanCatalogFiles(census, nullptr) && scanned;
        }
        done.set_value(scanned);
    });
    testing::internal::CaptureStderr();
    task->start();
    EXPECT_TRUE(done.get_future().get());
    return testing::internal::GetCapturedStderr();
}

/** The texts of log lines, without the head that ends with the process ID. */
std::string withoutHeads(const std::string& log)
{
    std::string texts;
    size_t start = 0;
    while (start < log.size()) {
        const size_t end = std::min(log.find('\n', start), log.size());
        const size_t head = log.find("]: ", start);
        texts += head < end ? log.substr(head + 3, end - head - 3) : log.substr(start, end - start);
        texts += '\n';
        start = end + 1;
    }
    return texts;
}

/** Ends the process well only if @p builder's volume, scanned twice, logs @p expected once. */
void scanTwiceThenEnd(const HFSPlusVolumeBuilder& builder, const std::string& expected)
{
    HFSPlusOpenedVolume volume(builder);
    const std::string first = withoutHeads(logOfScanning(*volume, 2));
    // A new thread tells it again.
    const std::string second = withoutHeads(logOfScanning(*volume, 1));
    std::fputs(first.c_str(), stderr);
    std::_Exit(first == expected && second == expected ? 0 : 1);
}

TEST(HFSPlusCatalogScanner, ASecondScanOnTheSameThreadLogsNothing)
{
    // The level is read once in a process, so the scans get a process of their own.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ASSERT_EQ(setenv("KLDebugLevel", "debug", 1), 0);

    EXPECT_EXIT(scanTwiceThenEnd(hundredFilesWithNodes(1000, 150),
                                 "SCAN,DEBUG,Catalog total vs used node ratio is 1.2\n"
                                 "SCAN,DEBUG,Catalog cache size is 32MiB\n"
                                 "SCAN,DEBUG,Catalog file size is 3.906MiB\n"
                                 "SCAN,DEBUG,Catalog scan using bulk method\n"),
                testing::ExitedWithCode(0), "");
    EXPECT_EXIT(scanTwiceThenEnd(hundredFilesWithNodes(1000, 801),
                                 "SCAN,DEBUG,Catalog total vs used node ratio is 5.0\n"
                                 "SCAN,DEBUG,Catalog cache size is 32MiB\n"
                                 "SCAN,DEBUG,Catalog file size is 3.906MiB\n"
                                 "SCAN,DEBUG,Catalog scan using sparse method\n"),
                testing::ExitedWithCode(0), "");
}

}  // namespace
