#include "Tasks/HFSPlusMapTask.h"

#include <gtest/gtest.h>

#include "HFSPlus/HFSPlusCatalogTesting.h"
#include "Tasks/HFSPlusScanTask.h"
#include "Tasks/ReportRun.h"

namespace {

constexpr uint32_t kDate2040 = 4291747200;  // 2208902400 in Unix time

HFSPlusVolumeBuilder smallVolume()
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(512).totalBlocks(8000).contents(false);
    builder.folder("/folder", 30).folder("/folder/in,ner", 31);
    builder.file("/folder/in,ner/name", 32).data({{2000, 3}, {2010, 4}}).resource({{2020, 5}});
    builder.type(0x54455854, 0xABCDEF01);
    for (const char* date : {"createDate", "contentModDate", "accessDate"}) {
        builder.damage(damagedCatalogRecord(32, date, 2082844800 + 5));
    }
    return builder;
}

constexpr const char* kFolderLine = "MAP,DIR,2,30,/folder";
constexpr const char* kFileLine =
    "MAP,FILE,31,32,/folder/in\\,ner/name,5,5,5,54455854,ABCDEF01,2000,3,2010,4,2020,5";

Lines map(HFSPlusVolume& volume, const std::string& words)
{
    return framed(runReport<HFSPlusMapTask>(volume, "MAP " + words), "MAP");
}

Lines mapped(const std::string& words, HFSPlusVolumeBuilder builder = smallVolume())
{
    const HFSPlusOpenedVolume volume(std::move(builder));
    EXPECT_TRUE(volume) << volume.error();
    return volume ? map(*volume, words) : Lines();
}

/** A file of ten pieces in its data fork and in its resource fork. */
HFSPlusVolumeBuilder overflowingVolume()
{
    HFSPlusBuilderExtents data;
    HFSPlusBuilderExtents resource;
    for (uint32_t index = 0; index < 10; ++index) {
        data.push_back({2000 + 2 * index, 1});
        resource.push_back({3000 + 2 * index, 1});
    }
    HFSPlusVolumeBuilder builder;
    builder.blockSize(512).totalBlocks(8000).contents(false);
    builder.file("/a", 20).data(data).resource(resource);
    return builder;
}

}  // namespace

TEST(HFSPlusMapTask, AFileIsMappedByIDAndByPathWithItsFullPath)
{
    EXPECT_EQ(mapped("-i 32"), Lines({kFileLine}));
    EXPECT_EQ(mapped("--cnid 32"), Lines({kFileLine}));
    EXPECT_EQ(mapped("-p /folder/in,ner/name"), Lines({kFileLine}));
    EXPECT_EQ(mapped("--path folder//in,ner/name"), Lines({kFileLine}));
}

TEST(HFSPlusMapTask, ExtentsInOverflowRecordsArePrintedForkByFork)
{
    std::string expected;
    for (const uint32_t start : {2000u, 3000u}) {
        for (uint32_t index = 0; index < 10; ++index) {
            expected += "," + std::to_string(start + 2 * index) + ",1";
        }
    }

    const Lines lines = mapped("-i 20", overflowingVolume());

    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(extentsOf(lines[0]), expected);
}

TEST(HFSPlusMapTask, AFolderIsMappedToItsIDsAndItsPath)
{
    EXPECT_EQ(mapped("-i 30"), Lines({kFolderLine}));
    EXPECT_EQ(mapped("-p /folder"), Lines({kFolderLine}));
}

TEST(HFSPlusMapTask, ID2MapsTheRootFolder)
{
    EXPECT_EQ(mapped("-i 2"), Lines({"MAP,DIR,1,2,"}));
}

TEST(HFSPlusMapTask, IDsOutside32BitsAndBelow1AreInvalid)
{
    for (const std::string word : {"0", "4294967296", "-1", "-3", "x", "", "+", "-", "+-3", "0x20",
                                   "99999999999999999999", "-99999999999999999999"}) {
        if (!word.empty()) {
            EXPECT_EQ(mapped("-i " + word), Lines({"MAP,ERROR," + word + " is not a valid CNID."}));
        }
    }
    EXPECT_EQ(mapped("-i 4294967295"), Lines({"MAP,ERROR,Lookup failed for CNID 4294967295."}));
}

TEST(HFSPlusMapTask, AnIDIsReadFromTheStartOfItsWord)
{
    for (const std::string word : {"30", "+30", "030", "30abc", "30.7", "\v30", "\f30", "\r+30"}) {
        EXPECT_EQ(mapped("-i " + word), Lines({kFolderLine})) << word;
    }
}

TEST(HFSPlusMapTask, APathWithACommaIsEscapedOnceWhereFoundAndTwiceWhereNot)
{
    EXPECT_EQ(mapped("-p /folder/in,ner"), Lines({"MAP,DIR,30,31,/folder/in\\,ner"}));
    EXPECT_EQ(mapped("-p /out,er"), Lines({"MAP,ERROR,Lookup failed for path /out\\\\\\,er."}));
}

