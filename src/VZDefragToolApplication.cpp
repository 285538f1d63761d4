#include "VZDefragToolApplication.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <tuple>
#include <utility>

#include "HFSPlus/HFSPlusVolume.h"
#include "HFSPlus/HFSPlusVolumeProber.h"
#include "KLKit/KLMemory.h"
#include "KLKit/KLNotificationCenter.h"
#include "KLKit/KLStringUtilities.h"
#include "Platform/LinuxDeviceOpener.h"
#include "Platform/PlatformIOPriority.h"
#include "Tasks/HFSPlusBitmapTask.h"
#include "Tasks/HFSPlusDefragTask.h"
#include "Tasks/HFSPlusFragInfoTask.h"
#include "Tasks/HFSPlusMapTask.h"
#include "Tasks/HFSPlusScanTask.h"
#include "VZDefragOutput.h"
#include "VZDefragStringTable.h"
#include "VZDefragStringUtilities.h"
#include "VZDefragVolume.h"

namespace {

constexpr std::string_view kWordSeparators = " \t";
constexpr std::string_view kNumberWhitespace = " \t\n\v\f\r";

enum class Option { kNone, kHelp, kInterval, kQuit, kStrings, kLowPriority, kSafeBoot };

struct OptionWord {
    std::string_view word;
    Option option;
};
constexpr std::array<OptionWord, 11> kOptionWords = {{
    {"-h", Option::kHelp},
    {"--help", Option::kHelp},
    {"-i", Option::kInterval},
    {"--interval", Option::kInterval},
    {"-q", Option::kQuit},
    {"--quit", Option::kQuit},
    {"-s", Option::kStrings},
    {"--strings", Option::kStrings},
    {"-L", Option::kLowPriority},
    {"--lowpri", Option::kLowPriority},
    {"--safe-boot", Option::kSafeBoot},
}};

enum class Command { kNone, kBitmap, kCompact, kDefrag, kFragInfo, kMap, kQuit, kScan };

struct CommandWord {
    std::string_view word;
    Command command;
};
constexpr std::array<CommandWord, 7> kCommandWords = {{
    {"BITMAP", Command::kBitmap},
    {"COMPACT", Command::kCompact},
    {"DEFRAG", Command::kDefrag},
    {"FRAGINFO", Command::kFragInfo},
    {"MAP", Command::kMap},
    {"QUIT", Command::kQuit},
    {"SCAN", Command::kScan},
}};

Option optionWithWord(std::string_view word)
{
    const auto* const found = std::ranges::find(kOptionWords, word, &OptionWord::word);
    return found != kOptionWords.end() ? found->option : Option::kNone;
}

Command commandWithWord(std::string word)
{
    std::ranges::transform(word, word.begin(), [](char character) {
        const bool lower = character >= 'a' && character <= 'z';
        return lower ? static_cast<char>(character - 'a' + 'A') : character;
    });
    const auto* const found = std::ranges::find(kCommandWords, word, &CommandWord::word);
    return found != kCommandWords.end() ? found->command : Command::kNone;
}

/** The decimal number that @p text begins with; 0, which no caller takes, when there is none. */
double numberAtStart(std::string_view text)
{
    text.remove_prefix(std::min(text.find_first_not_of(kNumberWhitespace), text.size()));
    if (text.starts_with('+')) {
        text.remove_prefix(1);
    }
    double number = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    return result.ec == std::errc() && std::isfinite(number) ? number : 0;
}

void printErrorLine(const VZDefragError& error)
{
    VZDefragWriteOutput("ERROR," + outputSafeString(error.description()) + "\n");
    VZDefragFlushOutput();
}

/** Prints the line in fixed words, for which no memory is needed. */
void printOutOfMemory()
{
    VZDefragWriteOutput("ERROR,Out of memory.\n");
    VZDefragFlushOutput();
}

template <typename... Arguments>
void printError(std::string_view format, const Arguments&... arguments)
{
    std::unique_ptr<VZDefragError> error;
    VZDefragFail(&error, format, arguments...);
    printErrorLine(*error);
}

/** Fails without a look into the strings file, for errors about the option that names one. */
template <typename... Arguments>
bool failUntranslated(VZDefragErrorSlot error, std::string_view format,
                      const Arguments&... arguments)
{
    if (VZDefragWantsError(error)) {
        *error = VZDefragError::errorWithFormat(format, arguments...);
    }
    return false;
}

}  // namespace

