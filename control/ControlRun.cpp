#include "ControlRun.h"

#include <algorithm>
#include <array>
#include <tuple>
#include <utility>
#include <vector>

#include "ControlMessages.h"
#include "ControlSurvey.h"
#include "ControlText.h"

namespace {

using Kind = ControlRecord::Kind;

// DEFRAG -p boot empties it after it was read.
constexpr const char* kPlaylist = "/private/var/db/BootCache.playlist";
constexpr size_t kNamedDifferences = 10;

bool hasProfile(const std::string& profiles, const std::string& profile)
{
    return ("," + profiles + ",").find("," + profile + ",") != std::string::npos;
}

std::string commandFor(const ControlRun::Settings& settings)
{
    if (settings.job == ControlJob::kCompact) {
        return "COMPACT";
    }
    return settings.profile.empty() ? "DEFRAG" : "DEFRAG -p " + settings.profile;
}

/** Whether the volume can be asked again after @p failure: the disk and the tool are in order. */
bool canLookAgain(const std::optional<ControlFailure>& failure)
{
    return !failure || failure->status == ControlStatus::kStopped;
}

}  // namespace

ControlRun::ControlRun(Settings settings, ControlSignals& signals, DisplayMaker makeDisplay)
    : _settings(std::move(settings)), _signals(signals), _makeDisplay(std::move(makeDisplay))
{
}

bool ControlRun::run(ControlErrorSlot error)
{
    std::optional<ControlFailure> failure;
    if (_prepare(&failure) && !_wasBelowThreshold && _move(&failure)) {
        _meter->finish();
    }
    if (failure && !_stopReason.empty() && failure->status == ControlStatus::kStopped) {
        failure->message = _stopReason + (_meter ? ": stopped early; the volume is consistent."
                                                 : ": stopped before anything was changed.");
    }
    if (_meter && canLookAgain(failure) && !_session->isLeft()) {
        std::ignore = _lookAgain(&failure);
    }
    std::optional<ControlFailure> ending;
    if (_session != nullptr && !_session->end(&ending) && !failure) {
        failure = ending;
    }
    if (_display != nullptr) {
        _end = {
            .isComplete = !failure,
            .message = failure ? failure->message : std::string(),
            .progress = _meter ? _meter->progress(ControlTool::Clock::now()) : ControlProgress(),
            .after = after()};
        _display->runDidEnd(*_end);
        _display = nullptr;
    }
    return !failure || ControlFail(error, failure->status, failure->message);
}

bool ControlRun::_openSession(ControlErrorSlot error)
{
    _session = ControlSession::initWithSetup(_settings.tool, _signals, *this, error);
    return _session != nullptr;
}

bool ControlRun::_prepare(ControlErrorSlot error)
{
    if (!_openSession(error)) {
        return false;
    }
    if (_settings.timeLimit) {
        const auto limit = std::chrono::duration_cast<ControlTool::Clock::duration>(
            std::chrono::duration<double>(*_settings.timeLimit));
        _session->setTimeLimit(ControlTool::Clock::now() + limit, "The time limit is over");
    }
    if (!_session->facts().isWritable) {
        return ControlFail(error, ControlStatus::kRefused,
                           "The volume cannot be written: it is mounted, locked or read-only.");
    }
    ControlVerifier verifier;
    if (!_survey(_before, verifier, _cellsBefore, error) || !_checkBefore(error)) {
        return false;
    }
    if (_wasBelowThreshold) {
        return true;
    }
    _display = _makeDisplay();
    _display->runWillBegin(_settings.job, _before);
    return _hash(verifier, _digests, "Hashing files before", error);
}

bool ControlRun::_survey(ControlFigures& figures, ControlVerifier& verifier,
                         std::unique_ptr<ControlReportCells>& cells, ControlErrorSlot error)
{
    std::vector<ControlFileSink*> sinks;
    if (_settings.isReported) {
        cells = std::make_unique<ControlReportCells>(_session->facts().totalBlocks);
        sinks.push_back(cells.get());
    }
    if (hasProfile(_settings.profile, "boot")) {
        verifier.leaveOut(kPlaylist);
    }
    if (_settings.verifies) {
        sinks.push_back(&verifier);
    }
    ControlSurvey survey({.image = _settings.image, .sinks = std::move(sinks)});
    return survey.run(*_session, figures, error);
}

bool ControlRun::_checkBefore(ControlErrorSlot error)
{
    const ControlFragmentation& fragmentation = _before.fragmentation;
    if (_settings.threshold) {
        const double percent = 100.0 * fragmentation.fragmentedBlocks /
                               std::max<uint32_t>(fragmentation.consideredBlocks, 1);
        _wasBelowThreshold = percent < *_settings.threshold;
    }
    if (_wasBelowThreshold || _before.readiness.isEnough || _settings.isForced) {
        return true;
    }
    return ControlFail(
        error, ControlStatus::kRefused,
        "There is too little free space: " + readableSize(_before.bytes(_before.freeSpace.blocks)) +
            " of the " + readableSize(_before.bytes(_before.readiness.neededBlocks)) +
            " that vzdefrag needs. A run that ends for lack of it can leave files in more pieces "
            "than before. Free some space, or use --force.");
}