TEST(HFSPlusMapTask, AMissingNameInAFolderMapsTheFolder)
{
    EXPECT_EQ(mapped("-p /folder/nothing"), Lines({kFolderLine}));
}

TEST(HFSPlusMapTask, ThePathOfTheRootFolderIsNotFound)
{
    EXPECT_EQ(mapped("-p /"), Lines({"MAP,ERROR,Lookup failed for path /."}));
}

TEST(HFSPlusMapTask, AnErrorOfAPathLookupIsReported)
{
    EXPECT_EQ(mapped("-p /" + std::string(256, 'x')),
              Lines({"MAP,ERROR,Unicode path conversion failed. A path component exceeded the "
                     "maximum allowed length."}));
}

TEST(HFSPlusMapTask, NothingFoundIsAnErrorThatEndsTheMappings)
{
    EXPECT_EQ(mapped("-i 99 -i 30"), Lines({"MAP,ERROR,Lookup failed for CNID 99."}));
    EXPECT_EQ(mapped("-p /none -i 30"), Lines({"MAP,ERROR,Lookup failed for path /none."}));
}

TEST(HFSPlusMapTask, SeveralOptionsAreMappedInOrder)
{
    EXPECT_EQ(mapped("-i 32 -p /folder -i 30"), Lines({kFileLine, kFolderLine, kFolderLine}));
}

TEST(HFSPlusMapTask, SeveralMappingsCloseTheGateOnce)
{
    const HFSPlusOpenedVolume volume(smallVolume());
    ASSERT_TRUE(volume) << volume.error();

    EXPECT_TRUE(waitsForGate<HFSPlusMapTask>(*volume, "MAP -i 32 -i 30"));

    // Closing is counted: were it closed twice and opened once, this would wait for ever.
    const KLClosedGate gate(volume->gate());
}

TEST(HFSPlusMapTask, WordsThatAskForNothingLeaveTheGateAlone)
{
    const HFSPlusOpenedVolume volume(smallVolume());
    ASSERT_TRUE(volume) << volume.error();

    EXPECT_FALSE(waitsForGate<HFSPlusMapTask>(*volume, "MAP"));
    EXPECT_FALSE(waitsForGate<HFSPlusMapTask>(*volume, "MAP word -i 0"));
}

TEST(HFSPlusMapTask, AnIDWhoseThreadLeadsToAThreadPrintsNothingAndIsNoError)
{
    const HFSPlusOpenedVolume volume(smallVolume());
    ASSERT_TRUE(volume) << volume.error();
    HFSPlusCatalogRecordInMemory thread(volume->catalog(), 32, u"");
    thread.setData32(4, 30);
    thread.setData16(8, 0);

    EXPECT_EQ(map(*volume, "-i 32 -i 30"), Lines({kFolderLine}));
}

TEST(HFSPlusMapTask, ADateAfterJanuary2038IsNegativeInMAPAndPositiveInSCAN)
{
    HFSPlusVolumeBuilder builder = smallVolume();
    builder.damage(damagedCatalogRecord(32, "createDate", kDate2040));
    const HFSPlusOpenedVolume volume(builder);
    ASSERT_TRUE(volume) << volume.error();

    const Lines fromMap = fieldsOf(map(*volume, "-i 32").at(0));
    const Lines fromScan = fieldsOf(lineOf(runReport<HFSPlusScanTask>(*volume, "SCAN"), 32));

    EXPECT_EQ(fromMap.at(5), "-2086064896");
    EXPECT_EQ(fromScan.at(5), "2208902400");
    EXPECT_EQ(fromMap.at(6), "5");
}

TEST(HFSPlusMapTask, TheLinesOfMAPAndSCANDifferInNameAndPathOnly)
{
    const HFSPlusOpenedVolume volume(smallVolume());
    ASSERT_TRUE(volume) << volume.error();
    Lines fromMap = fieldsOf(map(*volume, "-i 32").at(0));
    const Lines fromScan = fieldsOf(lineOf(runReport<HFSPlusScanTask>(*volume, "SCAN -f"), 32));

    EXPECT_EQ(fromMap.at(0), "MAP");
    fromMap.at(0) = "SCAN";
    EXPECT_EQ(fromMap, fromScan);
}

TEST(HFSPlusMapTask, WithoutAWordThereIsNothingToMap)
{
    EXPECT_EQ(mapped(""), Lines({"MAP,ERROR,No options specified."}));
}

TEST(HFSPlusMapTask, AnOptionWithoutItsValueIsNamedAfterTheMappingsBeforeIt)
{
    for (const std::string option : {"-i", "--cnid", "-p", "--path"}) {
        EXPECT_EQ(mapped("-i 30 " + option),
                  Lines({kFolderLine, "MAP,ERROR,Option " + option + " requires an argument."}));
    }
}

TEST(HFSPlusMapTask, AnInvalidIDEndsTheMappings)
{
    EXPECT_EQ(mapped("-i 30 -i a,b -i 32"),
              Lines({kFolderLine, "MAP,ERROR,a\\,b is not a valid CNID."}));
}

