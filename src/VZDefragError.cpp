#include "VZDefragError.h"

#include <utility>

#include "VZDefragServices.h"

VZDefragError::VZDefragError(std::string description, bool userCancelled)
    : _userCancelled(userCancelled), _description(std::move(description))
{
}

std::unique_ptr<VZDefragError> VZDefragError::errorWithDescription(std::string description)
{
    return std::unique_ptr<VZDefragError>(new VZDefragError(std::move(description), false));
}

std::unique_ptr<VZDefragError> VZDefragError::errorUserCancelled()
{
    // Never translated: nobody reads it, the flag alone keeps the error line from being printed.
    return std::unique_ptr<VZDefragError>(new VZDefragError("User cancelled.", true));
}

std::string VZDefragLocalizedString(std::string_view key)
{
    return VZDefragServices::sharedServices().localizedStringForKey(key);
}

bool VZDefragFailCancelled(VZDefragErrorSlot error)
{
    if (VZDefragWantsError(error)) {
        *error = VZDefragError::errorUserCancelled();
    }
    return false;
}

bool VZDefragFailInternal(VZDefragErrorSlot error, std::string_view source, unsigned line)
{
    return VZDefragFail(error, "Internal error: %1$s:%2$u", source, line);
}
