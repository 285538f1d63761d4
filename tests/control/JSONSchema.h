#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

/** What of @p document is not as @p schema says, each with its place; empty when all is.
 *
 *  Knows type, const, enum, required, properties, additionalProperties, items, minItems, maxItems,
 *  minimum, maximum and maxLength; any other word that rules something is reported as well.
 */
[[nodiscard]] std::vector<std::string> faultsBySchema(const nlohmann::json& document,
                                                      const nlohmann::json& schema,
                                                      const std::string& place = "document");
