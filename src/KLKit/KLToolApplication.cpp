#include "KLKit/KLToolApplication.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "KLKit/KLDebug.h"
#include "KLKit/KLMemory.h"
#include "KLKit/KLStringUtilities.h"
#include "Platform/LinuxRunLoop.h"
#include "Platform/PlatformSystem.h"
#include "Platform/PlatformTerminal.h"

namespace {

constexpr int kStandardInput = 0;
constexpr int kHighestSignal = 31;
constexpr size_t kReadSize = 4096;  // bytes

KLToolApplication* sharedApplication = nullptr;

void requireMainThread()
{
    if (!KLToolApplication::isMainThread()) {
        KLPanic("not on the main thread\n");
    }
}

std::unique_ptr<PlatformRunLoop> createRunLoop()
{
    std::unique_ptr<PlatformRunLoop> runLoop = LinuxRunLoop::create(kStandardInput);
    if (runLoop == nullptr) {
        KLPanic("no run loop, error %d\n", errno);
    }
    return runLoop;
}

std::vector<std::string> wordsOf(int argc, const char* const* argv)
{
    // Not checked for UTF-8: a path is whatever bytes the file system has.
    return std::vector<std::string>(argv, argv + argc);
}

}  // namespace

KLToolApplication::KLToolApplication(int argc, const char* const* argv)
    : _runLoop(createRunLoop()), _firstResponder(this)
{
    requireMainThread();
    if (sharedApplication == nullptr) {
        sharedApplication = this;
    }
    PlatformSaveTerminal();
    postEvent(std::make_shared<KLToolEvent>(KLToolEventArgumentsType, wordsOf(argc, argv)), true);
}

KLToolApplication::~KLToolApplication()
{
    KLPanic("unexpected deallocation\n");
}

KLToolApplication* KLToolApplication::sharedToolApplication()
{
    return sharedApplication;
}

bool KLToolApplication::isMainThread()
{
    return PlatformIsMainThread();
}

int KLToolApplication::run()
{
    requireMainThread();
    while (!_terminated) {
        const bool hadMemory = KLWithinMemory([this] {
            _sendNextEvent();
            _runOneTurn();
        });
        if (!hadMemory) {
            _endWithoutMemory();
        }
    }
    return _exitStatus;
}

/** Ends as at the end of input. What was lost with an event, a line or a signal cannot be made up
 *  for, while the work that is under way may still come to its own end. */
void KLToolApplication::_endWithoutMemory()
{
    std::ignore = KLWithinMemory([] { KLDebugLog(KLDebugLevel::kError, "Out of memory.\n"); });
    terminate();
}

void KLToolApplication::_sendNextEvent()
{
    std::shared_ptr<KLToolEvent> event;
    {
        const std::lock_guard guard(_eventMutex);
        if (_currentEvent != nullptr || _eventQueue.count() == 0) {
            return;
        }
        event = _eventQueue.dequeueHeadObject();
        _currentEvent = event;
    }
    sendEvent(event);
}

void KLToolApplication::_runOneTurn()
{
    PlatformRunLoop::Turn turn;
    const int result = _runLoop->wait(turn);
    if (result != 0) {
        KLPanic("waiting for input failed, error %d\n", result);
    }
    _processSignals(turn.signals);
    if (turn.inputReadable) {
        _inputCallback();
    }
    _drainMainThreadWork();
}

void KLToolApplication::addSignalHandler(int signal, SignalHandler handler)
{
    if (signal < 1 || signal > kHighestSignal) {
        KLPanic("illegal signal: %d\n", signal);
    }
    _signalHandlers[signal] = std::move(handler);
    const int result = _runLoop->watchSignal(signal);
    if (result != 0) {
        KLPanic("signal %d cannot be watched, error %d\n", signal, result);
    }
}

void KLToolApplication::_processSignals(const std::vector<int>& signals)
{
    for (const int signal : signals) {
        const auto found = _signalHandlers.find(signal);
        if (found != _signalHandlers.end() && found->second) {
            // A copy, since the handler may register another in its own place.
            const SignalHandler handler = found->second;
            handler(signal);
        }
    }
}

void KLToolApplication::_inputCallback()
{
    std::array<char, kReadSize> bytes;
    const int64_t count = _runLoop->readInput(bytes.data(), bytes.size());
    if (count == -EAGAIN) {
        return;
    }
    if (count < 0) {
        KLPanic("reading input failed, error %d\n", -count);
    }
    if (count == 0) {
        {
            const std::lock_guard guard(_eventMutex);
            _inputEnded = true;
            _runLoop->setInputWatched(false);
        }
        terminate();
        return;
    }
    _processInput(std::string_view(bytes.data(), static_cast<size_t>(count)));
}

