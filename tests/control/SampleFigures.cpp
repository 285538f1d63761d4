#include "control/SampleFigures.h"

#include <algorithm>
#include <bit>
#include <random>
#include <utility>

namespace {

constexpr uint32_t kSampleBlocks = 200000;
constexpr size_t kSampleFiles = 600;
constexpr size_t kWorstFiles = 10;
constexpr uint32_t kNeededBlocks = 8192;

uint32_t ownBlocks(uint32_t totalBlocks)
{
    return std::max<uint32_t>(totalBlocks / 50, 1);
}

std::string sampleName(size_t index)
{
    static const std::vector<std::string> kTroublesome = {
        "<script>alert('a')</script>&amp;\"quoted\".html",
        "line\nbreak\tand\x1B[31mescape.txt",
        "turned \xE2\x80\xAEtxt.exe",
        "broken \xED\xA0\x80\xFF name",
        "=HYPERLINK(\"x\"),comma.csv",
        "</title></svg><img src=x onerror=alert(1)>",
        "Größe 大きい файл.dat",
        "back\\slash",
    };
    static const std::vector<std::string> kFolders = {
        "/Users/anna/Pictures/2019", "/Users/anna/Music/Compositions", "/Library/Caches/Mail",
        "/Applications/Editor/Resources", "/private/var/log"};
    const std::string name = index % 29 == 0 ? kTroublesome[index / 29 % kTroublesome.size()]
                                             : "file-" + std::to_string(index) + ".dat";
    return kFolders[index % kFolders.size()] + "/" + name;
}

void addFree(ControlFreeSpace& freeSpace, uint32_t count)
{
    ControlRunClass& runs = freeSpace.classes.at(static_cast<size_t>(std::bit_width(count)) - 1);
    runs.runs++;
    runs.blocks += count;
    freeSpace.runs++;
    freeSpace.blocks += count;
    freeSpace.largestRun = std::max(freeSpace.largestRun, count);
}

void measureFreeSpace(ControlFigures& figures, std::vector<ControlExtent> used)
{
    std::ranges::sort(used, {}, &ControlExtent::start);
    uint32_t next = 0;
    figures.firstFreeBlock = UINT32_MAX;
    used.push_back({figures.totalBlocks, 0});
    for (const ControlExtent& extent : used) {
        if (extent.start > next) {
            figures.firstFreeBlock = std::min(figures.firstFreeBlock, next);
            addFree(figures.freeSpace, extent.start - next);
        }
        if (extent.count > 0) {
            next = extent.start + extent.count;
            figures.lastUsedBlock = next - 1;
        }
    }
}

void addFile(ControlFigures& figures, const ControlFile& file)
{
    ControlFragmentation& fragmentation = figures.fragmentation;
    const ControlKind kind = file.isFragmented ? ControlKind::kFragmented : ControlKind::kUsed;
    const auto blocks = static_cast<uint32_t>(file.blockCount());
    figures.fileBlocks += blocks;
    fragmentation.extents += file.extents.size();
    fragmentation.consideredBlocks += blocks;
    if (file.isFragmented) {
        fragmentation.files++;
        fragmentation.leastForks++;
        fragmentation.mostForks += file.extents.size() > 3 ? 2 : 1;
        fragmentation.fragmentedBlocks += blocks;
    }
    for (const ControlExtent& extent : file.extents) {
        figures.map.change(extent.start, extent.count, ControlKind::kFree, kind);
    }
}

/** Lays files of random sizes out on the volume, each third one in pieces or all whole. */
SampleVolume laidOut(bool inPieces)
{
    std::mt19937 random(5);
    const auto upTo = [&](uint32_t limit) { return static_cast<uint32_t>(random() % limit); };
    std::vector<ControlFile> files;
    uint32_t next = ownBlocks(kSampleBlocks);
    for (size_t index = 0; index < kSampleFiles; index++) {
        const uint32_t pieces = index % 3 == 0 ? 2 + upTo(index % 60 == 0 ? 40 : 6) : 1;
        const uint32_t size = 8 + upTo(index % 5 == 0 ? 600 : 100);
        std::vector<ControlExtent> extents;
        for (uint32_t piece = 0; piece < (inPieces ? pieces : 1); piece++) {
            const uint32_t gap = upTo(4) == 0 ? upTo(160) : upTo(6);
            const uint32_t count = inPieces ? std::max<uint32_t>(size / pieces, 1) : size;
            extents.push_back({inPieces ? next + gap : next, count});
            next = extents.back().start + count;
        }
        files.push_back(
            sampleFile(static_cast<uint32_t>(16 + index), sampleName(index), std::move(extents)));
        files.back().isFragmented = files.back().extents.size() > 1;
    }
    return volumeOfFiles(kSampleBlocks, std::move(files));
}

}  // namespace

ControlFile sampleFile(uint32_t fileID, std::string path, std::vector<ControlExtent> extents)
{
    ControlFile file{.folderID = 2,
                     .fileID = fileID,
                     .path = std::move(path),
                     .created = 1500000000 + int64_t{fileID},
                     .changed = 1600000000,
                     .read = 1700000000,
                     .type = 0x54455854,
                     .creator = 0x74747874,
                     .extents = std::move(extents)};
    file.isFragmented = file.extents.size() > 2;
    return file;
}

SampleVolume volumeOfFiles(uint32_t totalBlocks, std::vector<ControlFile> files)
{
    SampleVolume volume{.figures = {}, .files = std::move(files)};
    ControlFigures& figures = volume.figures;
    figures.image = "/images/sample.img";
    figures.format = "HFS Plus";
    figures.isJournaled = true;
    figures.blockSize = 4096;
    figures.totalBlocks = totalBlocks;
    figures.fileCount = volume.files.size();
    figures.map = ControlMap(totalBlocks);
    figures.map.change(0, ownBlocks(totalBlocks), ControlKind::kFree, ControlKind::kFixed);

    std::vector<ControlExtent> used{{0, ownBlocks(totalBlocks)}};
    for (const ControlFile& file : volume.files) {
        addFile(figures, file);
        used.insert(used.end(), file.extents.begin(), file.extents.end());
    }
    measureFreeSpace(figures, std::move(used));

    ControlFragmentation& fragmentation = figures.fragmentation;
    if (fragmentation.consideredBlocks > 0) {
        fragmentation.percent = static_cast<uint32_t>(uint64_t{fragmentation.fragmentedBlocks} *
                                                      100 / fragmentation.consideredBlocks);
    }
    figures.readiness = {.neededBlocks = kNeededBlocks,
                         .isEnough = figures.freeSpace.blocks >= kNeededBlocks};
    figures.worst = volume.files;
    std::ranges::stable_sort(figures.worst, std::ranges::greater{},
                             [](const ControlFile& file) { return file.extents.size(); });
    figures.worst.resize(std::min(figures.worst.size(), kWorstFiles));
    return volume;
}

SampleVolume sampleVolume()
{
    return laidOut(true);
}

SampleVolume tidySampleVolume()
{
    return laidOut(false);
}
