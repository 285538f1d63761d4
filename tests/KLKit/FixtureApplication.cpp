#include <csignal>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "KLKit/Fixture.h"
#include "KLKit/KLToolApplication.h"

namespace {

/** Prints what reaches it; the mode says what it does with events. */
class Application : public KLToolApplication {
public:
    Application(int argc, const char* const* argv, std::string mode)
        : KLToolApplication(argc, argv), _mode(std::move(mode))
    {
        if (_mode.starts_with("characters")) {
            setEventInputType(KLToolEventCharacterType);
        }
        if (_mode == "characters-then-lines") {
            setEventInputType(KLToolEventStringType);
        }
        addSignalHandler(SIGUSR1, [this](int signal) { _handleSignal(signal); });
        addSignalHandler(SIGUSR2, [](int) { printLine("FIRST"); });
        addSignalHandler(SIGUSR2, [](int) { printLine("SECOND"); });
    }

    void argumentsEvent(const std::shared_ptr<KLToolEvent>& event) override
    {
        printLine("ARGUMENTS " + std::to_string(event->arguments().size()));
        if (_mode != "hold-arguments") {
            event->complete();
        }
        if (_mode == "characters-then-exit") {
            terminate();
        }
    }

    void characterEvent(const std::shared_ptr<KLToolEvent>& event) override
    {
        printLine("CHARACTER " + event->string());
        event->complete();
    }

    void stringEvent(const std::shared_ptr<KLToolEvent>& event) override
    {
        const bool none = std::holds_alternative<std::monostate>(event->data());
        const std::string line = event->string();
        if (line.size() > 100) {
            printLine("LONG LINE " + std::to_string(line.size()));
        } else {
            printLine(none ? "NO STRING" : "LINE " + line);
        }
        if (_mode == "thread") {
            std::thread([event] { event->complete(); }).join();
            printLine("STILL IN FLIGHT " + std::to_string(currentEvent() == event));
        } else if (_mode != "hold") {
            event->complete();
        }
    }

    void terminate() override
    {
        printLine("TERMINATE");
        KLToolApplication::terminate();
    }

private:
    void _handleSignal(int)
    {
        printLine("COMPLETE");
        if (const std::shared_ptr<KLToolEvent> event = currentEvent()) {
            event->complete();
        }
    }

    std::string _mode;
};

Application& makeApplication(int argc, const char* const* argv, const std::string& mode)
{
    return *std::make_unique<Application>(argc, argv, mode).release();
}

/** Rings from a thread that never waits for the loop, which has to notice the last one. */
int runDoorbell(Application& application)
{
    std::thread ringer([&application] {
        for (int ring = 0; ring < 100000; ++ring) {
            application.postEvent(nullptr, false);
        }
        printLine("RUNG");
        application.performOnMainThread([&application] { application.terminate(); });
    });
    ringer.join();
    return application.run();
}

/** Posts an event and wakes the loop from another thread while the loop sleeps. */
int runPosting(Application& application)
{
    std::thread poster([&application] {
        application.postEvent(
            std::make_shared<KLToolEvent>(KLToolEventStringType, std::string("posted")), false);
        application.postEvent(std::make_shared<KLToolEvent>("unknown", std::monostate()), false);
    });
    const int status = application.run();
    poster.join();
    return status;
}

int runWorkInOrder(Application& application)
{
    constexpr int kItems = 1000;
    std::vector<int> done;
    std::thread poster([&] {
        for (int item = 0; item < kItems; ++item) {
            application.performOnMainThread([&done, item] { done.push_back(item); });
        }
        application.performOnMainThread([&application] { application.terminate(); });
    });
    const int status = application.run();
    poster.join();
    bool ordered = done.size() == kItems;
    for (size_t index = 0; index < done.size(); ++index) {
        ordered = ordered && done[index] == static_cast<int>(index);
    }
    printLine(ordered ? "IN ORDER" : "OUT OF ORDER");
    return status;
}

/** Does the one thing that the mode's name says is not allowed. */
void breakRule(const std::string& mode, int argc, const char* const* argv)
{
    if (mode == "construct-on-thread") {
        std::thread([&] { makeApplication(argc, argv, mode); }).join();
    } else if (mode == "run-on-thread") {
        Application& application = makeApplication(argc, argv, mode);
        std::thread([&application] { std::ignore = application.run(); }).join();
    } else if (mode == "illegal-type") {
        makeApplication(argc, argv, mode).setEventInputType("KLToolEventMouseType");
    } else if (mode == "illegal-signal") {
        makeApplication(argc, argv, mode).addSignalHandler(32, [](int) {});
    } else if (mode == "destroy") {
        const auto destroyed = std::make_unique<Application>(argc, argv, mode);
    } else if (mode == "complete-wrong") {
        makeApplication(argc, argv, mode)
            .completeEvent(
                std::make_shared<KLToolEvent>(KLToolEventStringType, std::string("other")));
    }
}

}  // namespace

bool runApplicationMode(std::string_view mode, int argc, const char* const* argv, int& status)
{
    const std::string name(mode);
    for (const std::string_view rule : {"construct-on-thread", "run-on-thread", "illegal-type",
                                        "illegal-signal", "destroy", "complete-wrong"}) {
        if (mode == rule) {
            breakRule(name, argc, argv);
            return true;
        }
    }
    for (const std::string_view known : {"echo", "hold", "hold-arguments", "thread", "characters",
                                         "characters-then-exit", "characters-then-lines"}) {
        if (mode == known) {
            status = makeApplication(argc, argv, name).run();
            return true;
        }
    }
    if (mode == "doorbell") {
        status = runDoorbell(makeApplication(argc, argv, name));
    } else if (mode == "posting") {
        status = runPosting(makeApplication(argc, argv, name));
    } else if (mode == "work-in-order") {
        status = runWorkInOrder(makeApplication(argc, argv, name));
    } else {
        return false;
    }
    return true;
}