TEST(HFSPlusMapTask, AnUnknownWordIsReportedAfterAllMappings)
{
    EXPECT_EQ(mapped("-i 30 -P -i 32"),
              Lines({kFolderLine, kFileLine, "MAP,ERROR,Unknown option: -P"}));
}

TEST(HFSPlusMapTask, ALaterFailureReplacesTheErrorOfAnUnknownWord)
{
    EXPECT_EQ(mapped("word -i 99"), Lines({"MAP,ERROR,Lookup failed for CNID 99."}));
    EXPECT_EQ(mapped("word -i"), Lines({"MAP,ERROR,Option -i requires an argument."}));
    EXPECT_EQ(mapped("word other"), Lines({"MAP,ERROR,Unknown option: other"}));
}

TEST(HFSPlusMapTask, AMissingOverflowRecordEndsTheLineBeforeTheError)
{
    HFSPlusVolumeBuilder builder = overflowingVolume();
    builder.damage(damagedOverflowRecord(20, 0, 8, "extents[0].startBlock", 0));

    const Lines lines = mapped("-i 20 -i 2", builder);

    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].substr(lines[0].size() - 14), ",2012,1,2014,1");
    EXPECT_EQ(lines[1], "MAP,ERROR,Overflow extent record missing.");
}

TEST(HFSPlusMapTask, AnUnreadableOverflowRecordEndsTheLineBeforeTheError)
{
    HFSPlusVolumeBuilder builder = overflowingVolume();
    builder.damage([](HFSPlusVolumeBuilderPatcher& patcher) {
        return patcher.node(3, patcher.plan().extentsTree.rootNode, "numRecords", 0xFFFF);
    });

    const Lines lines = mapped("-i 20", builder);

    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].substr(lines[0].size() - 14), ",2012,1,2014,1");
    EXPECT_EQ(lines[1], "MAP,ERROR,Overflow extents file is inconsistent.");
}

TEST(HFSPlusMapTask, AnEntryWhosePathIsNotFoundIsNamedByItsID)
{
    const HFSPlusOpenedVolume volume(smallVolume());
    ASSERT_TRUE(volume) << volume.error();
    HFSPlusCatalogRecordInMemory(volume->catalog(), 31, u"").setData16(0, 9);

    EXPECT_EQ(map(*volume, "-i 32"), Lines({"MAP,ERROR,Path lookup failed for CNID 32."}));
}

TEST(HFSPlusMapTask, AnErrorOfThePathOfAnEntryIsReported)
{
    const HFSPlusOpenedVolume volume(smallVolume());
    ASSERT_TRUE(volume) << volume.error();
    HFSPlusCatalogRecordInMemory(volume->catalog(), 31, u"").setData32(4, 31);

    EXPECT_EQ(map(*volume, "-i 32"),
              Lines({"MAP,ERROR,Unicode path conversion failed. A path component exceeded the "
                     "maximum allowed length."}));
}

TEST(HFSPlusMapTask, ADamagedCatalogIsReported)
{
    HFSPlusVolumeBuilder builder = smallVolume();
    builder.damage([](HFSPlusVolumeBuilderPatcher& patcher) {
        return patcher.node(4, patcher.plan().catalogTree.firstLeafNode, "numRecords", 0xFFFF);
    });

    EXPECT_EQ(mapped("-i 32", builder), Lines({"MAP,ERROR,Catalog file is inconsistent."}));
    EXPECT_EQ(mapped("-p /folder", builder), Lines({"MAP,ERROR,Catalog file is inconsistent."}));
}

TEST(HFSPlusMapTask, AnUnpairedSurrogateIsPrintedAsTheReplacementCharacter)
{
    HFSPlusVolumeBuilder builder = smallVolume();
    builder.file("/ab", 40);
    const HFSPlusOpenedVolume volume(builder);
    ASSERT_TRUE(volume) << volume.error();
    // In the thread, where paths take their names from, and in the key, which must fit it.
    HFSPlusCatalogRecordInMemory(volume->catalog(), 40, u"").setData16(12, 0xDC00);
    HFSPlusCatalogRecordInMemory(volume->catalog(), 2, u"ab").setKey16(10, 0xDC00);

    const Lines lines = map(*volume, "-i 40");

    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(fieldsOf(lines[0]).at(kNameField), "/a\uFFFD");
}

TEST(HFSPlusMapTask, AnAbortEndsTheMappingsWithNothingButDone)
{
    const HFSPlusOpenedVolume volume(smallVolume());
    ASSERT_TRUE(volume) << volume.error();
    const auto event = std::make_shared<KLToolEvent>(KLToolEventStringType, "MAP -i 30 -p /folder");
    const auto task = std::make_shared<HFSPlusMapTask>(*volume, event);
    task->abort();

    EXPECT_EQ(runTask(*task), (Lines{"MAP,START", "MAP,DONE"}));
}
