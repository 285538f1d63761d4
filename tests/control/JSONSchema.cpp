#include "control/JSONSchema.h"

#include <set>

namespace {

using Document = nlohmann::json;
using Faults = std::vector<std::string>;

bool isOfType(const Document& document, const std::string& type)
{
    return (type == "object" && document.is_object()) || (type == "array" && document.is_array()) ||
           (type == "string" && document.is_string()) ||
           (type == "boolean" && document.is_boolean()) ||
           (type == "integer" && document.is_number_integer()) ||
           (type == "null" && document.is_null());
}

bool isOfTypes(const Document& document, const Document& types)
{
    if (types.is_string()) {
        return isOfType(document, types.get<std::string>());
    }
    for (const Document& type : types) {
        if (isOfType(document, type.get<std::string>())) {
            return true;
        }
    }
    return false;
}

bool isInBounds(const Document& document, const Document& schema)
{
    if (document.is_number() && ((schema.contains("minimum") && document < schema["minimum"]) ||
                                 (schema.contains("maximum") && document > schema["maximum"]))) {
        return false;
    }
    if (document.is_array() && (document.size() < schema.value("minItems", size_t{0}) ||
                                document.size() > schema.value("maxItems", document.size()))) {
        return false;
    }
    return !document.is_string() ||
           document.get<std::string>().size() <= schema.value("maxLength", SIZE_MAX);
}

void add(Faults& faults, const Faults& more)
{
    faults.insert(faults.end(), more.begin(), more.end());
}

Faults faultsOfMembers(const Document& document, const Document& schema, const std::string& place)
{
    Faults faults;
    for (const Document& name : schema.value("required", Document::array())) {
        if (!document.contains(name.get<std::string>())) {
            faults.push_back(place + " has no " + name.get<std::string>());
        }
    }
    const Document& properties = schema.value("properties", Document::object());
    for (const auto& [name, value] : document.items()) {
        if (properties.contains(name)) {
            add(faults, faultsBySchema(value, properties[name], place + '.' + name));
        } else if (!schema.value("additionalProperties", true)) {
            faults.push_back(place + " has an unknown " + name);
        }
    }
    return faults;
}

}  // namespace

Faults faultsBySchema(const Document& document, const Document& schema, const std::string& place)
{
    static const std::set<std::string> kKnown = {
        "$schema",  "title",    "description", "type",    "const",
        "enum",     "required", "properties",  "items",   "additionalProperties",
        "minItems", "maxItems", "minimum",     "maximum", "maxLength"};
    Faults faults;
    for (const auto& [word, value] : schema.items()) {
        if (!kKnown.contains(word)) {
            faults.push_back(place + ": the schema says " + word + ", which is not checked");
        }
    }
    if (schema.contains("type") && !isOfTypes(document, schema["type"])) {
        faults.push_back(place + " is no " + schema["type"].dump());
    }
    if ((schema.contains("const") && document != schema["const"]) ||
        !isInBounds(document, schema)) {
        faults.push_back(place + " is out of bounds: " + document.dump());
    }
    const Document choices = schema.value("enum", Document::array({document}));
    if (std::find(choices.begin(), choices.end(), document) == choices.end()) {
        faults.push_back(place + " is none of " + choices.dump());
    }
    if (document.is_object()) {
        add(faults, faultsOfMembers(document, schema, place));
    }
    if (document.is_array() && schema.contains("items")) {
        for (size_t index = 0; index < document.size(); index++) {
            add(faults, faultsBySchema(document[index], schema["items"],
                                       place + '[' + std::to_string(index) + ']'));
        }
    }
    return faults;
}
