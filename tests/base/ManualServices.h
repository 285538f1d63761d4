#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "VZDefragServices.h"

/** Services whose clock and main thread the test moves; bound for as long as they live. */
class ManualServices final : public VZDefragServices {
public:
    ManualServices() { setSharedServices(this); }
    ~ManualServices() override { setSharedServices(nullptr); }

    [[nodiscard]] double progressInterval() const override { return interval; }
    [[nodiscard]] std::string localizedStringForKey(std::string_view key) const override
    {
        const auto found = translations.find(std::string(key));
        return found != translations.end() ? found->second : std::string(key);
    }
    void outputReaderDidGoAway() override { ++lostReaders; }
    [[nodiscard]] double timeIntervalSinceReferenceDate() const override
    {
        ++clockReadings;
        return now;
    }
    void performOnMainThread(std::function<void()> work) override
    {
        mainThreadWork.push_back(std::move(work));
    }

    /** Does what was queued for the main thread. */
    void runMainThread()
    {
        for (const std::function<void()>& work : std::exchange(mainThreadWork, {})) {
            work();
        }
    }

    double interval = 1.0;  // seconds
    double now = 1000.0;    // seconds
    mutable std::atomic<int> clockReadings = 0;
    int lostReaders = 0;
    std::map<std::string, std::string> translations;
    std::vector<std::function<void()>> mainThreadWork;
};
