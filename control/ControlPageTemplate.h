#pragma once

#include <map>
#include <string>

/** Texts for the places of the page's template, by the names of the places. */
using ControlPageTexts = std::map<std::string, std::string, std::less<>>;

/** The page of a report with @p texts in its places, its style and its script.
 *
 *  Texts are put in as they are, and are not looked through for places themselves. The page allows
 *  no other style and script than its own, which it knows by their hashes.
 */
[[nodiscard]] std::string filledReportPage(ControlPageTexts texts);
