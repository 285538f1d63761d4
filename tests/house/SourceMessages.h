#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "house/SourceTree.h"

/** One place that fails with a message. */
struct MessageUse {
    std::string path;
    std::string text;          // the English format; empty where it could not be found out
    std::string expression;    // what stands in the place of the format
    size_t argumentCount = 0;  // values that are filled in

    bool operator==(const MessageUse&) const = default;
};

/** Every message in @p tree that is looked up in the strings file: the formats that
 *  VZDefragFail is given, directly, by a constant, or through functions that pass one on. */
[[nodiscard]] std::vector<MessageUse> localizedMessagesIn(const SourceTree& tree);

/** The messages that are deliberately not looked up. */
[[nodiscard]] std::vector<MessageUse> untranslatedMessagesIn(const SourceTree& tree);

/** What is wrong with the messages in @p tree, one sentence each: */
[[nodiscard]] std::vector<std::string> messagesThatBypassTheStringsFile(const SourceTree& tree);
[[nodiscard]] std::vector<std::string> messagesOfUnknownText(const SourceTree& tree);
[[nodiscard]] std::vector<std::string> messagesWhosePlaceholdersDoNotFit(const SourceTree& tree);
