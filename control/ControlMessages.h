#pragma once

#include <string>

#include "ControlSession.h"

/** Prints @p message on standard error, escaped, with the program's name in front. */
void ControlTell(const std::string& message);

/** Hears of a session that nobody watches: prints what people should know on standard error. */
class ControlMessages : public ControlSessionObserver {
public:
    void stopWasRequested(const std::string& reason) override;
    void willSuspend() override {}
    void didResume() override {}
    void sizeDidChange() override {}
    void didLog(const std::string& message) override;
    void timeDidPass() override {}
};
