#include "Platform/PlatformTerminal.h"

#include <termios.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>

namespace {

std::optional<termios> savedSettings;  // empty where standard input is no terminal

void restoreTerminal()
{
    ::tcsetattr(STDIN_FILENO, TCSADRAIN, &*savedSettings);
}

}  // namespace

void PlatformSaveTerminal()
{
    termios settings = {};
    if (::isatty(STDIN_FILENO) == 0 || ::tcgetattr(STDIN_FILENO, &settings) != 0) {
        return;
    }
    savedSettings = settings;
    std::atexit(restoreTerminal);
}

void PlatformSetTerminalLineInput()
{
    termios settings = {};
    if (!savedSettings || ::tcgetattr(STDIN_FILENO, &settings) != 0) {
        return;
    }
    settings.c_lflag |= ICANON | (savedSettings->c_lflag & tcflag_t{ECHO});
    ::tcsetattr(STDIN_FILENO, TCSADRAIN, &settings);
}

void PlatformSetTerminalCharacterInput()
{
    termios settings = {};
    if (!savedSettings || ::tcgetattr(STDIN_FILENO, &settings) != 0) {
        return;
    }
    settings.c_lflag &= ~tcflag_t{ICANON | ECHO};
    settings.c_cc[VMIN] = 1;
    settings.c_cc[VTIME] = 0;
    ::tcsetattr(STDIN_FILENO, TCSADRAIN, &settings);
}
