#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "KLKit/KLFormat.h"

/** Why an operation failed: a text for people and whether the user asked for it. */
class VZDefragError {
public:
    [[nodiscard]] static std::unique_ptr<VZDefragError> errorWithDescription(
        std::string description);
    template <typename... Arguments>
    [[nodiscard]] static std::unique_ptr<VZDefragError> errorWithFormat(
        std::string_view format, const Arguments&... arguments)
    {
        return errorWithDescription(KLFormatString(format, arguments...));
    }
    /** "User cancelled.", with the flag set. */
    [[nodiscard]] static std::unique_ptr<VZDefragError> errorUserCancelled();

    [[nodiscard]] const std::string& description() const { return _description; }
    [[nodiscard]] bool isUserCancelled() const { return _userCancelled; }

private:
    VZDefragError(std::string description, bool userCancelled);

    bool _userCancelled;
    std::string _description;
};

/** Where a failing operation says why: written only on failure and by the first failure only. */
using VZDefragErrorSlot = std::unique_ptr<VZDefragError>*;

/** Whether @p error still has room for a reason. */
[[nodiscard]] inline bool VZDefragWantsError(VZDefragErrorSlot error)
{
    return error != nullptr && *error == nullptr;
}

/** The translation of an English message, from the services that the application bound. */
[[nodiscard]] std::string VZDefragLocalizedString(std::string_view key);

/** Fails with the translated @p format; always false, so that it can be returned. */
template <typename... Arguments>
bool VZDefragFail(VZDefragErrorSlot error, std::string_view format, const Arguments&... arguments)
{
    if (VZDefragWantsError(error)) {
        *error = VZDefragError::errorWithFormat(VZDefragLocalizedString(format), arguments...);
    }
    return false;
}

/** Fails with "User cancelled."; always false. */
bool VZDefragFailCancelled(VZDefragErrorSlot error);

/** Fails with "Internal error: <source>:<line>", the source relative to the source root; always
 *  false. The line is a named constant where users can see it. */
bool VZDefragFailInternal(VZDefragErrorSlot error, std::string_view source, unsigned line);
