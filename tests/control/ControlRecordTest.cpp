#include "ControlRecord.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Kind = ControlRecord::Kind;

/** Every record that @p lines make, with nothing behind them. */
std::vector<ControlRecord> recordsOf(const std::vector<std::string>& lines)
{
    ControlRecordReader reader;
    std::vector<ControlRecord> records;
    for (const std::string& line : lines) {
        const ControlRecord* record = reader.addLine(line);
        while (record != nullptr) {
            records.push_back(*record);
            record = reader.hasWholeRest() ? reader.takeRest() : nullptr;
        }
    }
    if (const ControlRecord* const rest = reader.takeRest()) {
        records.push_back(*rest);
    }
    return records;
}

ControlRecord recordOf(const std::string& line)
{
    const std::vector<ControlRecord> records = recordsOf({line});
    EXPECT_EQ(records.size(), 1U) << line;
    return records.empty() ? ControlRecord() : records[0];
}

TEST(ControlRecordReader, AFileHasItsFieldsAndItsExtentsInOrder)
{
    const ControlRecord record =
        recordOf("SCAN,FILE,2,20,/a b,1,-2082844800,3,54455854,0000FFFF,100,30,7,1");

    ASSERT_EQ(record.kind, Kind::kFile);
    EXPECT_EQ(record.task, "SCAN");
    EXPECT_EQ(record.file.folderID, 2U);
    EXPECT_EQ(record.file.fileID, 20U);
    EXPECT_EQ(record.file.path, "/a b");
    EXPECT_EQ(record.file.created, 1);
    EXPECT_EQ(record.file.changed, -2082844800);
    EXPECT_EQ(record.file.read, 3);
    EXPECT_EQ(record.file.type, 0x54455854U);
    EXPECT_EQ(record.file.creator, 0xFFFFU);
    EXPECT_EQ(record.file.extents, (std::vector<ControlExtent>{{100, 30}, {7, 1}}));
}

TEST(ControlRecordReader, AFileWithoutExtentsIsAFile)
{
    const ControlRecord record = recordOf("SCAN,FILE,2,20,empty,1,2,3,00000000,00000000");

    EXPECT_EQ(record.kind, Kind::kFile);
    EXPECT_TRUE(record.file.extents.empty());
}

TEST(ControlRecordReader, EscapedCommasBackslashesAndNulsBelongToTheName)
{
    const ControlRecord record =
        recordOf("SCAN,FILE,2,20,a\\,b\\\\\\xC0\\x80\\\\xC0,1,2,3,00000000,00000000,5,6");

    ASSERT_EQ(record.kind, Kind::kFile);
    EXPECT_EQ(record.file.path, std::string("a,b\\\0\\xC0", 9));
    EXPECT_EQ(record.file.extents, (std::vector<ControlExtent>{{5, 6}}));
}

TEST(ControlRecordReader, LineBreaksInANameDoNotEndItsRecord)
{
    const std::vector<ControlRecord> records =
        recordsOf({"SCAN,FILE,2,20,a", "", "READY\\,b", "SCAN\\,DONE,1,2,3,00000000,00000000,5,6",
                   "SCAN,DONE"});

    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(records[0].file.path, "a\n\nREADY,b\nSCAN,DONE");
    EXPECT_EQ(records[0].file.extents, (std::vector<ControlExtent>{{5, 6}}));
    EXPECT_EQ(records[1].kind, Kind::kDone);
}

TEST(ControlRecordReader, RecordsWithoutTextAreGivenAtOnce)
{
    ControlRecordReader reader;

    for (const char* const line : {"READY", "DEFRAG,START", "SCAN,PROGRESS,10", "FRAGINFO,1,2,3",
                                   "DEFRAG,PROGRESS,1,2,3,4,5", "BITMAP,DATA,00FF", "MAP,DONE"}) {
        const ControlRecord* const record = reader.addLine(line);
        ASSERT_NE(record, nullptr) << line;
        EXPECT_NE(record->kind, Kind::kUnknown) << line;
        EXPECT_FALSE(reader.hasWholeRest());
    }
}

TEST(ControlRecordReader, ARecordBehindOneWithTextIsGivenAfterIt)
{
    ControlRecordReader reader;

    EXPECT_EQ(reader.addLine("DEFRAG,ERROR,Write failure."), nullptr);
    const ControlRecord* record = reader.addLine("DEFRAG,DONE");
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->kind, Kind::kError);
    EXPECT_EQ(record->text, "Write failure.");
    ASSERT_TRUE(reader.hasWholeRest());
    record = reader.takeRest();
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->kind, Kind::kDone);
    EXPECT_EQ(reader.takeRest(), nullptr);
}

TEST(ControlRecordReader, AMoveHasPercentSourceDestinationCountAndUse)
{
    const ControlRecord record = recordOf("COMPACT,PROGRESS,37,43265,9158,12,53717");

    ASSERT_EQ(record.kind, Kind::kMove);
    EXPECT_EQ(record.percent, 37);
    EXPECT_EQ(record.numbers, (std::array<uint64_t, 4>{43265, 9158, 12, 53717}));
}

TEST(ControlRecordReader, TheBitmapsRecordsAreTold)
{
    EXPECT_EQ(recordOf("BITMAP,LENGTH,4").numbers[0], 4U);
    EXPECT_EQ(recordOf("BITMAP,LENGTH,4").kind, Kind::kBitmapLength);
    EXPECT_EQ(recordOf("BITMAP,DATA,FF00").text, "FF00");
    EXPECT_EQ(recordOf("BITMAP,FIRSTUNUSEDBLOCK,4294967295").numbers[0], UINT32_MAX);
    EXPECT_EQ(recordOf("BITMAP,FIRSTUNUSEDBLOCK,4294967295").kind, Kind::kFirstUnused);
    EXPECT_EQ(recordOf("BITMAP,LASTUSEDBLOCK,7").kind, Kind::kLastUsed);
}

TEST(ControlRecordReader, ErrorsOfTheProgramAndOfCommandsHaveTheirText)
{
    const ControlRecord own = recordOf("ERROR,Unable to open a\\,b. An error 2 occurred.");
    EXPECT_EQ(own.kind, Kind::kError);
    EXPECT_EQ(own.task, "");
    EXPECT_EQ(own.text, "Unable to open a,b. An error 2 occurred.");

    const ControlRecord command = recordOf("DEFRAG,ERROR,Volume is mounted.");
    EXPECT_EQ(command.kind, Kind::kError);
    EXPECT_EQ(command.task, "DEFRAG");
    EXPECT_EQ(command.text, "Volume is mounted.");
}

TEST(ControlRecordReader, WhatIsBrokenIsUnknown)
{
    for (const char* const line :
         {"", "nonsense", "SCAN", "SCAN,FILE", "SCAN,FILE,2", "SCAN,FILE,2,20",
          "SCAN,FILE,2,20,a,1,2,3,XYZ,00000000", "SCAN,FILE,2,20,a,1,2,3,00000000,00000000,5",
          "SCAN,FILE,2,20,a,1,2,3,00000000,00000000,5,-6", "SCAN,FILE,2,4294967296,a,1,2,3,0,0",
          "DEFRAG,PROGRESS,1,2", "DEFRAG,PROGRESS,x", "FRAGINFO,1,2", "FRAGINFO,x,2,3",
          "BITMAP,LENGTH,", "SCAN,1,2,3", "SCAN,DONE,1"}) {
        EXPECT_EQ(recordOf(line).kind, Kind::kUnknown) << line;
    }
}

}  // namespace
