#include "SampleVolume.h"

#include <algorithm>
#include <random>
#include <vector>

#include "support/HFSPlusVolumeBuilder.h"

namespace {

constexpr uint32_t kFilesInFolder = 100;
constexpr uint32_t kResourceForkEvery = 4;
constexpr uint32_t kEmptyFileEvery = 32;
constexpr uint32_t kInlineAttributeEvery = 5;
constexpr uint32_t kForkAttributeEvery = 40;
constexpr uint32_t kSizeSteps = 12;         // the largest fork is about 2^12 times the smallest
constexpr uint64_t kBytesPerFile = 1024;    // of catalog and attributes, on the safe side
constexpr uint64_t kBytesPerFragment = 32;  // of the extents overflow file, likewise
constexpr uint64_t kJournalSize = 8 << 20;  // bytes
constexpr uint64_t kLeastFront = 4 << 20;   // bytes

/** One fork of the sample, and the blocks it gets. */
struct SampleFork {
    enum class Kind { kData, kResource, kAttribute };
    uint32_t file = 0;
    Kind kind = Kind::kData;
    uint64_t weight = 0;
    uint64_t blocks = 0;
    uint64_t pieces = 1;
    std::vector<uint32_t> lengths;  // of the pieces, in fork order
    HFSPlusBuilderExtents extents;
};

/** Lays out one volume; all chance comes from one generator, so that a seed says everything. */
class SampleLayout {
public:
    SampleLayout(const SampleVolumeOptions& options, uint32_t totalBlocks)
        : _options(options), _totalBlocks(totalBlocks), _random(options.seed)
    {
    }

    /** Gives every fork its extents; false when they do not fit. */
    [[nodiscard]] bool arrange()
    {
        _makeForks();
        const uint64_t first = _frontBlocks();
        const uint64_t end = uint64_t{_totalBlocks} - 2;
        if (first >= end) {
            return false;
        }
        const uint64_t wished = uint64_t{_totalBlocks} * _options.fill / 100;
        const uint64_t room = (end - first) * 98 / 100;
        if (_forks.empty()) {
            return true;
        }
        if (!_chooseSizes(std::min(wished, room)) || wished > room) {
            return false;
        }
        _choosePieces();
        _place(first, end);
        return true;
    }

    [[nodiscard]] const std::vector<SampleFork>& forks() const { return _forks; }

private:
    [[nodiscard]] uint64_t _below(uint64_t limit) { return limit == 0 ? 0 : _random() % limit; }

    [[nodiscard]] uint64_t _frontBlocks() const
    {
        const uint64_t bytes =
            std::max(kLeastFront, uint64_t{_totalBlocks} / 8) + _options.files * kBytesPerFile * 2 +
            _options.fragments * kBytesPerFragment + (_options.journal ? kJournalSize : 0);
        // A front for gigabytes would leave nothing of a small volume.
        return std::min<uint64_t>(bytes / _options.blockSize + 8, _totalBlocks / 4 + 16);
    }

    void _makeForks()
    {
        using enum SampleFork::Kind;
        for (uint32_t file = 0; file < _options.files; file++) {
            if (file % kEmptyFileEvery != kEmptyFileEvery - 1) {
                _addFork(file, kData, kSizeSteps);
            }
            if (_options.resourceForks && file % kResourceForkEvery == 1) {
                _addFork(file, kResource, kSizeSteps / 2);
            }
            if (_options.attributes && file % kForkAttributeEvery == 2) {
                _addFork(file, kAttribute, 1);
            }
        }
    }

    void _addFork(uint32_t file, SampleFork::Kind kind, uint32_t steps)
    {
        SampleFork fork;
        fork.file = file;
        fork.kind = kind;
        fork.weight = (uint64_t{1} << _below(steps)) * (16 + _below(16));
        _forks.push_back(fork);
    }

    [[nodiscard]] bool _chooseSizes(uint64_t blocks)
    {
        uint64_t weights = 0;
        for (const SampleFork& fork : _forks) {
            weights += fork.weight;
        }
        if (blocks < _forks.size()) {
            return false;
        }
        const uint64_t shared = blocks - _forks.size();
        uint64_t given = 0;
        for (SampleFork& fork : _forks) {
            // Both factors stay below 2^32: the blocks are, and the weights of one fork.
            fork.blocks = 1 + shared * fork.weight / weights;
            given += fork.blocks;
        }
        _forks.front().blocks += blocks - given;
        return true;
    }

    void _choosePieces()
    {
        uint64_t pieces = _forks.size();
        // Ends when the pieces are spent, or when chance no longer finds a fork to cut.
        uint64_t misses = 0;
        while (pieces < _options.fragments && misses < 1000 + uint64_t{_options.fragments}) {
            SampleFork& fork = _forks[_below(_forks.size())];
            const uint64_t limit =
                std::min<uint64_t>(fork.blocks / 2, _options.fragments - pieces + 1);
            if (fork.file % 2 == 0 || fork.pieces >= limit) {
                misses++;
                continue;
            }
            const uint64_t more = std::min(1 + _below(16), limit - fork.pieces);
            fork.pieces += more;
            pieces += more;
        }
        for (SampleFork& fork : _forks) {
            uint64_t left = fork.blocks;
            for (uint64_t piece = fork.pieces; piece > 1; piece--) {
                const uint64_t mean = left / piece;
                const uint64_t length = std::max<uint64_t>(1, mean / 2 + _below(mean));
                fork.lengths.push_back(static_cast<uint32_t>(std::min(length, left - piece + 1)));
                left -= fork.lengths.back();
            }
            fork.lengths.push_back(static_cast<uint32_t>(left));
        }
    }

