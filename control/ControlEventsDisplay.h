#pragma once

#include <functional>
#include <iosfwd>

#include "ControlRunDisplay.h"

/** The version of the events; a new one when a program that knows the old ones would fail. */
constexpr int kControlEventsVersion = 1;

/** Shows a run to a program: a JSON object a line, which docs/vzdefragctl-events.md describes.
 *
 *  Lines are ASCII, whatever names and messages hold, and each is flushed.
 */
class ControlEventsDisplay : public ControlRunDisplay {
public:
    /** Seconds since any fixed time. */
    using Clock = std::function<double()>;

    explicit ControlEventsDisplay(std::ostream& output, Clock clock = steadySeconds);

    void runWillBegin(ControlJob job, const ControlFigures& before) override;
    void phaseDidChange(const std::string& phase, std::optional<int> percent) override;
    void blocksDidMove(const ControlMove& move) override;
    void progressDidChange(const ControlProgress& progress) override;
    void runWillStop(const std::string& reason) override;
    void showMessage(const std::string& message) override;
    void runDidEnd(const ControlRunEnd& end) override;

    /** Seconds of the system's clock that never goes back. */
    [[nodiscard]] static double steadySeconds();

private:
    /** Writes the event @p name; @p addFields is called with the document to add to. */
    template <typename Body>
    void _write(const char* name, Body addFields);

    std::ostream& _output;
    Clock _clock;
    double _begin;
};