bool ControlRun::_move(ControlErrorSlot error)
{
    _meter.emplace(_before.blockSize, workloadOf(_before, _settings.job),
                   ControlTool::Clock::now());
    _isMoving = true;
    const auto handle = [&](const ControlRecord& record) { _handleMove(record); };
    const bool isDone = _session->run(commandFor(_settings), handle, error);
    _isMoving = false;
    return isDone;
}

void ControlRun::_handleMove(const ControlRecord& record)
{
    if (record.kind != Kind::kMove) {
        return;
    }
    const auto count = static_cast<uint32_t>(record.numbers[2]);
    const int before = _meter->percent();
    _meter->addMove(record.percent, count, ControlTool::Clock::now());
    _display->blocksDidMove({.source = static_cast<uint32_t>(record.numbers[0]),
                             .destination = static_cast<uint32_t>(record.numbers[1]),
                             .count = count});
    // Moves come by the thousand at once; between whole percents the clock is enough.
    if (_meter->percent() != before) {
        timeDidPass();
    }
}

bool ControlRun::_lookAgain(ControlErrorSlot error)
{
    _display->progressDidChange(_meter->progress(ControlTool::Clock::now()));
    _display->phaseDidChange("Reading the volume again", std::nullopt);
    if (_session->isStopping()) {
        // A vzdefrag that was asked to stop takes no further command.
        std::optional<ControlFailure> ending;
        if (!_session->end(&ending)) {
            return ControlFail(error, ending->status, ending->message);
        }
        _stopRequests = 0;
        if (!_openSession(error)) {
            return false;
        }
    }
    ControlVerifier verifier;
    ControlFigures figures;
    if (!_survey(figures, verifier, _cellsAfter, error)) {
        return false;
    }
    _after = std::move(figures);
    ControlVerifier::Digests digests;
    if (!_hash(verifier, digests, "Hashing files after", error)) {
        return false;
    }
    const std::vector<uint32_t> different = differences(_digests, digests);
    if (different.empty()) {
        return true;
    }
    std::string files;
    for (size_t index = 0; index < std::min(different.size(), kNamedDifferences); index++) {
        files += (index == 0 ? "" : ", ") + std::to_string(different[index]);
    }
    // It counts for more than an early end.
    if (error != nullptr) {
        error->reset();
    }
    return ControlFail(error, ControlStatus::kMismatch,
                       grouped(different.size()) + " files differ from before the run; file IDs " +
                           files + (different.size() > kNamedDifferences ? ", ..." : "") + ".");
}

bool ControlRun::_hash(const ControlVerifier& verifier, ControlVerifier::Digests& digests,
                       const std::string& phase, ControlErrorSlot error)
{
    if (!_settings.verifies) {
        return true;
    }
    int shown = -1;
    const auto progress = [&](uint64_t done, uint64_t total) {
        const int percent = static_cast<int>(done * 100 / std::max<uint64_t>(total, 1));
        if (std::exchange(shown, percent) != percent) {
            _display->phaseDidChange(phase, percent);
        }
        return _session->poll(error);
    };
    return verifier.hashFiles(_settings.image, _before.blockSize, digests, progress, error);
}

void ControlRun::stopWasRequested(const std::string& reason)
{
    _stopRequests++;
    _stopReason = reason;
    if (_display == nullptr) {
        return;
    }
    if (_stopRequests > 2) {
        _display->runWillStop(reason + ": no longer waiting; vzdefrag ends safely by itself.");
    } else if (!_isMoving) {
        _display->runWillStop(reason + ": stopping; no blocks are being moved.");
    } else if (_stopRequests == 2) {
        _display->runWillStop(reason + ": still waiting for vzdefrag to write its records.");
    } else {
        _display->runWillStop(reason +
                              ": stopping safely, once the blocks that are being copied and their "
                              "records are on the disk.");
    }
}

void ControlRun::willSuspend()
{
    if (_display != nullptr) {
        _display->willSuspend();
    }
}

void ControlRun::didResume()
{
    if (_display != nullptr) {
        _display->didResume();
    }
}

void ControlRun::sizeDidChange()
{
    if (_display != nullptr) {
        _display->sizeDidChange();
    }
}

void ControlRun::didLog(const std::string& message)
{
    if (_display != nullptr) {
        _display->showMessage(message);
    } else {
        ControlTell(message);
    }
}

void ControlRun::timeDidPass()
{
    if (_isMoving) {
        _display->progressDidChange(_meter->progress(ControlTool::Clock::now()));
    }
}