    void _place(uint64_t first, uint64_t end)
    {
        std::vector<std::pair<size_t, size_t>> order;  // fork and piece
        uint64_t used = 0;
        for (size_t fork = 0; fork < _forks.size(); fork++) {
            for (size_t piece = 0; piece < _forks[fork].lengths.size(); piece++) {
                order.emplace_back(fork, piece);
            }
            _forks[fork].extents.resize(_forks[fork].lengths.size());
            used += _forks[fork].blocks;
        }
        for (size_t index = order.size(); index > 1; index--) {
            std::swap(order[index - 1], order[_below(index)]);
        }
        uint64_t gaps = end - first - used;
        uint64_t block = first;
        for (size_t index = 0; index < order.size(); index++) {
            const auto [fork, piece] = order[index];
            const uint32_t length = _forks[fork].lengths[piece];
            _forks[fork].extents[piece] = {static_cast<uint32_t>(block), length};
            block += length;
            // Every other piece is followed by free blocks.
            const uint64_t gap = std::min(gaps, _below(4 * gaps / (order.size() - index) + 1));
            if (_below(2) == 0) {
                block += gap;
                gaps -= gap;
            }
        }
        for (SampleFork& fork : _forks) {
            _join(fork.extents);
        }
    }

    /** Makes one extent of those that chance has put side by side. */
    static void _join(HFSPlusBuilderExtents& extents)
    {
        size_t last = 0;
        for (size_t index = 1; index < extents.size(); index++) {
            if (extents[last].startBlock + extents[last].blockCount == extents[index].startBlock) {
                extents[last].blockCount += extents[index].blockCount;
            } else {
                extents[++last] = extents[index];
            }
        }
        extents.resize(last + 1);
    }

    const SampleVolumeOptions& _options;
    uint32_t _totalBlocks;
    std::mt19937_64 _random;
    std::vector<SampleFork> _forks;
};

std::string pathOf(uint32_t file)
{
    return "/folder " + std::to_string(file / kFilesInFolder) + "/file " + std::to_string(file);
}

void addFork(HFSPlusVolumeBuilder& builder, const SampleFork& fork, uint32_t blockSize)
{
    const uint64_t slack = fork.file * uint64_t{37} % blockSize;
    const uint64_t size = fork.blocks * blockSize - slack;
    builder.file(pathOf(fork.file));
    switch (fork.kind) {
        case SampleFork::Kind::kData:
            builder.data(fork.extents).dataSize(size);
            break;
        case SampleFork::Kind::kResource:
            builder.resource(fork.extents).resourceSize(size);
            break;
        case SampleFork::Kind::kAttribute:
            builder.forkAttribute("org.example.large", fork.extents);
            break;
    }
}

}  // namespace

bool makeSampleVolume(const SampleVolumeOptions& options, const std::string& path,
                      std::string& error)
{
    const uint64_t blocks = options.blockSize == 0 ? 0 : options.size / options.blockSize;
    if (blocks < 64 || blocks > UINT32_MAX || options.fill > 100) {
        error = "the size or the fill is out of range";
        return false;
    }
    SampleLayout layout(options, static_cast<uint32_t>(blocks));
    if (!layout.arrange()) {
        error = "the files do not fit the volume";
        return false;
    }
    HFSPlusVolumeBuilder builder;
    builder.blockSize(options.blockSize).totalBlocks(static_cast<uint32_t>(blocks));
    builder.trailingBytes(options.size % options.blockSize / 512 * 512);
    builder.volumeName("Sample").contents(options.contents);
    if (options.journal) {
        const uint64_t journal = std::min(kJournalSize, options.size / 32);
        builder.journal(0,
                        static_cast<uint32_t>(std::max<uint64_t>(journal / options.blockSize, 1)));
    }
    if (options.hfsx) {
        builder.hfsx();
    }
    if (options.nodeSize != 0) {
        builder.catalogNodeSize(options.nodeSize).extentsNodeSize(options.nodeSize);
        builder.attributesNodeSize(options.nodeSize);
    }
    for (uint32_t file = 0; file < options.files; file++) {
        builder.file(pathOf(file), 1000 + file);
        if (options.attributes && file % kInlineAttributeEvery == 0) {
            builder.attribute("org.example.small", "value " + std::to_string(file));
        }
    }
    for (const SampleFork& fork : layout.forks()) {
        addFork(builder, fork, options.blockSize);
    }
    const bool built = builder.buildFile(path);
    error = builder.error();
    return built;
}
