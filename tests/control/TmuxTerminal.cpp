#include "control/TmuxTerminal.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <thread>

namespace {

constexpr std::chrono::milliseconds kPause{50};

std::string quoted(const std::string& text)
{
    std::string result = "'";
    for (const char character : text) {
        result += character == '\'' ? std::string("'\\''") : std::string(1, character);
    }
    return result + "'";
}

}  // namespace

TmuxTerminal::TmuxTerminal(size_t columns, size_t rows, const std::string& command)
{
    static int count = 0;
    _name = "vzcontrol-" + std::to_string(::getpid()) + "-" + std::to_string(++count);
    const std::string settings = testing::TempDir() + "/" + _name + ".conf";
    std::ofstream(settings) << "set -g status off\n"
                               "set -g default-terminal screen-256color\n"
                               "set -g remain-on-exit on\n";
    _run("-f " + quoted(settings) + " new-session -d -x " + std::to_string(columns) + " -y " +
         std::to_string(rows) + " " + quoted(command));
    std::remove(settings.c_str());
}

TmuxTerminal::~TmuxTerminal()
{
    _run("kill-server");
}

std::string TmuxTerminal::_run(const std::string& arguments) const
{
    const std::string command =
        "env -u TMUX -u NO_COLOR -u LC_ALL LANG=C.UTF-8 TERM=xterm tmux -u "
        "-L " +
        _name + " " + arguments + " 2>&1";
    std::FILE* const pipe = ::popen(command.c_str(), "r");
    std::string output;
    std::array<char, 4096> bytes = {};
    for (size_t count = 0; (count = std::fread(bytes.data(), 1, bytes.size(), pipe)) > 0;) {
        output.append(bytes.data(), count);
    }
    EXPECT_EQ(::pclose(pipe), 0) << command << ": " << output;
    return output;
}

void TmuxTerminal::resize(size_t columns, size_t rows)
{
    _run("resize-window -x " + std::to_string(columns) + " -y " + std::to_string(rows));
}

void TmuxTerminal::type(const std::string& keys)
{
    _run("send-keys " + quoted(keys));
}

TmuxTerminal::Lines TmuxTerminal::lines() const
{
    Lines lines;
    std::istringstream text(_run("capture-pane -p"));
    for (std::string line; std::getline(text, line);) {
        lines.push_back(line);
    }
    return lines;
}

TmuxTerminal::Lines TmuxTerminal::waitUntil(const std::function<bool(const Lines&)>& condition,
                                            std::chrono::seconds patience) const
{
    const auto deadline = std::chrono::steady_clock::now() + patience;
    Lines shown = lines();
    while (!condition(shown) && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(kPause);
        shown = lines();
    }
    return shown;
}

TmuxTerminal::Lines TmuxTerminal::waitFor(const std::string& text,
                                          std::chrono::seconds patience) const
{
    return waitUntil([&](const Lines& shown) { return holdsText(shown, text); }, patience);
}

bool holdsText(const TmuxTerminal::Lines& lines, const std::string& text)
{
    return std::ranges::any_of(
        lines, [&](const std::string& line) { return line.find(text) != std::string::npos; });
}