/** What the command line says apart from what takes effect at once. */
struct VZDefragToolApplication::Options {
    bool quit = false;
    std::vector<std::string> positional;
};

VZDefragToolApplication::VZDefragToolApplication(int argc, const char* const* argv)
    : KLToolApplication(argc, argv)
{
    VZDefragServices::setSharedServices(this);
    setEventInputType(KLToolEventStringType);
    for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM}) {
        addSignalHandler(signal, [this](int number) { _handleSignal(number); });
    }
    KLNotificationCenter::defaultCenter().addObserver(
        KLToolTaskDidTerminateNotification,
        [this](const std::shared_ptr<KLToolTask>& task) { _toolTaskDidTerminate(task); });
}

VZDefragToolApplication::~VZDefragToolApplication() = default;

void VZDefragToolApplication::argumentsEvent(const std::shared_ptr<KLToolEvent>& event)
{
    std::unique_ptr<VZDefragError> error;
    Options options;
    bool opened = false;
    const bool hadMemory = KLWithinMemory([&] {
        opened =
            _parseArguments(event->arguments(), options, &error) && _openDevice(options, &error);
        if (error != nullptr) {
            printErrorLine(*error);
        }
    });
    if (!hadMemory) {
        _volume.reset();
        printOutOfMemory();
    }
    event->complete();
    if (options.quit || !opened) {
        terminate();
        return;
    }
    // Flushed, since a controller waits for this line before it sends its first command.
    VZDefragWriteOutput("READY\n");
    VZDefragFlushOutput();
}

/** False with no error when help was asked for. */
bool VZDefragToolApplication::_parseArguments(const std::vector<std::string>& arguments,
                                              Options& options, VZDefragErrorSlot error)
{
    for (size_t index = 1; index < arguments.size(); ++index) {
        if (!_parseOption(arguments, index, options, error)) {
            return false;
        }
    }
    return true;
}

/** Takes the word at @p index, which moves on to the option's value where there is one. */
bool VZDefragToolApplication::_parseOption(const std::vector<std::string>& arguments, size_t& index,
                                           Options& options, VZDefragErrorSlot error)
{
    const std::string& word = arguments[index];
    const Option option = optionWithWord(word);
    const bool takesValue = option == Option::kInterval || option == Option::kStrings;
    if (takesValue && ++index == arguments.size()) {
        return option == Option::kStrings
                   ? failUntranslated(error, "Option %1$@ requires an argument.", word)
                   : VZDefragFail(error, "Option %1$@ requires an argument.", word);
    }
    switch (option) {
        case Option::kHelp:
            return false;
        case Option::kInterval:
            return _setProgressInterval(word, arguments[index], error);
        case Option::kQuit:
            options.quit = true;
            return true;
        case Option::kStrings:
            return setLocalizedStringsFile(arguments[index]) ||
                   failUntranslated(error, "Strings file %1$@ is invalid.", arguments[index]);
        case Option::kLowPriority:
            // Where the system refuses, the work is done at the ordinary priority.
            std::ignore = PlatformUseIdleIOPriority();
            return true;
        case Option::kSafeBoot:
            VZDefragVolume::setSafeBoot(true);
            return true;
        case Option::kNone:
            break;
    }
    // Unknown options too: a device may have any name.
    options.positional.push_back(word);
    return true;
}

bool VZDefragToolApplication::_setProgressInterval(const std::string& option,
                                                   const std::string& value,
                                                   VZDefragErrorSlot error)
{
    const double interval = numberAtStart(value);
    if (!(interval > 0)) {
        return VZDefragFail(error, "Option %1$@ requires a positive time interval.", option);
    }
    _progressInterval = interval;
    return true;
}

bool VZDefragToolApplication::setLocalizedStringsFile(const std::string& path)
{
    std::unique_ptr<VZDefragStringTable> table = VZDefragStringTable::initWithFile(path);
    if (table == nullptr) {
        return false;
    }
    _localizedStringTable = std::move(table);
    return true;
}

std::string VZDefragToolApplication::localizedStringForKey(std::string_view key) const
{
    return _localizedStringTable != nullptr ? _localizedStringTable->localizedStringForKey(key)
                                            : std::string(key);
}

