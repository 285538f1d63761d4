#include "ControlTerminalSize.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <charconv>
#include <cstdlib>
#include <string_view>

namespace {

constexpr size_t kLargest = 10000;

/** Sets @p size to what the variable @p name of the environment says, if that makes sense. */
void readVariable(const char* name, size_t& size)
{
    const char* const value = std::getenv(name);
    const std::string_view text = value == nullptr ? "" : value;
    size_t number = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    if (result.ec == std::errc() && number > 0 && number <= kLargest) {
        size = number;
    }
}

}  // namespace

ControlTerminalSize terminalSize()
{
    ControlTerminalSize size;
    winsize window = {};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &window) == 0 && window.ws_col > 0 &&
        window.ws_row > 0) {
        return {.columns = window.ws_col, .rows = window.ws_row};
    }
    readVariable("COLUMNS", size.columns);
    readVariable("LINES", size.rows);
    return size;
}
