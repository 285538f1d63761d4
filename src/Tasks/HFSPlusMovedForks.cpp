#include "Tasks/HFSPlusMovedForks.h"

#include <algorithm>
#include <utility>

#include "HFSPlus/HFSPlusExtentMap.h"

namespace {

/** Bounds the memory of forks that wait for their last piece. */
constexpr size_t kMostOpenForks = 1024;

using Extents = std::vector<HFSPlusHostExtentDescriptor>;

bool startsBefore(const HFSPlusHostExtentDescriptor& left, const HFSPlusHostExtentDescriptor& right)
{
    return std::pair(left.startBlock, left.blockCount) <
           std::pair(right.startBlock, right.blockCount);
}

/** The extents of @p extents that @p others lacks; both are sorted by startsBefore. */
Extents extentsMissingIn(const Extents& extents, const Extents& others)
{
    Extents missing;
    std::ranges::set_difference(extents, others, std::back_inserter(missing), startsBefore);
    return missing;
}

}  // namespace

HFSPlusForkExtents* HFSPlusMovedForks::openFork(uint32_t cnid, uint32_t info,
                                                VZDefragErrorSlot error)
{
    const auto open = std::ranges::find_if(
        _openForks, [&](const OpenFork& fork) { return fork.cnid == cnid && fork.info == info; });
    if (open != _openForks.end()) {
        return open->extents.get();
    }
    if (_openForks.size() >= kMostOpenForks && !updateAll(error)) {
        return nullptr;
    }
    auto extents =
        HFSPlusForkExtents::initWithVolume(_volume, cnid, static_cast<uint8_t>(info >> 16), error);
    if (extents == nullptr) {
        return nullptr;
    }
    return _openForks.emplace_back(OpenFork{cnid, info, std::move(extents)}).extents.get();
}

bool HFSPlusMovedForks::updateFork(uint32_t cnid, uint32_t info, VZDefragErrorSlot error)
{
    const auto open = std::ranges::find_if(
        _openForks, [&](const OpenFork& fork) { return fork.cnid == cnid && fork.info == info; });
    if (open == _openForks.end()) {
        return true;
    }
    OpenFork fork = std::move(*open);
    _openForks.erase(open);
    return _update(fork, error);
}

bool HFSPlusMovedForks::updateAll(VZDefragErrorSlot error)
{
    std::vector<OpenFork> forks = std::exchange(_openForks, {});
    return std::ranges::all_of(forks, [&](OpenFork& fork) { return _update(fork, error); });
}

bool HFSPlusMovedForks::_update(OpenFork& fork, VZDefragErrorSlot error)
{
    Extents before;
    Extents after;
    if (!fork.extents->copyExtentDescriptors(before, 0, error) || !fork.extents->update(error) ||
        !fork.extents->copyExtentDescriptors(after, 0, error)) {
        return false;
    }
    return _replaceInMap(fork, before, after, error);
}

bool HFSPlusMovedForks::_replaceInMap(const OpenFork& fork, Extents& before, Extents& after,
                                      VZDefragErrorSlot error)
{
    if (_map.isEmpty()) {
        return true;  // the pass has used the span up
    }
    // Extents that stay as they were keep their entries: taking a long fork out and in again for
    // every piece of it would cost its whole length each time.
    std::ranges::sort(before, startsBefore);
    std::ranges::sort(after, startsBefore);
    return std::ranges::all_of(extentsMissingIn(before, after),
                               [&](const HFSPlusHostExtentDescriptor& extent) {
                                   return _map.deleteRun(extent.startBlock, extent.blockCount,
                                                         error);
                               }) &&
           std::ranges::all_of(extentsMissingIn(after, before),
                               [&](const HFSPlusHostExtentDescriptor& extent) {
                                   return _map.insert(extent.startBlock, extent.blockCount,
                                                      fork.cnid, fork.info, error);
                               });
}
