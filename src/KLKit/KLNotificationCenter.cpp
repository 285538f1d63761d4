#include "KLKit/KLNotificationCenter.h"

KLNotificationCenter& KLNotificationCenter::defaultCenter()
{
    // Never destroyed: a task's thread may still be posting while the process exits.
    static KLNotificationCenter& center = *std::make_unique<KLNotificationCenter>().release();
    return center;
}

void KLNotificationCenter::addObserver(const std::string& name, Observer observer)
{
    const std::lock_guard guard(_lock);
    _observers.emplace_back(name, std::move(observer));
}

void KLNotificationCenter::removeAllObservers()
{
    const std::lock_guard guard(_lock);
    _observers.clear();
}

void KLNotificationCenter::post(const std::string& name, const std::shared_ptr<KLToolTask>& object)
{
    // Called without the lock, so that an observer may post or register in turn.
    std::vector<Observer> observers;
    {
        const std::lock_guard guard(_lock);
        for (const auto& [observedName, observer] : _observers) {
            if (observedName == name) {
                observers.push_back(observer);
            }
        }
    }
    for (const Observer& observer : observers) {
        observer(object);
    }
}
