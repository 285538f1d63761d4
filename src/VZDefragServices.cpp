#include "VZDefragServices.h"

#include <atomic>
#include <chrono>
#include <utility>

#include "KLKit/KLToolApplication.h"

namespace {

std::atomic<VZDefragServices*> boundServices = nullptr;

}  // namespace

double VZDefragServices::timeIntervalSinceReferenceDate() const
{
    // The steady clock, so that setting the time of day neither stops progress nor floods it.
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void VZDefragServices::performOnMainThread(std::function<void()> work)
{
    KLToolApplication* const application = KLToolApplication::sharedToolApplication();
    if (application != nullptr) {
        application->performOnMainThread(std::move(work));
    } else {
        work();
    }
}

VZDefragServices& VZDefragServices::sharedServices()
{
    // Never destroyed: a detached task thread may still ask while the process exits.
    static VZDefragServices* const defaultServices = new VZDefragServices;
    VZDefragServices* const services = boundServices.load();
    return services != nullptr ? *services : *defaultServices;
}

void VZDefragServices::setSharedServices(VZDefragServices* services)
{
    boundServices.store(services);
}
