#include <getopt.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "SampleVolume.h"
#include "support/HFSPlusVolumeChecker.h"

namespace {

constexpr int kSuccess = 0;
constexpr int kInconsistent = 1;
constexpr int kFailure = 2;

constexpr char kUsage[] =
    "usage: hfsplusvolume make IMAGE [options]   writes a fragmented sample volume\n"
    "       hfsplusvolume check IMAGE            proves it consistent (exit status 0) or not (1)\n"
    "       hfsplusvolume forks [--fragmented] IMAGE   CNID FORK SIZE BLOCKS EXTENTS of each fork\n"
    "       hfsplusvolume hashes IMAGE           CNID FORK SIZE SHA256 of each file's forks\n"
    "options of make:\n"
    "  --size BYTES       of the volume; K, M, G and T count in powers of 1024 (256M)\n"
    "  --block-size N     bytes (4096)\n"
    "  --fill PERCENT     of the blocks that hold files (50)\n"
    "  --fragments N      extents of all forks together, roughly (2000)\n"
    "  --files N          (500)\n"
    "  --seed S           the same seed gives the same volume (1)\n"
    "  --node-size N      bytes, of all B-trees\n"
    "  --journal --hfsx --resource-forks --attributes\n"
    "  --sparse-contents  leaves the files' blocks zero and the image sparse\n";

int usage()
{
    std::fputs(kUsage, stderr);
    return kFailure;
}

/** A number with an optional unit, up to @p limit. */
bool parseNumber(const char* text, uint64_t limit, uint64_t& value)
{
    char* end = nullptr;
    errno = 0;
    value = std::strtoull(text, &end, 10);
    if (end == text || errno != 0 || *text == '-') {
        return false;
    }
    const char* const units = "KMGT";
    const char* const unit = *end == '\0' ? nullptr : std::strchr(units, *end);
    if (unit != nullptr) {
        const auto shift = 10 * (unit - units + 1);
        if (value > UINT64_MAX >> shift) {
            return false;
        }
        value <<= shift;
        end++;
        if (std::strcmp(end, "iB") == 0) {
            end += 2;
        }
    }
    return *end == '\0' && value <= limit;
}

enum Option : int {
    kSize = 1,
    kBlockSize,
    kFill,
    kFragments,
    kFiles,
    kSeed,
    kNodeSize,
    kJournal,
    kHFSX,
    kResourceForks,
    kAttributes,
    kSparseContents,
};

constexpr option kMakeOptions[] = {
    {"size", required_argument, nullptr, kSize},
    {"block-size", required_argument, nullptr, kBlockSize},
    {"fill", required_argument, nullptr, kFill},
    {"fragments", required_argument, nullptr, kFragments},
    {"files", required_argument, nullptr, kFiles},
    {"seed", required_argument, nullptr, kSeed},
    {"node-size", required_argument, nullptr, kNodeSize},
    {"journal", no_argument, nullptr, kJournal},
    {"hfsx", no_argument, nullptr, kHFSX},
    {"resource-forks", no_argument, nullptr, kResourceForks},
    {"attributes", no_argument, nullptr, kAttributes},
    {"sparse-contents", no_argument, nullptr, kSparseContents},
    {nullptr, 0, nullptr, 0},
};

bool applyFlag(int option, SampleVolumeOptions& options)
{
    switch (option) {
        case kJournal:
            options.journal = true;
            return true;
        case kHFSX:
            options.hfsx = true;
            return true;
        case kResourceForks:
            options.resourceForks = true;
            return true;
        case kAttributes:
            options.attributes = true;
            return true;
        case kSparseContents:
            options.contents = false;
            return true;
        default:
            return false;
    }
}

bool applyNumber(int option, const char* text, SampleVolumeOptions& options)
{
    uint64_t value = 0;
    const bool is64 = option == kSize || option == kSeed;
    if (text == nullptr || !parseNumber(text, is64 ? UINT64_MAX : UINT32_MAX, value)) {
        return false;
    }
    const uint32_t small = static_cast<uint32_t>(value);
    switch (option) {
        case kSize:
            options.size = value;
            return true;
        case kBlockSize:
            options.blockSize = small;
            return true;
        case kFill:
            options.fill = small;
            return true;
        case kFragments:
            options.fragments = small;
            return true;
        case kFiles:
            options.files = small;
            return true;
        case kSeed:
            options.seed = value;
            return true;
        case kNodeSize:
            options.nodeSize = small;
            return true;
        default:
            return false;
    }
}

int make(int argc, char** argv)
{
    SampleVolumeOptions options;
    int found = 0;
    while ((found = getopt_long(argc, argv, "", kMakeOptions, nullptr)) != -1) {
        if (!applyFlag(found, options) && !applyNumber(found, optarg, options)) {
            return usage();
        }
    }
    if (optind + 1 != argc) {
        return usage();
    }
    std::string error;
    if (!makeSampleVolume(options, argv[optind], error)) {
        std::fprintf(stderr, "hfsplusvolume: %s: %s\n", argv[optind], error.c_str());
        return kFailure;
    }
    return kSuccess;
}

const char* nameOf(uint8_t forkType)
{
    return forkType == kHFSPlusCheckDataFork ? "data" : "resource";
}

void printForks(const HFSPlusCheckResult& result, bool fragmentedOnly)
{
    for (const HFSPlusCheckedFork& fork : result.forks) {
        if (!fragmentedOnly || fork.extents.size() > 1) {
            std::printf("%u %s %llu %u %zu\n", fork.cnid, nameOf(fork.forkType),
                        static_cast<unsigned long long>(fork.logicalSize), fork.totalBlocks,
                        fork.extents.size());
        }
    }
}

void printHashes(HFSPlusCheckReader& reader, const HFSPlusCheckResult& result)
{
    for (const HFSPlusCheckedFork& fork : result.forks) {
        if (!fork.isSpecial) {
            std::printf("%u %s %llu %s\n", fork.cnid, nameOf(fork.forkType),
                        static_cast<unsigned long long>(fork.logicalSize),
                        hashFork(reader, result, fork).c_str());
        }
    }
}

/** The commands that look at a volume. */
int inspect(const std::string& command, int argc, char** argv)
{
    const bool fragmentedOnly =
        command == "forks" && argc == 3 && std::strcmp(argv[1], "--fragmented") == 0;
    if (argc != (fragmentedOnly ? 3 : 2)) {
        return usage();
    }
    const char* const path = argv[argc - 1];
    const auto reader = HFSPlusCheckFileReader::initWithPath(path);
    if (reader == nullptr) {
        std::fprintf(stderr, "hfsplusvolume: %s: %s\n", path, std::strerror(errno));
        return kFailure;
    }
    HFSPlusCheckOptions options;
    options.collectForks = command != "check";
    const HFSPlusCheckResult result = checkHFSPlusVolume(*reader, options);
    if (command == "check") {
        std::printf("%s\n", result.description().c_str());
        return result.consistent ? kSuccess : kInconsistent;
    }
    if (command == "forks") {
        printForks(result, fragmentedOnly);
    } else {
        printHashes(*reader, result);
    }
    if (!result.consistent) {
        std::fprintf(stderr, "hfsplusvolume: %s: %s\n", path, result.description().c_str());
    }
    return result.consistent ? kSuccess : kInconsistent;
}

}  // namespace

int main(int argc, char** argv)
{
    const std::string command = argc > 1 ? argv[1] : "";
    if (command == "make") {
        return make(argc - 1, argv + 1);
    }
    if (command == "check" || command == "forks" || command == "hashes") {
        return inspect(command, argc - 1, argv + 1);
    }
    return usage();
}
