#include "ControlEventsDisplay.h"

#include <chrono>
#include <cmath>
#include <nlohmann/json.hpp>
#include <ostream>
#include <utility>

namespace {

using Document = nlohmann::ordered_json;

Document figuresOf(const ControlFigures& figures)
{
    const ControlFragmentation& fragmentation = figures.fragmentation;
    return {{"volume",
             {{"format", figures.format},
              {"journaled", figures.isJournaled},
              {"blockSize", figures.blockSize},
              {"totalBlocks", figures.totalBlocks},
              {"usedBlocks", figures.usedBlocks()}}},
            {"files", {{"count", figures.fileCount}, {"blocks", figures.fileBlocks}}},
            {"fragmentation",
             {{"files", fragmentation.files},
              {"extents", fragmentation.extents},
              {"fragmentedBlocks", fragmentation.fragmentedBlocks},
              {"consideredBlocks", fragmentation.consideredBlocks},
              {"percent", fragmentation.percent}}},
            {"freeSpace",
             {{"blocks", figures.freeSpace.blocks},
              {"runs", figures.freeSpace.runs},
              {"largestRun", figures.freeSpace.largestRun}}}};
}

/** Thousandths are all that is ever meant, and keep the lines short. */
double thousandths(double value)
{
    return std::round(value * 1000) / 1000;
}

void addProgress(Document& event, const ControlProgress& progress)
{
    event["percent"] = progress.percent;
    event["movedBlocks"] = progress.movedBlocks;
    event["movedBytes"] = progress.movedBytes;
    event["bytesPerSecond"] = std::round(progress.bytesPerSecond);
    event["secondsLeft"] = nullptr;
    if (progress.secondsLeft) {
        event["secondsLeft"] = thousandths(*progress.secondsLeft);
    }
    event["elapsed"] = thousandths(progress.elapsed);
}

}  // namespace

ControlEventsDisplay::ControlEventsDisplay(std::ostream& output, Clock clock)
    : _output(output), _clock(std::move(clock)), _begin(_clock())
{
}

double ControlEventsDisplay::steadySeconds()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

template <typename Body>
void ControlEventsDisplay::_write(const char* name, Body addFields)
{
    Document event = {{"event", name}, {"time", thousandths(_clock() - _begin)}};
    addFields(event);
    _output << event.dump(-1, ' ', true, Document::error_handler_t::replace) << std::endl;
}

void ControlEventsDisplay::runWillBegin(ControlJob job, const ControlFigures& before)
{
    _begin = _clock();
    _write("begin", [&](Document& event) {
        event["version"] = kControlEventsVersion;
        event["job"] = job == ControlJob::kDefrag ? "defrag" : "compact";
        event["image"] = before.image;
        event["before"] = figuresOf(before);
    });
}

void ControlEventsDisplay::phaseDidChange(const std::string& phase, std::optional<int> percent)
{
    _write("phase", [&](Document& event) {
        event["phase"] = phase;
        event["percent"] = nullptr;
        if (percent) {
            event["percent"] = *percent;
        }
    });
}

void ControlEventsDisplay::blocksDidMove(const ControlMove& move)
{
    _write("move", [&](Document& event) {
        event["source"] = move.source;
        event["destination"] = move.destination;
        event["count"] = move.count;
    });
}

void ControlEventsDisplay::progressDidChange(const ControlProgress& progress)
{
    _write("progress", [&](Document& event) { addProgress(event, progress); });
}

void ControlEventsDisplay::runWillStop(const std::string& reason)
{
    _write("stopping", [&](Document& event) { event["reason"] = reason; });
}

void ControlEventsDisplay::showMessage(const std::string& message)
{
    _write("message", [&](Document& event) { event["message"] = message; });
}

void ControlEventsDisplay::runDidEnd(const ControlRunEnd& end)
{
    _write("end", [&](Document& event) {
        event["status"] = end.isComplete ? "complete" : "stopped";
        event["reason"] = end.message;
        addProgress(event, end.progress);
        event["after"] = nullptr;
        if (end.after != nullptr) {
            event["after"] = figuresOf(*end.after);
        }
    });
}
