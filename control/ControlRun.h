#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "ControlFigures.h"
#include "ControlProgressMeter.h"
#include "ControlReportCells.h"
#include "ControlRunDisplay.h"
#include "ControlSession.h"
#include "ControlVerifier.h"

/** One DEFRAG or COMPACT with all that goes with it: figures before and after, the display, time
 *  limit, threshold, verification.
 */
class ControlRun : private ControlSessionObserver {
public:
    struct Settings {
        ControlJob job = ControlJob::kDefrag;
        std::string image;
        std::string profile = {};  // "boot,app"; empty: none
        ControlTool::Setup tool;
        std::optional<double> timeLimit = {};  // seconds
        std::optional<double> threshold = {};  // percent
        bool verifies = false;
        bool isForced = false;    // with too little free space as well
        bool isReported = false;  // names are kept for a report's map
    };
    using DisplayMaker = std::function<std::unique_ptr<ControlRunDisplay>()>;

    /** @p makeDisplay is called once the volume is known and the run is about to begin. */
    ControlRun(Settings settings, ControlSignals& signals, DisplayMaker makeDisplay);

    /** Runs it. Fails with what ended it early, and with kMismatch. */
    [[nodiscard]] bool run(ControlErrorSlot error);

    /** The volume before the run, and as it was found afterwards. */
    [[nodiscard]] const ControlFigures& before() const { return _before; }
    /** Null when nothing was moved, or the volume could not be read again. */
    [[nodiscard]] const ControlFigures* after() const { return _after ? &*_after : nullptr; }
    /** The names behind the maps of both; null when they were not asked for. */
    [[nodiscard]] const ControlReportCells* cellsBefore() const { return _cellsBefore.get(); }
    [[nodiscard]] const ControlReportCells* cellsAfter() const { return _cellsAfter.get(); }
    /** How it ended, when it had begun. */
    [[nodiscard]] const std::optional<ControlRunEnd>& end() const { return _end; }
    /** Whether there was too little to do for the threshold. */
    [[nodiscard]] bool wasBelowThreshold() const { return _wasBelowThreshold; }

private:
    [[nodiscard]] bool _openSession(ControlErrorSlot error);
    [[nodiscard]] bool _prepare(ControlErrorSlot error);
    [[nodiscard]] bool _checkBefore(ControlErrorSlot error);
    [[nodiscard]] bool _move(ControlErrorSlot error);
    void _handleMove(const ControlRecord& record);
    /** Figures and digests after the run, from a new vzdefrag where the old one was stopped. */
    [[nodiscard]] bool _lookAgain(ControlErrorSlot error);
    [[nodiscard]] bool _survey(ControlFigures& figures, ControlVerifier& verifier,
                               std::unique_ptr<ControlReportCells>& cells, ControlErrorSlot error);
    [[nodiscard]] bool _hash(const ControlVerifier& verifier, ControlVerifier::Digests& digests,
                             const std::string& phase, ControlErrorSlot error);

    void stopWasRequested(const std::string& reason) override;
    void willSuspend() override;
    void didResume() override;
    void sizeDidChange() override;
    void didLog(const std::string& message) override;
    void timeDidPass() override;

    Settings _settings;
    ControlSignals& _signals;
    DisplayMaker _makeDisplay;
    std::unique_ptr<ControlRunDisplay> _display;  // null until the run begins
    std::unique_ptr<ControlSession> _session;
    std::optional<ControlProgressMeter> _meter;
    ControlFigures _before;
    std::optional<ControlFigures> _after;
    std::unique_ptr<ControlReportCells> _cellsBefore;
    std::unique_ptr<ControlReportCells> _cellsAfter;
    std::optional<ControlRunEnd> _end;
    ControlVerifier::Digests _digests;
    int _stopRequests = 0;
    std::string _stopReason;  // what asked last
    bool _isMoving = false;
    bool _wasBelowThreshold = false;
};