bool VZDefragToolApplication::_openDevice(const Options& options, VZDefragErrorSlot error)
{
    if (options.positional.empty()) {
        return VZDefragFail(error, "No device specified.");
    }
    LinuxDeviceOpener opener;
    HFSPlusVolumeProber prober;
    if (const char* path = std::getenv("VZDefragRollbackFile"); path != nullptr && *path != 0) {
        prober.setRollbackFile(std::make_shared<HFSPlusRollbackFile>(
            path, [path = std::string(path)](bool create, int& errorNumber) {
                return PlatformOpenWritableFile(path, create, errorNumber);
            }));
    }
    _volume = VZDefragVolume::initWithDevice(options.positional.front(), opener, prober, error);
    return _volume != nullptr;
}

void VZDefragToolApplication::stringEvent(const std::shared_ptr<KLToolEvent>& event)
{
    bool isKept = false;
    if (!KLWithinMemory([&] { isKept = _runCommand(event); })) {
        printOutOfMemory();
    }
    if (!isKept) {
        event->complete();
    }
}

/** Runs the command of @p event; whether a task keeps the event until it ends. */
bool VZDefragToolApplication::_runCommand(const std::shared_ptr<KLToolEvent>& event)
{
    const std::string line = event->string();
    const std::string word = firstComponentSeparatedByCharactersInSet(line, kWordSeparators);
    if (_terminateRequestPending || word.empty()) {
        return false;
    }
    switch (commandWithWord(word)) {
        case Command::kBitmap:
            _startReportTask<HFSPlusBitmapTask>(event);
            return true;
        case Command::kFragInfo:
            _startReportTask<HFSPlusFragInfoTask>(event);
            return true;
        case Command::kMap:
            _startReportTask<HFSPlusMapTask>(event);
            return true;
        case Command::kScan:
            _startReportTask<HFSPlusScanTask>(event);
            return true;
        case Command::kCompact:
            _startMovingTask(line, true);
            break;
        case Command::kDefrag:
            _startMovingTask(line, false);
            break;
        case Command::kQuit:
            terminate();
            break;
        case Command::kNone:
            printError("%1$@ is not a recognized command.", word);
            break;
    }
    return false;
}

/** The opened volume; only HFSPlusVolumeProber makes volumes here. */
HFSPlusVolume& VZDefragToolApplication::_hfsPlusVolume() const
{
    return static_cast<HFSPlusVolume&>(*_volume);
}

/** Starts a task that completes the event when it ends: until then no further line is read. */
template <typename Task>
void VZDefragToolApplication::_startReportTask(const std::shared_ptr<KLToolEvent>& event)
{
    _startTask(std::make_shared<Task>(_hfsPlusVolume(), event));
}

/** Starts a task in the background; its event is completed at once, so that "QUIT" can come. */
void VZDefragToolApplication::_startMovingTask(const std::string& line, bool compact)
{
    const auto task = std::make_shared<HFSPlusDefragTask>(_hfsPlusVolume(), compact);
    task->setArguments(trimmedComponentsSeparatedByCharactersInSet(line, kWordSeparators));
    _startTask(task);
}

void VZDefragToolApplication::_startTask(const std::shared_ptr<KLToolTask>& task)
{
    const auto place = _tasks.insert(task).first;
    try {
        task->start();
    } catch (...) {
        _tasks.erase(place);  // a task without a thread never announces its end
        throw;
    }
}

void VZDefragToolApplication::terminate()
{
    if (!std::exchange(_terminateRequestPending, true)) {
        for (const std::shared_ptr<KLToolTask>& task : _tasks) {
            task->abort();
        }
    }
    if (_tasks.empty()) {
        _volume.reset();
        KLToolApplication::terminate();
    }
}

void VZDefragToolApplication::outputReaderDidGoAway()
{
    performOnMainThread([this] { terminate(); });
}

void VZDefragToolApplication::performOnMainThread(std::function<void()> work)
{
    KLToolApplication::performOnMainThread(std::move(work));
}

void VZDefragToolApplication::_handleSignal(int signal)
{
    if (signal == SIGINT || signal == SIGQUIT || signal == SIGTERM) {
        terminate();
    }
}

void VZDefragToolApplication::_toolTaskDidTerminate(const std::shared_ptr<KLToolTask>& task)
{
    if (!isMainThread()) {
        performOnMainThread([this, task] { _toolTaskDidTerminate(task); });
        return;
    }
    _tasks.erase(task);
    if (_terminateRequestPending) {
        terminate();
    }
}
