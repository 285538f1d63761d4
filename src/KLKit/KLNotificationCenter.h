#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

class KLToolTask;

/** Tells observers by name that something happened to a task.
 *
 *  Observers are called on the posting thread, in the order in which they registered.
 */
class KLNotificationCenter {
public:
    using Observer = std::function<void(const std::shared_ptr<KLToolTask>& object)>;

    [[nodiscard]] static KLNotificationCenter& defaultCenter();

    void addObserver(const std::string& name, Observer observer);
    void removeAllObservers();
    void post(const std::string& name, const std::shared_ptr<KLToolTask>& object);

private:
    std::mutex _lock;
    std::vector<std::pair<std::string, Observer>> _observers;  // guarded by _lock
};
