#pragma once

#include <string_view>

// What is in page/report.html, report.css and report.js; page/embed.cmake writes the source.
extern const std::string_view kControlPageHTML;
extern const std::string_view kControlPageCSS;
extern const std::string_view kControlPageJS;
