#include "ControlInfoJSON.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>

#include "control/JSONSchema.h"
#include "control/SampleFigures.h"

namespace {

using Document = nlohmann::json;
using Faults = std::vector<std::string>;

Document documentOf(const ControlFigures& figures)
{
    return Document::parse(controlInfoJSON(figures));
}

Document schema()
{
    std::ifstream file(VZDEFRAG_INFO_SCHEMA);
    return Document::parse(file);
}

TEST(ControlInfoJSON, DocumentsAreAsTheirSchemaSays)
{
    EXPECT_EQ(faultsBySchema(documentOf(sampleVolume().figures), schema()), Faults{});
    EXPECT_EQ(faultsBySchema(documentOf(volumeOfFiles(3, {}).figures), schema()), Faults{});

    ControlFigures full = volumeOfFiles(10, {sampleFile(20, "/all", {{1, 9}})}).figures;
    EXPECT_EQ(faultsBySchema(documentOf(full), schema()), Faults{});
    EXPECT_TRUE(documentOf(full)["volume"]["firstFreeBlock"].is_null());
}

TEST(ControlInfoJSON, TheSchemaRefusesOtherDocuments)
{
    const Document document = documentOf(sampleVolume().figures);
    const auto faults = [&](const char* place, const Document& value) {
        Document changed = document;
        changed[Document::json_pointer(place)] = value;
        return faultsBySchema(changed, schema()).size();
    };
    Document lacking = document;
    lacking["freeSpace"].erase("runs");

    EXPECT_EQ(faultsBySchema(lacking, schema()), Faults{"document.freeSpace has no runs"});
    EXPECT_EQ(faults("/version", 2), 1U);
    EXPECT_EQ(faults("/volume/format", "FAT"), 1U);
    EXPECT_EQ(faults("/volume/blockSize", 4096.5), 1U);
    EXPECT_EQ(faults("/map/cells/7/0", -1), 1U);
    EXPECT_EQ(faults("/map/cells/7/4", 1), 1U);
    EXPECT_EQ(faults("/worstFiles/0/more", true), 1U);
}

TEST(ControlInfoJSON, AllFiguresAreInTheDocument)
{
    const ControlFigures figures = sampleVolume().figures;

    const Document document = documentOf(figures);

    EXPECT_EQ(document["version"], 1);
    EXPECT_EQ(document["image"], figures.image);
    EXPECT_EQ(document["volume"]["totalBytes"], 200000ULL * 4096);
    EXPECT_EQ(document["volume"]["usedBlocks"], figures.totalBlocks - figures.freeSpace.blocks);
    EXPECT_EQ(document["files"]["count"], 600);
    EXPECT_EQ(document["fragmentation"]["mostForks"], figures.fragmentation.mostForks);
    EXPECT_EQ(document["freeSpace"]["classes"][3]["leastBlocks"], 8);
    EXPECT_EQ(document["freeSpace"]["classes"][3]["mostBlocks"], 15);
    EXPECT_EQ(document["freeSpace"]["classes"][3]["runs"], figures.freeSpace.classes[3].runs);
    EXPECT_EQ(document["worstFiles"].size(), figures.worst.size());
    EXPECT_EQ(document["worstFiles"][0]["extents"], figures.worst[0].extents.size());
    EXPECT_EQ(document["worstFiles"][0]["type"], "TEXT");
    uint64_t used = 0;
    for (const Document& cell : document["map"]["cells"]) {
        used += cell[1].get<uint64_t>();
    }
    EXPECT_EQ(used, figures.map.totals().of(ControlKind::kUsed));
    EXPECT_LE(document["map"]["cells"].size(), kControlInfoCells);
}

TEST(ControlInfoJSON, NamesThatAreNoTextNeitherThrowNorReachATerminalAsTheyAre)
{
    ControlFigures figures = sampleVolume().figures;
    figures.worst = {
        sampleFile(20, "/a\xFF\xED\xA0\x80z \x1B[31m \x7F \xC2\x9B \xE2\x80\xAE \n", {{5000, 1}})};
    figures.image = "/tmp/\xC0\x80.img";

    const std::string text = controlInfoJSON(figures);

    EXPECT_TRUE(std::ranges::all_of(text.substr(0, text.size() - 1), [](char character) {
        return character >= 0x20 && character < 0x7F;
    }));
    EXPECT_EQ(text.back(), '\n');
    const std::string path = Document::parse(text)["worstFiles"][0]["path"];
    EXPECT_TRUE(path.starts_with("/a\xEF\xBF\xBD")) << path;
    EXPECT_TRUE(path.ends_with("z \x1B[31m \x7F \xC2\x9B \xE2\x80\xAE \n")) << path;
}

}  // namespace
