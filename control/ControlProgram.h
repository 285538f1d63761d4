#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ControlCommandLine.h"
#include "ControlMessages.h"
#include "ControlRun.h"
#include "ControlSession.h"
#include "ControlSignals.h"

/** Carries out what the command line asks for. */
class ControlProgram {
public:
    explicit ControlProgram(ControlOptions options);

    /** The exit status. */
    [[nodiscard]] int run();

private:
    [[nodiscard]] bool _run(ControlErrorSlot error);
    [[nodiscard]] bool _findImage(ControlErrorSlot error);
    [[nodiscard]] bool _findRollbackFile(ControlErrorSlot error);
    /** Undoes what an interrupted run has left; @p error says why that failed. */
    [[nodiscard]] bool _recover(ControlErrorSlot error);
    /** Names the rollback files that may belong to this volume, when it had another name. */
    void _tellOfOtherRuns() const;

    [[nodiscard]] bool _info(ControlErrorSlot error);
    [[nodiscard]] bool _map(ControlErrorSlot error);
    [[nodiscard]] bool _report(ControlErrorSlot error);
    [[nodiscard]] bool _move(ControlErrorSlot error);

    [[nodiscard]] std::unique_ptr<ControlSession> _openSession(ControlErrorSlot error);
    /** All figures, with @p sinks getting the files. */
    [[nodiscard]] bool _survey(ControlSession& session, std::vector<ControlFileSink*> sinks,
                               ControlFigures& figures, ControlErrorSlot error) const;
    [[nodiscard]] bool _surveyAndEnd(const std::vector<ControlFileSink*>& sinks,
                                     ControlFigures& figures, ControlErrorSlot error);
    [[nodiscard]] bool _confirm(ControlErrorSlot error) const;
    [[nodiscard]] ControlTool::Setup _toolSetup() const;
    /** The live screen where there can be one; @p isScreen says whether it is. */
    [[nodiscard]] std::unique_ptr<ControlRunDisplay> _display(bool& isScreen) const;
    [[nodiscard]] bool _writeReport(const ControlRun& run, ControlErrorSlot error) const;

    ControlOptions _options;
    std::optional<ControlSignals> _signals;  // once no question is asked any more
    ControlMessages _messages;
    std::string _rollbackFile;  // empty: none
    bool _isBlockDevice = false;
};
