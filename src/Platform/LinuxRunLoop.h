#pragma once

#include <csignal>
#include <memory>

#include "Platform/PlatformRunLoop.h"

/** A run loop over poll(), a signalfd and an eventfd.
 *
 *  Watched signals are blocked in the thread that watches them and in every thread that it starts
 *  afterwards, so they reach nobody but the loop. SIGPIPE is ignored for the whole process: a
 *  reader that goes away shows as an error of the write.
 */
class LinuxRunLoop : public PlatformRunLoop {
public:
    /** A loop over @p inputDescriptor, which stays the caller's; null with errno set. */
    [[nodiscard]] static std::unique_ptr<LinuxRunLoop> create(int inputDescriptor);
    ~LinuxRunLoop() override;

    [[nodiscard]] int watchSignal(int signal) override;
    void setInputWatched(bool watched) override { _inputWatched = watched; }
    void wakeUp() override;
    [[nodiscard]] int wait(Turn& turn) override;
    [[nodiscard]] int64_t readInput(void* buffer, size_t nbyte) override;

private:
    explicit LinuxRunLoop(int inputDescriptor);

    [[nodiscard]] int _readSignals(Turn& turn);
    [[nodiscard]] int _readWakeUps();

    int _inputDescriptor;
    int _signalDescriptor = -1;
    int _wakeUpDescriptor = -1;
    bool _inputWatched = true;
    sigset_t _signals;
};
