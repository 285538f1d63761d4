#pragma once

#include <memory>

class KLToolEvent;

/** Receives events. By default each is only completed. Main thread. */
class KLToolResponder {
public:
    KLToolResponder() = default;
    KLToolResponder(const KLToolResponder&) = delete;
    KLToolResponder& operator=(const KLToolResponder&) = delete;
    virtual ~KLToolResponder() = default;

    virtual void argumentsEvent(const std::shared_ptr<KLToolEvent>& event);
    virtual void characterEvent(const std::shared_ptr<KLToolEvent>& event);
    virtual void stringEvent(const std::shared_ptr<KLToolEvent>& event);
};
