// Shows a made-up run on the live screen: for tests of the screen, and to look at it.
//
//     controlscreendemo [--percent N] [--run SECONDS] [--moves N] [--message TEXT]
//
// Stays at the percent given, or runs to the end in that many seconds with so many moves in all.
// Ctrl-C asks it to stop, once more ends it; Ctrl-Z and changes of the window's size are followed.
#include <sys/resource.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

#include "ControlMapText.h"
#include "ControlPlainDisplay.h"
#include "ControlRunText.h"
#include "ControlScreen.h"
#include "control/SampleFigures.h"

namespace {

struct Options {
    int percent = 37;
    double runSeconds = 0;  // 0: stay at the percent
    size_t moves = 1000;
    std::string message;
};

double now()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

Options optionsOf(int argc, char** argv)
{
    Options options;
    for (int index = 1; index + 1 < argc; index += 2) {
        const std::string_view name = argv[index];
        const char* const value = argv[index + 1];
        if (name == "--percent") {
            options.percent = std::atoi(value);
        } else if (name == "--run") {
            options.runSeconds = std::atof(value);
        } else if (name == "--moves") {
            options.moves = static_cast<size_t>(std::atol(value));
        } else if (name == "--message") {
            options.message = value;
        }
    }
    return options;
}

/** The moves that lay the files in pieces down one after the other, behind all that is in use. */
std::vector<ControlMove> movesOf(const SampleVolume& volume)
{
    std::vector<ControlMove> moves;
    uint32_t destination = volume.figures.lastUsedBlock + 1;
    for (const ControlFile& file : volume.files) {
        if (!file.isFragmented) {
            continue;
        }
        for (const ControlExtent& extent : file.extents) {
            moves.push_back({extent.start, destination, extent.count});
            destination += extent.count;
        }
    }
    return moves;
}

/** A run that is made up as time goes by. */
class Run {
public:
    Run(ControlRunDisplay& display, const Options& options)
        : _display(display),
          _options(options),
          _volume(sampleVolume()),
          _moves(movesOf(_volume)),
          _begin(now())
    {
        _display.runWillBegin(ControlJob::kDefrag, _volume.figures);
        if (!_options.message.empty()) {
            _display.showMessage(_options.message);
        }
    }

    /** Goes on up to the present; false when it is complete. */
    bool goOn()
    {
        const double elapsed = now() - _begin;
        const bool isTimed = _options.runSeconds > 0;
        const double part = isTimed ? std::min(elapsed / _options.runSeconds, 1.0)
                                    : static_cast<double>(_options.percent) / 100;
        const auto count = static_cast<size_t>(static_cast<double>(_options.moves) * part);
        for (; _done < count; _done++) {
            const ControlMove& move = _moves[_done * _moves.size() / _options.moves];
            _movedBlocks += move.count;
            _display.blocksDidMove(move);
        }
        _progress.percent = static_cast<int>(100 * part);
        _progress.movedBlocks = _movedBlocks;
        _progress.movedBytes = _movedBlocks * _volume.figures.blockSize;
        _progress.bytesPerSecond = 210.0 * 1024 * 1024;
        _progress.secondsLeft = isTimed ? _options.runSeconds - elapsed : 41;
        _progress.elapsed = isTimed ? elapsed : 67;
        _display.progressDidChange(_progress);
        return !isTimed || elapsed < _options.runSeconds;
    }

    /** Ends the display; the summary for those who show none themselves. */
    std::string end(bool isComplete)
    {
        const SampleVolume after = tidySampleVolume();
        const ControlRunEnd runEnd{.isComplete = isComplete,
                                   .message = isComplete ? "" : "Stopped by Ctrl-C.",
                                   .progress = _progress,
                                   .after = isComplete ? &after.figures : nullptr};
        _display.runDidEnd(runEnd);
        return summaryOfRun(_volume.figures, runEnd);
    }

private:
    ControlRunDisplay& _display;
    const Options& _options;
    SampleVolume _volume;
    std::vector<ControlMove> _moves;
    double _begin;
    size_t _done = 0;
    uint64_t _movedBlocks = 0;
    ControlProgress _progress;
};

/** Waits for one of @p signals for a twentieth of a second; 0 when none came. */
int nextSignal(const sigset_t& signals)
{
    const timespec wait{.tv_sec = 0, .tv_nsec = 50'000'000};
    return std::max(::sigtimedwait(&signals, nullptr, &wait), 0);
}

/** Runs to the end or to the second Ctrl-C; whether it was the end. */
bool runUntilEnd(Run& run, ControlRunDisplay& display, const sigset_t& signals)
{
    bool isStopping = false;
    while (run.goOn()) {
        switch (nextSignal(signals)) {
            case SIGWINCH:
                display.sizeDidChange();
                break;
            case SIGTSTP:
                display.willSuspend();
                ::raise(SIGSTOP);
                display.didResume();
                break;
            case SIGINT:
                if (isStopping) {
                    return false;
                }
                isStopping = true;
                display.runWillStop("Stopping safely, waiting for the blocks on their way.");
                break;
            default:
                break;
        }
    }
    return true;
}

/** How SIGINT, SIGTERM, SIGTSTP and SIGWINCH are handled. */
std::vector<void (*)(int)> handlers()
{
    std::vector<void (*)(int)> all;
    for (const int signal : {SIGINT, SIGTERM, SIGTSTP, SIGWINCH}) {
        struct sigaction action = {};
        ::sigaction(signal, nullptr, &action);
        all.push_back(action.sa_handler);
    }
    return all;
}

double processorSeconds()
{
    rusage usage = {};
    ::getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

}  // namespace

int main(int argc, char** argv)
{
    std::setlocale(LC_ALL, "");
    sigset_t signals;
    ::sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTSTP, SIGWINCH}) {
        ::sigaddset(&signals, signal);
    }
    ::sigprocmask(SIG_BLOCK, &signals, nullptr);
    const Options options = optionsOf(argc, argv);

    const auto handlersBefore = handlers();
    ControlScreenOptions screenOptions;
    screenOptions.characters = charactersOfLocale();
    screenOptions.isColored = standardOutputWantsColor();
    const auto screen = ControlScreen::initWithTerminal(screenOptions);
    ControlPlainDisplay plain(std::cout, std::cerr, screenOptions.characters);
    ControlRunDisplay& display = screen ? static_cast<ControlRunDisplay&>(*screen) : plain;
    const bool keepsHandlers = handlers() == handlersBefore;

    Run run(display, options);
    const double begin = now();
    const double processorBegin = processorSeconds();
    const bool isComplete = runUntilEnd(run, display, signals);
    const double processor = processorSeconds() - processorBegin;
    const double elapsed = now() - begin;
    const std::string summary = run.end(isComplete);
    if (screen) {
        std::cout << summary << "Drawn: " << screen->drawCount() << "\n";
    }
    std::cout << "Processor: " << processor << " s of " << elapsed << " s\n"
              << "Handlers of signals: " << (keepsHandlers ? "kept" : "replaced") << std::endl;
    return isComplete ? 0 : 1;
}
