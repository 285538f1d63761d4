#include "ControlProgram.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <utility>

#include "ControlRollback.h"
#include "ControlSurvey.h"
#include "ControlText.h"

namespace {

using Command = ControlOptions::Command;

/** The vzdefrag to start where nobody names one: that beside this program, or one in PATH. */
std::string usualTool()
{
    std::string own(4096, '\0');
    const ssize_t length = ::readlink("/proc/self/exe", own.data(), own.size());
    if (length > 0 && static_cast<size_t>(length) < own.size()) {
        own.resize(static_cast<size_t>(length));
        std::string beside = own.substr(0, own.find_last_of('/') + 1) + "vzdefrag";
        if (::access(beside.c_str(), X_OK) == 0) {
            return beside;
        }
    }
    return "vzdefrag";
}

/** What vzdefrag cannot take for an option. */
std::string plainPath(const std::string& path)
{
    return path.starts_with('-') ? "./" + path : path;
}

}  // namespace

ControlProgram::ControlProgram(ControlOptions options) : _options(std::move(options)) {}

int ControlProgram::run()
{
    std::optional<ControlFailure> failure;
    bool isDone = _run(&failure);
    std::cout.flush();
    if (!std::cout && isDone) {
        isDone = ControlFail(&failure, ControlStatus::kInputOutput,
                             "Unable to write to standard output.");
    }
    if (isDone) {
        return static_cast<int>(ControlStatus::kDone);
    }
    const ControlFailure reason = failure.value_or(ControlFailure());
    ControlTell(reason.message);
    if (!_rollbackFile.empty() && reason.status != ControlStatus::kRefused &&
        ControlRollback::holdsRecords(_rollbackFile)) {
        ControlTell(
            "Do not mount or check the volume before \"vzdefragctl recover\" has put it back "
            "to its last complete state.");
    } else if (reason.status == ControlStatus::kInconsistent) {
        _tellOfOtherRuns();
    }
    return static_cast<int>(reason.status);
}

bool ControlProgram::_run(ControlErrorSlot error)
{
    if (!_findImage(error) || !_findRollbackFile(error)) {
        return false;
    }
    if (_options.moves() && !_confirm(error)) {
        return false;
    }
    _signals.emplace();
    if (_options.command == Command::kRecover) {
        return _recover(error);
    }
    if (ControlRollback::holdsRecords(_rollbackFile) && !_recover(error)) {
        return false;
    }
    switch (_options.command) {
        case Command::kInfo:
            return _info(error);
        case Command::kMap:
            return _map(error);
        case Command::kReport:
            return _report(error);
        case Command::kDefrag:
        case Command::kCompact:
            return _move(error);
        case Command::kRecover:
            break;
    }
    return true;
}

bool ControlProgram::_findImage(ControlErrorSlot error)
{
    struct stat status = {};
    if (::stat(_options.image.c_str(), &status) != 0) {
        return ControlFail(error, ControlStatus::kUsage,
                           "Unable to open " + _options.image + ": " + std::strerror(errno) + ".");
    }
    _isBlockDevice = S_ISBLK(status.st_mode);
    if (!_isBlockDevice && !S_ISREG(status.st_mode)) {
        return ControlFail(error, ControlStatus::kUsage,
                           _options.image + " is neither a block device nor a file.");
    }
    for (const std::string& file : {_options.reportFile, _options.svgFile, _options.rollbackFile}) {
        struct stat other = {};
        if (!file.empty() && ::stat(file.c_str(), &other) == 0 && other.st_dev == status.st_dev &&
            other.st_ino == status.st_ino) {
            return ControlFail(error, ControlStatus::kRefused, file + " is the volume itself.");
        }
    }
    return true;
}

