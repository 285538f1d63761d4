#pragma once

#include <string>
#include <string_view>

/** A program over the framework alone. Its first argument picks a mode; each mode shows one rule
 *  through the lines that it prints. */

/** Runs @p mode if it is one of its file's, setting @p status; false for other modes. */
[[nodiscard]] bool runApplicationMode(std::string_view mode, int argc, const char* const* argv,
                                      int& status);
[[nodiscard]] bool runTaskMode(std::string_view mode, int argc, const char* const* argv,
                               int& status);
[[nodiscard]] bool runLogMode(std::string_view mode, int argc, const char* const* argv,
                              int& status);

/** Prints @p line to standard output at once. Any thread. */
void printLine(const std::string& line);
