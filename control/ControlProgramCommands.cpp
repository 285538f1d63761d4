#include "ControlProgram.h"

#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <utility>

#include "ControlBaseline.h"
#include "ControlEventsDisplay.h"
#include "ControlFilesCSV.h"
#include "ControlInfoJSON.h"
#include "ControlInfoText.h"
#include "ControlMapSVG.h"
#include "ControlMapText.h"
#include "ControlOutputFile.h"
#include "ControlPlainDisplay.h"
#include "ControlReport.h"
#include "ControlReportCells.h"
#include "ControlRunText.h"
#include "ControlScreen.h"
#include "ControlTerminalSize.h"
#include "ControlText.h"

bool ControlProgram::_info(ControlErrorSlot error)
{
    const auto session = _openSession(error);
    if (session == nullptr) {
        return false;
    }
    ControlFigures figures;
    if (_options.asCSV) {
        ControlFilesCSV files(std::cout, session->facts().blockSize);
        return _survey(*session, {&files}, figures, error) && session->end(error);
    }
    if (!_survey(*session, {}, figures, error) || !session->end(error)) {
        return false;
    }
    std::cout << (_options.asJSON
                      ? controlInfoJSON(figures)
                      : controlInfoText(figures, charactersOfLocale(), terminalSize().columns));
    return true;
}

bool ControlProgram::_map(ControlErrorSlot error)
{
    ControlFigures figures;
    if (!_surveyAndEnd({}, figures, error)) {
        return false;
    }
    if (!_options.svgFile.empty()) {
        return writeOutputFile(_options.svgFile,
                               mapAsSVG(figures.map, figures.blockSize, _options.image, {}), error);
    }
    const ControlTerminalSize terminal = terminalSize();
    ControlMapTextOptions picture;
    picture.characters = _options.asASCII ? ControlCharacters::kASCII : charactersOfLocale();
    picture.isColored =
        _options.color == ControlOptions::Color::kAlways ||
        (_options.color == ControlOptions::Color::kAuto && standardOutputWantsColor());
    picture.columns = std::max(kControlMapLeastColumns, terminal.columns);
    // The lines below, and the one that the shell's prompt takes.
    const size_t besides = kControlMapTextLinesBelow + 1;
    picture.rows = std::max(kControlMapLeastRows + besides, terminal.rows) - besides;
    picture.columns = _options.columns > 0 ? _options.columns : picture.columns;
    picture.rows = _options.rows > 0 ? _options.rows : picture.rows;
    std::cout << mapAsText(figures.map, figures.blockSize, picture);
    return true;
}

bool ControlProgram::_report(ControlErrorSlot error)
{
    if (!ControlReport::mayWrite(_options.reportFile, error)) {
        return false;
    }
    std::optional<ControlFigures> baseline;
    if (!_options.baselineFile.empty()) {
        baseline = figuresOfDocumentFile(_options.baselineFile, error);
        if (!baseline) {
            return false;
        }
    }
    const auto session = _openSession(error);
    if (session == nullptr) {
        return false;
    }
    ControlReportCells cells(session->facts().totalBlocks);
    ControlFigures figures;
    if (!_survey(*session, {&cells}, figures, error) || !session->end(error)) {
        return false;
    }
    ControlReport report(figures, &cells);
    if (baseline) {
        if (baseline->blockSize != figures.blockSize ||
            baseline->totalBlocks != figures.totalBlocks) {
            ControlTell("The volume of " + _options.baselineFile + " has another size.");
        }
        report.setBaseline(*baseline, nullptr);
    }
    return report.write(_options.reportFile, error);
}

std::unique_ptr<ControlRunDisplay> ControlProgram::_display(bool& isScreen) const
{
    const ControlCharacters characters = charactersOfLocale();
    if (_options.asEvents) {
        return std::make_unique<ControlEventsDisplay>(std::cout);
    }
    if (!_options.isPlain && ::isatty(STDOUT_FILENO) != 0) {
        if (auto screen = ControlScreen::initWithTerminal(
                {.characters = characters, .isColored = standardOutputWantsColor()})) {
            isScreen = true;
            return screen;
        }
    }
    return std::make_unique<ControlPlainDisplay>(std::cout, std::cerr, characters);
}

bool ControlProgram::_move(ControlErrorSlot error)
{
    // Better now than when all is done.
    if (!_options.reportFile.empty() && !ControlReport::mayWrite(_options.reportFile, error)) {
        return false;
    }
    ControlRun::Settings settings{
        .job = _options.command == ControlOptions::Command::kCompact ? ControlJob::kCompact
                                                                     : ControlJob::kDefrag,
        .image = _options.image,
        .profile = _options.profile,
        .tool = _toolSetup(),
        .timeLimit = _options.timeLimit,
        .threshold = _options.threshold,
        .verifies = _options.verifies,
        .isForced = _options.isForced,
        .isReported = !_options.reportFile.empty(),
    };
    if (!_options.withoutRollback) {
        settings.tool.rollbackFile = _rollbackFile;
    }
    bool isScreen = false;
    ControlRun run(std::move(settings), *_signals, [&] { return _display(isScreen); });
    const bool isDone = run.run(error);
    if (run.wasBelowThreshold()) {
        ControlTell("Fragmentation is below the threshold; nothing was done.");
    }
    if (isScreen && run.end()) {
        std::cout << summaryOfRun(run.before(), *run.end());
    }
    return _writeReport(run, error) && isDone;
}

bool ControlProgram::_writeReport(const ControlRun& run, ControlErrorSlot error) const
{
    if (_options.reportFile.empty() || run.cellsBefore() == nullptr) {
        return true;
    }
    if (run.after() == nullptr) {
        return ControlReport(run.before(), run.cellsBefore()).write(_options.reportFile, error);
    }
    ControlReport report(*run.after(), run.cellsAfter());
    report.setBaseline(run.before(), run.cellsBefore());
    return report.write(_options.reportFile, error);
}
