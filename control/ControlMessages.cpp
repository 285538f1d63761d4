#include "ControlMessages.h"

#include <cstdio>

#include "ControlText.h"

void ControlTell(const std::string& message)
{
    const std::string line =
        "vzdefragctl: " + escapedForTerminal(message, charactersOfLocale()) + "\n";
    std::fputs(line.c_str(), stderr);
}

void ControlMessages::stopWasRequested(const std::string& reason)
{
    ControlTell(reason + ": stopping.");
}

void ControlMessages::didLog(const std::string& message)
{
    ControlTell(message);
}
