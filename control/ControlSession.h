#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "ControlRecord.h"
#include "ControlTool.h"

/** What the log of vzdefrag says of the volume that it has opened. */
struct ControlVolumeFacts {
    std::string format;  // "HFS Plus" or "HFSX"
    bool isJournaled = false;
    bool isWritable = false;
    uint32_t blockSize = 0;  // bytes
    uint32_t totalBlocks = 0;
};

/** Hears of what happens while a session waits for vzdefrag. */
class ControlSessionObserver {
public:
    virtual ~ControlSessionObserver() = default;
    /** A stop was asked for by @p reason, the first time or again. */
    virtual void stopWasRequested(const std::string& reason) = 0;
    /** Ctrl-Z, and later fg or bg. */
    virtual void willSuspend() = 0;
    virtual void didResume() = 0;
    virtual void sizeDidChange() = 0;
    /** A line of the log that people should see. */
    virtual void didLog(const std::string& message) = 0;
    /** At least four times a second. */
    virtual void timeDidPass() = 0;
};

/** A conversation with one vzdefrag about one volume. */
class ControlSession {
public:
    using Handler = std::function<void(const ControlRecord&)>;
    using Clock = ControlTool::Clock;

    /** Starts vzdefrag and waits until the volume is open; null with an error if it will not be.
     *
     *  Signals and observer outlive the session.
     */
    [[nodiscard]] static std::unique_ptr<ControlSession> initWithSetup(
        const ControlTool::Setup& setup, ControlSignals& signals, ControlSessionObserver& observer,
        ControlErrorSlot error);

    ControlSession(const ControlSession&) = delete;
    ControlSession& operator=(const ControlSession&) = delete;
    /** Lets vzdefrag end, and waits for it as long as nobody loses patience. */
    ~ControlSession();

    [[nodiscard]] const ControlVolumeFacts& facts() const { return _facts; }
    /** Whether vzdefrag has rolled an interrupted run back when it opened the volume. */
    [[nodiscard]] bool didRollBack() const { return _didRollBack; }
    /** Whether somebody asked for a stop; what runs then ends early. */
    [[nodiscard]] bool isStopping() const { return _isStopping; }

    /** Whether vzdefrag was left to itself, since nobody wanted to wait any more. */
    [[nodiscard]] bool isLeft() const { return _isLeft; }

    /** From then on a stop is asked for, as by Ctrl-C. */
    void setTimeLimit(Clock::time_point limit, std::string reason);
    /** Asks vzdefrag to end at the next point where the volume is consistent. */
    void requestStop(const std::string& reason);

    /** Sends a command and gives every record of it to @p handler, until it is done.
     *
     *  Fails with vzdefrag's error, or when it ends meanwhile; with kStopped after a stop.
     */
    [[nodiscard]] bool run(const std::string& command, const Handler& handler,
                           ControlErrorSlot error);
    /** Handles what waits, without waiting itself; false with kStopped after a stop. */
    [[nodiscard]] bool poll(ControlErrorSlot error);
    /** Ends vzdefrag and waits for it; fails when it did not end well. */
    [[nodiscard]] bool end(ControlErrorSlot error);

private:
    /** How far a command has come. */
    struct Exchange {
        std::string task;
        const Handler& handler;
        bool isDone = false;
        std::optional<ControlFailure> failure = {};
    };

    ControlSession(ControlSignals& signals, ControlSessionObserver& observer);
    [[nodiscard]] bool _awaitReady(ControlErrorSlot error);
    /** Handles one event; false at the end of vzdefrag's output. */
    [[nodiscard]] bool _handleEvent(Exchange& exchange, Clock::time_point deadline);
    void _handleRecord(Exchange& exchange, const ControlRecord& record);
    void _handleLog(const std::string& line);
    void _handleSignals();
    void _checkClock();
    [[nodiscard]] bool _failForEnd(ControlErrorSlot error);

    ControlSignals& _signals;
    ControlSessionObserver& _observer;
    std::unique_ptr<ControlTool> _tool;
    ControlRecordReader _reader;
    ControlVolumeFacts _facts;
    bool _showsLog;  // all of it: somebody has asked for more than warnings
    bool _didRollBack = false;
    bool _isStopping = false;
    int _interrupts = 0;
    bool _isLeft = false;  // the tool was left to itself
    std::optional<Clock::time_point> _timeLimit;
    std::string _timeLimitReason;
    Clock::time_point _nextTick;
};
