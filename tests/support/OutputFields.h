#pragma once

#include <string>
#include <vector>

/** The fields of a line, still escaped. */
[[nodiscard]] inline std::vector<std::string> fieldsOf(const std::string& line)
{
    std::vector<std::string> fields(1);
    for (size_t index = 0; index < line.size(); ++index) {
        if (line[index] == ',') {
            fields.emplace_back();
            continue;
        }
        fields.back() += line[index];
        if (line[index] == '\\' && index + 1 < line.size()) {
            fields.back() += line[++index];
        }
    }
    return fields;
}