bool ControlProgram::_findRollbackFile(ControlErrorSlot error)
{
    const bool mayDoWithout = !_options.moves() || _options.withoutRollback;
    std::optional<ControlFailure> failure;
    _rollbackFile = _options.rollbackFile.empty()
                        ? ControlRollback::pathForImage(_options.image, &failure)
                        : _options.rollbackFile;
    const bool mayBeUnseen = !_options.moves() && _options.command != Command::kRecover;
    if (!_rollbackFile.empty()) {
        if (!mayBeUnseen && !ControlRollback::canLookAt(_rollbackFile, error)) {
            return false;
        }
        return mayDoWithout || ControlRollback::makeFolders(_rollbackFile, error);
    }
    return (mayDoWithout && _options.command != Command::kRecover) ||
           ControlFail(error, failure->status, failure->message);
}

bool ControlProgram::_confirm(ControlErrorSlot error) const
{
    if (!_isBlockDevice || _options.isConfirmed) {
        return true;
    }
    if (::isatty(STDIN_FILENO) == 0 || ::isatty(STDERR_FILENO) == 0) {
        return ControlFail(error, ControlStatus::kRefused,
                           _options.image +
                               " is a block device, and nobody can be asked whether "
                               "to write to it. Use --yes.");
    }
    const std::string question =
        "vzdefragctl: " + escapedForTerminal(_options.image, charactersOfLocale()) +
        " is a block device. Write to it? [y/N] ";
    std::fputs(question.c_str(), stderr);
    std::string answer;
    std::getline(std::cin, answer);
    return answer == "y" || answer == "Y" || answer == "yes" ||
           ControlFail(error, ControlStatus::kRefused, "Not confirmed; nothing was changed.");
}

bool ControlProgram::_recover(ControlErrorSlot error)
{
    if (!ControlRollback::holdsRecords(_rollbackFile)) {
        ControlTell("There is nothing to recover: " + _rollbackFile + " holds no records.");
        _tellOfOtherRuns();
        return true;
    }
    ControlTool::Setup setup = _toolSetup();
    setup.rollbackFile = _rollbackFile;
    const auto session = ControlSession::initWithSetup(setup, *_signals, _messages, error);
    if (session == nullptr || !session->end(error)) {
        return false;
    }
    if (!session->didRollBack()) {
        ControlTell("The volume was in order; the rollback file is not needed any more.");
    }
    return true;
}

void ControlProgram::_tellOfOtherRuns() const
{
    const std::vector<std::string> files = ControlRollback::othersWithRecords(_rollbackFile);
    if (files.empty()) {
        return;
    }
    ControlTell("Other runs were interrupted, and their rollback files wait to be put back:");
    for (const std::string& file : files) {
        ControlTell("    " + file);
    }
    ControlTell(
        "If one was made for this volume under another name, put it back before any check, with "
        "\"vzdefragctl recover IMAGE --rollback FILE\".");
}

ControlTool::Setup ControlProgram::_toolSetup() const
{
    ControlTool::Setup setup{.program = _options.tool.empty() ? usualTool() : _options.tool};
    if (_options.isLowPriority) {
        setup.arguments.emplace_back("--lowpri");
    }
    setup.arguments.push_back(plainPath(_options.image));
    return setup;
}

std::unique_ptr<ControlSession> ControlProgram::_openSession(ControlErrorSlot error)
{
    return ControlSession::initWithSetup(_toolSetup(), *_signals, _messages, error);
}

bool ControlProgram::_survey(ControlSession& session, std::vector<ControlFileSink*> sinks,
                             ControlFigures& figures, ControlErrorSlot error) const
{
    ControlSurvey survey({.image = _options.image,
                          .top = _options.top,
                          .sort = _options.sort,
                          .sinks = std::move(sinks)});
    return survey.run(session, figures, error);
}

bool ControlProgram::_surveyAndEnd(const std::vector<ControlFileSink*>& sinks,
                                   ControlFigures& figures, ControlErrorSlot error)
{
    const auto session = _openSession(error);
    return session != nullptr && _survey(*session, sinks, figures, error) && session->end(error);
}
