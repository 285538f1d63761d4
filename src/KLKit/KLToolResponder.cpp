#include "KLKit/KLToolResponder.h"

#include "KLKit/KLToolEvent.h"

void KLToolResponder::argumentsEvent(const std::shared_ptr<KLToolEvent>& event)
{
    event->complete();
}

void KLToolResponder::characterEvent(const std::shared_ptr<KLToolEvent>& event)
{
    event->complete();
}

void KLToolResponder::stringEvent(const std::shared_ptr<KLToolEvent>& event)
{
    event->complete();
}
