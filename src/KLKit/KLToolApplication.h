#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "KLKit/KLQueue.h"
#include "KLKit/KLToolEvent.h"
#include "KLKit/KLToolResponder.h"

class PlatformRunLoop;

/** The main thread's event loop: one event at a time, each completed before the next is cut.
 *
 *  One per process and never destroyed. Other threads may call postEvent, currentEvent,
 *  completeEvent and performOnMainThread; everything else belongs to the main thread.
 */
class KLToolApplication : public KLToolResponder {
public:
    using SignalHandler = std::function<void(int)>;

    KLToolApplication(int argc, const char* const* argv);
    ~KLToolApplication() override;

    /** The instance made first. */
    [[nodiscard]] static KLToolApplication* sharedToolApplication();

    /** Runs the loop until terminate() and returns the exit status. */
    [[nodiscard]] int run();

    /** Calls @p handler on the main thread for @p signal (1 to 31) in place of an earlier one. */
    void addSignalHandler(int signal, SignalHandler handler);

    /** Cuts input into lines (KLToolEventStringType) or characters (KLToolEventCharacterType). */
    void setEventInputType(const std::string& type);

    /** Ends run() after the current turn; events still queued are never sent. */
    virtual void terminate();

    /** The event in flight, or null. */
    [[nodiscard]] std::shared_ptr<KLToolEvent> currentEvent();

    /** Queues @p event, if any, and wakes the loop in every case. */
    void postEvent(std::shared_ptr<KLToolEvent> event, bool atStart);

    /** Hands @p event to the first responder by its type; an unknown type is only completed. */
    void sendEvent(const std::shared_ptr<KLToolEvent>& event);

    [[nodiscard]] KLToolResponder* firstResponder() const { return _firstResponder; }

    /** Ends the event in flight. Moves itself to the main thread. */
    void completeEvent(const std::shared_ptr<KLToolEvent>& event);

    /** Queues work for the main thread without waiting; it runs in posting order. */
    void performOnMainThread(std::function<void()> work);

    [[nodiscard]] static bool isMainThread();

private:
    void _sendNextEvent();
    void _runOneTurn();
    void _processSignals(const std::vector<int>& signals);
    void _inputCallback();
    void _processInput(std::string_view bytes);
    [[nodiscard]] std::shared_ptr<KLToolEvent> _cutLine();
    [[nodiscard]] std::shared_ptr<KLToolEvent> _cutCharacter();
    [[nodiscard]] std::shared_ptr<KLToolEvent> _cutBytes(size_t size, size_t separatorSize);
    void _drainMainThreadWork();
    void _endWithoutMemory();

    std::unique_ptr<PlatformRunLoop> _runLoop;
    std::map<int, SignalHandler> _signalHandlers;
    std::recursive_mutex _eventMutex;  // guards the input and event fields
    std::string _inputData;
    size_t _inputOffset = 0;      // in line mode, bytes already searched for a line's end
    bool _inputDisabled = false;  // input has arrived, so reading may be switched on again
    bool _inputEnded = false;     // reading stays off
    std::string _eventInputType = KLToolEventStringType;
    KLQueue<KLToolEvent> _eventQueue;
    std::shared_ptr<KLToolEvent> _currentEvent;
    KLToolResponder* _firstResponder;
    int _exitStatus = 0;
    bool _terminated = false;
    std::mutex _workMutex;  // guards _mainThreadWork
    std::vector<std::function<void()>> _mainThreadWork;
};
