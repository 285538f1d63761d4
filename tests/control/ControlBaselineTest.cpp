#include "ControlBaseline.h"

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <random>
#include <string>

#include "ControlInfoJSON.h"
#include "control/SampleFigures.h"

namespace {

using Document = nlohmann::json;

/** The message with which @p document is refused; empty when it is taken. */
std::string refusalOf(const std::string& document)
{
    std::optional<ControlFailure> failure;
    const auto figures = figuresOfDocument(document, "saved.json", &failure);
    EXPECT_EQ(figures.has_value(), !failure.has_value());
    if (failure.has_value()) {
        EXPECT_EQ(failure->status, ControlStatus::kUsage);
        const std::string beginning = "The saved figures in saved.json cannot be used: ";
        EXPECT_TRUE(failure->message.starts_with(beginning)) << failure->message;
        return failure->message.substr(std::min(beginning.size(), failure->message.size()));
    }
    return {};
}

/** The document of a volume of 100 blocks with three files. */
std::string smallDocument()
{
    return controlInfoJSON(
        volumeOfFiles(100, {sampleFile(20, "/a", {{10, 1}, {15, 2}, {20, 3}}),
                            sampleFile(21, "/b", {{40, 5}}), sampleFile(22, "/c", {})})
            .figures);
}

/** The refusal of the small volume's document with @p value at @p place. */
std::string refusalWith(const char* place, const Document& value)
{
    Document document = Document::parse(smallDocument());
    document[Document::json_pointer(place)] = value;
    return refusalOf(document.dump());
}

TEST(ControlBaseline, AllThatWasWrittenIsReadBack)
{
    for (const SampleVolume& volume : {sampleVolume(), tidySampleVolume(), volumeOfFiles(3, {}),
                                       volumeOfFiles(10, {sampleFile(20, "/all", {{1, 9}})})}) {
        const ControlFigures& written = volume.figures;
        std::optional<ControlFailure> failure;

        const auto read = figuresOfDocument(controlInfoJSON(written), "saved.json", &failure);

        ASSERT_TRUE(read.has_value()) << failure->message;
        // With the same worst files and map the two are the same to the last figure.
        ControlFigures again = *read;
        again.worst = written.worst;
        EXPECT_EQ(controlInfoJSON(again), controlInfoJSON(written));
        EXPECT_TRUE(read->worst.empty());
        EXPECT_EQ(read->map.totals(), written.map.totals());
        EXPECT_EQ(read->firstFreeBlock, written.firstFreeBlock);
    }
}

TEST(ControlBaseline, EveryMemberThatIsMissingOrOfAnotherTypeIsRefused)
{
    const Document document = Document::parse(smallDocument());
    const Document flat = document.flatten();
    size_t tried = 0;
    for (const auto& [place, value] : flat.items()) {
        // What follows from other members is not read, nor is the list of worst files.
        if (place == "/volume/totalBytes" || place == "/volume/usedBlocks" ||
            place.starts_with("/worstFiles/") || place.starts_with("/map/kinds/") ||
            place.ends_with("/leastBlocks") || place.ends_with("/mostBlocks") ||
            (place.starts_with("/map/cells/") && !place.starts_with("/map/cells/9/"))) {
            continue;
        }
        const Document::json_pointer pointer(place);
        Document lacking = document;
        if (lacking[pointer.parent_pointer()].is_object()) {
            lacking[pointer.parent_pointer()].erase(pointer.back());
            EXPECT_NE(refusalOf(lacking.dump()), "") << "without " << place;
        }
        EXPECT_NE(refusalWith(place.c_str(), Document::object()), "") << place;
        EXPECT_NE(refusalWith(place.c_str(), value.is_string() ? Document(1) : Document("1")), "")
            << place;
        tried++;
    }
    EXPECT_GT(tried, 80U);
}

TEST(ControlBaseline, MessagesSayWhatIsWrong)
{
    EXPECT_EQ(refusalWith("/version", 2), "\"version\" is not one that this program reads.");
    EXPECT_EQ(refusalWith("/fragmentation/percent", 101),
              "\"fragmentation.percent\" is no whole number from 0 to 100.");
    EXPECT_EQ(refusalWith("/freeSpace", Document::array()), "\"freeSpace\" is no object.");
    EXPECT_EQ(refusalOf("{\"version\":1}"), "\"image\" is missing.");
    EXPECT_EQ(refusalOf("[]"), "this is no JSON object.");
    EXPECT_EQ(refusalOf("{\"version\":1"), "this is no JSON object.");
    EXPECT_EQ(refusalOf(""), "this is no JSON object.");
}

TEST(ControlBaseline, FiguresThatContradictEachOtherAreRefused)
{
    ASSERT_EQ(refusalOf(smallDocument()), "");
    EXPECT_NE(refusalWith("/volume/format", "FAT"), "");
    EXPECT_NE(refusalWith("/volume/blockSize", 4095), "");
    EXPECT_NE(refusalWith("/volume/blockSize", 256), "");
    EXPECT_NE(refusalWith("/volume/totalBlocks", 99), "");
    EXPECT_NE(refusalWith("/volume/totalBlocks", 4294967296), "");
    EXPECT_NE(refusalWith("/volume/totalBlocks", -1), "");
    EXPECT_NE(refusalWith("/volume/totalBlocks", 100.0), "");
    EXPECT_NE(refusalWith("/fragmentation/files", 4), "");
    EXPECT_NE(refusalWith("/fragmentation/leastForks", 1000000), "");
    EXPECT_NE(refusalWith("/freeSpace/blocks", 101), "");
    EXPECT_NE(refusalWith("/freeSpace/largestRun", 101), "");
    EXPECT_NE(refusalWith("/freeSpace/classes/3/runs", 0), "");
    EXPECT_EQ(refusalWith("/freeSpace/runs", 50),
              "\"freeSpace.classes\" do not add up to all free runs.");
    EXPECT_EQ(refusalWith("/freeSpace/blocks", 100),
              "\"freeSpace.classes\" do not add up to all free runs.");
    EXPECT_NE(refusalWith("/freeSpace/classes/31", {{"runs", 1}, {"blocks", 1}}), "");
    EXPECT_NE(refusalWith("/map/blocksPerCell", 0), "");
    EXPECT_NE(refusalWith("/map/cells/0/0", 18446744073709551615ULL), "");
    EXPECT_NE(refusalWith("/map/cells", Document::array()), "");
    EXPECT_NE(refusalWith("/image", std::string(5000, 'x')), "");
}

/** The most memory that this process had at once, in bytes. */
size_t peakOfMemory()
{
    struct rusage usage = {};
    ::getrusage(RUSAGE_SELF, &usage);
    return static_cast<size_t>(usage.ru_maxrss) * 1024;
}

TEST(ControlBaseline, ADocumentNestedBeyondAllBoundsTakesNeitherMemoryNorTheStack)
{
    std::string document = "{\"version\":1,\"map\":";
    document.reserve(kControlBaselineLimit);
    const size_t peakBefore = peakOfMemory();

    document.append(2000000, '[');
    EXPECT_NE(refusalOf(document), "");
    document.append(2000000, ']') += '}';
    EXPECT_NE(refusalOf(document), "");

    EXPECT_LT(peakOfMemory() - peakBefore, size_t{120} << 20U);
}

TEST(ControlBaseline, AFileThatIsTooLargeIsNotRead)
{
    EXPECT_EQ(refusalOf(std::string(kControlBaselineLimit + 1, ' ')),
              "the file is larger than 8 MiB.");
}

TEST(ControlBaseline, NoBrokenDocumentCrashes)
{
    const std::string whole = smallDocument();
    std::mt19937 random(7);
    size_t refused = 0;
    for (int round = 0; round < 200; round++) {
        std::string broken = whole;
        for (int change = 0; change < 3; change++) {
            broken[random() % broken.size()] = static_cast<char>(random() % 256);
        }
        broken.resize(round % 2 == 0 ? broken.size() : random() % broken.size());
        refused += refusalOf(broken).empty() ? 0 : 1;
    }
    EXPECT_GT(refused, 150U);
}

TEST(ControlBaseline, FilesAreReadAndThoseThatCannotBeAreNamed)
{
    const std::string path = ::testing::TempDir() + "control-baseline-" +
                             std::to_string(::testing::UnitTest::GetInstance()->random_seed()) +
                             std::to_string(::getpid()) + ".json";
    std::ofstream(path) << controlInfoJSON(sampleVolume().figures);
    std::optional<ControlFailure> failure;

    EXPECT_TRUE(figuresOfDocumentFile(path, &failure).has_value());
    std::remove(path.c_str());
    EXPECT_FALSE(figuresOfDocumentFile(path, &failure).has_value());
    ASSERT_TRUE(failure.has_value());
    EXPECT_EQ(failure->message, "The saved figures in " + path + " cannot be read.");
    EXPECT_EQ(failure->status, ControlStatus::kUsage);
    EXPECT_FALSE(figuresOfDocumentFile("/dev/zero", nullptr).has_value());
}

}  // namespace
