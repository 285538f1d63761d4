#include "KLKit/KLToolEvent.h"

#include "KLKit/KLToolApplication.h"

std::string KLToolEvent::string() const
{
    const auto* const text = std::get_if<std::string>(&_data);
    return text != nullptr ? *text : std::string();
}

std::vector<std::string> KLToolEvent::arguments() const
{
    const auto* const words = std::get_if<std::vector<std::string>>(&_data);
    return words != nullptr ? *words : std::vector<std::string>();
}

void KLToolEvent::complete()
{
    KLToolApplication* const application = KLToolApplication::sharedToolApplication();
    if (application != nullptr) {
        application->completeEvent(shared_from_this());
    }
}
