#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

/** A window of the terminal multiplexer tmux, which draws what a program writes as a terminal does.
 *
 *  What waits has a deadline past which it reports what there is.
 */
class TmuxTerminal {
public:
    using Lines = std::vector<std::string>;
    static constexpr std::chrono::seconds kPatience{20};

    /** Runs @p command by a shell, in UTF-8. */
    TmuxTerminal(size_t columns, size_t rows, const std::string& command);
    TmuxTerminal(const TmuxTerminal&) = delete;
    TmuxTerminal& operator=(const TmuxTerminal&) = delete;
    /** Ends whatever still runs. */
    ~TmuxTerminal();

    void resize(size_t columns, size_t rows);
    /** Types @p keys, named as tmux does: "C-c" and "Enter", or plain text. */
    void type(const std::string& keys);
    /** What the window shows, without the space at the ends of lines. */
    [[nodiscard]] Lines lines() const;
    /** Waits until what the window shows pleases @p condition; the last that it showed. */
    [[nodiscard]] Lines waitUntil(const std::function<bool(const Lines&)>& condition,
                                  std::chrono::seconds patience = kPatience) const;
    /** Waits until a line holds @p text. */
    [[nodiscard]] Lines waitFor(const std::string& text,
                                std::chrono::seconds patience = kPatience) const;

private:
    /** The output of tmux with @p arguments. */
    std::string _run(const std::string& arguments) const;

    std::string _name;
};

/** Whether one of @p lines holds @p text. */
[[nodiscard]] bool holdsText(const TmuxTerminal::Lines& lines, const std::string& text);
