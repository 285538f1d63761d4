#include "ControlReport.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <random>
#include <string>

#include "control/SampleFigures.h"

namespace {

constexpr size_t kPageLimit = 2000000;

size_t occurrences(const std::string& text, const std::string& part)
{
    size_t count = 0;
    for (size_t place = text.find(part); place != std::string::npos;
         place = text.find(part, place + part.size())) {
        count++;
    }
    return count;
}

bool contains(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

/** Files with names of 255 characters each of which takes as much of a page as it can. */
std::vector<ControlFile> hostileFiles()
{
    std::vector<ControlFile> files;
    for (const char* character : {"<", "&", "\x01", "\xE2\x80\xAE", "\xFF", "\"", "x", "\\"}) {
        std::string name = "/";
        for (int index = 0; index < 255; index++) {
            name += character;
        }
        files.push_back(sampleFile(UINT32_MAX, name, {{0, 0}}));
    }
    return files;
}

/** Cells and figures of a volume of @p fileCount files that have nothing but hostile names. */
struct HostileVolume {
    explicit HostileVolume(uint32_t fileCount) : cells(kTotalBlocks)
    {
        std::mt19937 random(3);
        std::vector<ControlFile> files = hostileFiles();
        figures = volumeOfFiles(kTotalBlocks, {}).figures;
        figures.map = ControlMap(kTotalBlocks);
        figures.fileCount = fileCount;
        figures.image = files[0].path;
        for (uint32_t number = 0; number < fileCount; number++) {
            ControlFile& file = files[number % files.size()];
            file.extents[0] = {static_cast<uint32_t>(random()),
                               static_cast<uint32_t>(random() % 1000000)};
            cells.addFile(file);
            if (number < 1000) {
                figures.worst.push_back(file);
            }
        }
        // All kinds in all cells make the longest lines.
        for (uint64_t block = 0; block < kTotalBlocks; block += 1U << 20U) {
            for (const ControlKind kind :
                 {ControlKind::kUsed, ControlKind::kFragmented, ControlKind::kFixed}) {
                figures.map.change(static_cast<uint32_t>(block), 250000, ControlKind::kFree, kind);
                block += 250000;
            }
            block -= 750000;
        }
        for (ControlRunClass& runs : figures.freeSpace.classes) {
            runs = {.runs = UINT32_MAX, .blocks = UINT32_MAX};
        }
    }

    static constexpr uint32_t kTotalBlocks = UINT32_MAX;
    ControlFigures figures;
    ControlReportCells cells;
};

TEST(ControlReport, APageOfAMillionFilesWithHostileNamesKeepsItsBound)
{
    const HostileVolume volume(1000000);
    ControlReport report(volume.figures, &volume.cells);

    const std::string single = report.page();
    report.setBaseline(volume.figures, &volume.cells);
    const std::string pair = report.page();

    EXPECT_LE(single.size(), kPageLimit);
    EXPECT_LE(pair.size(), kPageLimit);
    // Neither is small because something is missing.
    EXPECT_EQ(occurrences(single, " more files</title>"), 2048U);
    EXPECT_EQ(occurrences(pair, " in files in pieces, "), 2 * 2048U);
    EXPECT_GT(pair.size(), kPageLimit / 2);
}

TEST(ControlReport, NamesCannotBecomeMarkup)
{
    SampleVolume volume = sampleVolume();
    ControlReportCells cells(volume.figures.totalBlocks);
    for (const ControlFile& file : volume.files) {
        cells.addFile(file);
    }
    volume.figures.worst = volume.files;
    volume.figures.image = "</h1><script>{{script}}</script>";

    const std::string page = ControlReport(volume.figures, &cells).page();

    EXPECT_EQ(occurrences(page, "<script"), 1U);
    EXPECT_EQ(occurrences(page, "</script"), 1U);
    EXPECT_EQ(occurrences(page, "</h1>"), 1U);
    EXPECT_EQ(occurrences(page, "<img"), 0U);
    EXPECT_TRUE(contains(page, "&lt;/h1&gt;&lt;script&gt;{{script}}&lt;/script&gt;"));
    EXPECT_TRUE(contains(page, "&lt;img src=x onerror=alert(1)&gt;"));
    EXPECT_TRUE(std::ranges::all_of(page, [](unsigned char character) {
        return character == '\n' || (character >= 0x20 && character != 0x7F);
    }));
}

TEST(ControlReport, PagesNameNothingToLoad)
{
    const SampleVolume volume = sampleVolume();

    const std::string page = ControlReport(volume.figures, nullptr).page();

    EXPECT_TRUE(contains(page, "content=\"default-src 'none'; style-src 'sha256-"));
    for (const char* word : {"http:", "https:", "src=", "href=", "url(", "@import", "unsafe"}) {
        EXPECT_FALSE(contains(page, word)) << word;
    }
    EXPECT_FALSE(contains(page, "{{"));
}

TEST(ControlReport, ABaselineIsShownBeside)
{
    const SampleVolume before = sampleVolume();
    const SampleVolume after = tidySampleVolume();
    ControlReport report(after.figures, nullptr);

    const std::string alone = report.page();
    report.setBaseline(before.figures, nullptr);
    const std::string both = report.page();

    EXPECT_EQ(occurrences(alone, "<svg class=\"map\""), 1U);
    EXPECT_EQ(occurrences(both, "<svg class=\"map\""), 2U);
    EXPECT_EQ(occurrences(both, "<svg class=\"histogram\""), 2U);
    EXPECT_EQ(occurrences(alone, "<figcaption>"), 0U);
    EXPECT_LT(both.find("<figcaption>Before"), both.find("<figcaption>After"));
    EXPECT_TRUE(contains(both, "<td>200</td><td>0</td><td class=\"better\">-200</td>"));
    EXPECT_TRUE(contains(both, "before: 31.4%"));
    EXPECT_FALSE(contains(alone, "before: "));
}

TEST(ControlReport, FiguresThatGotWorseAreMarked)
{
    const SampleVolume before = tidySampleVolume();
    const SampleVolume after = sampleVolume();
    ControlReport report(after.figures, nullptr);

    report.setBaseline(before.figures, nullptr);

    EXPECT_TRUE(contains(report.page(), "<td>0</td><td>200</td><td class=\"worse\">+200</td>"));
    EXPECT_TRUE(contains(report.page(), "<td class=\"worse\">-31,907</td>"));
    EXPECT_FALSE(contains(report.page(), "<td class=\"better\">"));
}

TEST(ControlReport, CellsSayWhatLiesInThem)
{
    const SampleVolume volume =
        volumeOfFiles(204800, {sampleFile(20, "/one", {{10000, 1}}),
                               sampleFile(21, "/more", {{10010, 50}, {20000, 1}, {30000, 1}})});
    ControlReportCells cells(204800);
    for (const ControlFile& file : volume.files) {
        cells.addFile(file);
    }

    const std::string page = ControlReport(volume.figures, &cells).page();

    EXPECT_TRUE(contains(page,
                         "<rect class=\"fragmented\" x=\"360\" y=\"10\" width=\"9\" height=\"9\" "
                         "role=\"img\"><title>Blocks 10,000 to 10,099: 49 free, 1 in whole files, "
                         "50 in files in pieces\n50 blocks of /more\n1 block of /one</title>"))
        << page;
    EXPECT_EQ(occurrences(page, "</title></rect>"), 2048U);
}

TEST(ControlReport, AReportMayTakeThePlaceOfAnOlderOne)
{
    const std::string path =
        ::testing::TempDir() + "control-report-" + std::to_string(::getpid()) + ".html";
    const SampleVolume volume = sampleVolume();
    const ControlReport report(volume.figures, nullptr);

    EXPECT_TRUE(report.write(path, nullptr));
    EXPECT_TRUE(ControlReport::mayWrite(path, nullptr));
    EXPECT_TRUE(report.write(path, nullptr));
    std::ofstream(path) << "a volume";
    EXPECT_FALSE(ControlReport::mayWrite(path, nullptr));
    EXPECT_FALSE(report.write(path, nullptr));
    std::remove(path.c_str());
}

}  // namespace