void KLToolApplication::_processInput(std::string_view bytes)
{
    const std::lock_guard guard(_eventMutex);
    if (!bytes.empty()) {
        // Off until the buffer holds no whole line: who writes faster than commands run waits in
        // the pipe, not in our memory.
        _runLoop->setInputWatched(false);
        _inputData.append(bytes);
        _inputDisabled = true;
    }
    if (_currentEvent != nullptr || _eventQueue.count() > 0) {
        postEvent(nullptr, false);
        return;
    }
    std::shared_ptr<KLToolEvent> event =
        _eventInputType == KLToolEventStringType ? _cutLine() : _cutCharacter();
    if (event != nullptr) {
        postEvent(std::move(event), false);
    } else if (_inputDisabled && !_inputEnded) {
        _runLoop->setInputWatched(true);
    }
}

std::shared_ptr<KLToolEvent> KLToolApplication::_cutLine()
{
    const size_t end = _inputData.find('\n', _inputOffset);
    if (end == std::string::npos) {
        _inputOffset = _inputData.size();
        return nullptr;
    }
    _inputOffset = 0;
    return _cutBytes(end, 1);
}

std::shared_ptr<KLToolEvent> KLToolApplication::_cutCharacter()
{
    if (_inputData.empty()) {
        return nullptr;
    }
    const size_t size = sizeOfUTF8CharacterWithLeadByte(_inputData.front());
    if (_inputData.size() < size) {
        return nullptr;
    }
    if (isWellFormedUTF8Character(std::string_view(_inputData).substr(0, size))) {
        return _cutBytes(size, 0);
    }
    auto event = std::make_shared<KLToolEvent>(_eventInputType, _inputData.substr(0, 1));
    _inputData.erase(0, 1);
    return event;
}

/** An event of the first @p size bytes, which leave the buffer with the separator after them. */
std::shared_ptr<KLToolEvent> KLToolApplication::_cutBytes(size_t size, size_t separatorSize)
{
    KLToolEvent::Data data;
    std::string text = _inputData.substr(0, size);
    if (isValidUTF8(text)) {
        data = std::move(text);
    }
    _inputData.erase(0, size + separatorSize);
    return std::make_shared<KLToolEvent>(_eventInputType, std::move(data));
}

void KLToolApplication::setEventInputType(const std::string& type)
{
    {
        const std::lock_guard guard(_eventMutex);
        if (type == KLToolEventCharacterType) {
            PlatformSetTerminalCharacterInput();
        } else if (type == KLToolEventStringType) {
            PlatformSetTerminalLineInput();
        } else {
            KLPanic("illegal event type: %@\n", type);
        }
        _eventInputType = type;
        _inputOffset = 0;
    }
    _processInput({});
}

void KLToolApplication::terminate()
{
    _terminated = true;
    postEvent(nullptr, false);
}

std::shared_ptr<KLToolEvent> KLToolApplication::currentEvent()
{
    const std::lock_guard guard(_eventMutex);
    return _currentEvent;
}

void KLToolApplication::postEvent(std::shared_ptr<KLToolEvent> event, bool atStart)
{
    if (event != nullptr) {
        const std::lock_guard guard(_eventMutex);
        if (atStart) {
            _eventQueue.enqueueHeadObject(std::move(event));
        } else {
            _eventQueue.enqueueTailObject(std::move(event));
        }
    }
    _runLoop->wakeUp();
}

void KLToolApplication::sendEvent(const std::shared_ptr<KLToolEvent>& event)
{
    if (event->type() == KLToolEventArgumentsType) {
        _firstResponder->argumentsEvent(event);
    } else if (event->type() == KLToolEventCharacterType) {
        _firstResponder->characterEvent(event);
    } else if (event->type() == KLToolEventStringType) {
        _firstResponder->stringEvent(event);
    } else {
        event->complete();
    }
}

void KLToolApplication::completeEvent(const std::shared_ptr<KLToolEvent>& event)
{
    if (!isMainThread()) {
        performOnMainThread([this, event] { completeEvent(event); });
        return;
    }
    {
        const std::lock_guard guard(_eventMutex);
        if (event == nullptr || event != _currentEvent) {
            KLPanic("completing an event that is not in flight\n");
        }
        _currentEvent = nullptr;
    }
    _processInput({});
}

void KLToolApplication::performOnMainThread(std::function<void()> work)
{
    {
        const std::lock_guard guard(_workMutex);
        _mainThreadWork.push_back(std::move(work));
    }
    _runLoop->wakeUp();
}

void KLToolApplication::_drainMainThreadWork()
{
    // Work that is queued meanwhile has its own wake-up, so input and signals are not starved.
    std::vector<std::function<void()>> work;
    {
        const std::lock_guard guard(_workMutex);
        work.swap(_mainThreadWork);
    }
    bool hadMemory = true;
    for (const std::function<void()>& item : work) {
        // Each by itself: one of them may be the end of a task, which is waited for.
        hadMemory = KLWithinMemory(item) && hadMemory;
    }
    if (!hadMemory) {
        _endWithoutMemory();
    }
}
