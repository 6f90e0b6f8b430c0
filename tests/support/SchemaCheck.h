// Holds JSON values against the schemas of an OpenAPI document: as much of JSON Schema as that document uses.
#pragma once

#include <algorithm>
#include <map>
#include <regex>
#include <string>
#include <string_view>

#include "VL_PList.h"

namespace Testing {

using Velmora::PListArray;
using Velmora::PListData;
using Velmora::PListDict;
using Velmora::PListItem;

class SchemaCheck {
  public:
    /// The document must outlive the object.
    explicit SchemaCheck(const PListDict& document) : m_Document(document) {}

    /// What is wrong with the value, and where; empty where nothing is. A member that the schema does not
    /// name is wrong unless the schema lets any in.
    std::string Fault(const PListItem& schema_item, const PListItem& value,
                      const std::string& at = "") const {
        const PListDict& schema = dynamic_cast<const PListDict&>(schema_item);
        std::string fault;
        for (const auto& [keyword, operand] : schema) {
            fault = Apply(std::string(keyword), operand, schema, value, at);
            if (!fault.empty()) break;
        }
        return fault;
    }

  private:
    static const PListDict* Dict(const PListItem& item) { return dynamic_cast<const PListDict*>(&item); }
    static std::string Text(const PListItem& item) {
        const auto* data = dynamic_cast<const PListData*>(&item);
        return data == nullptr ? "" : data->Text();
    }
    static long long Number(const PListItem& item) { return std::stoll(Text(item)); }
    static bool IsText(const PListItem& item) { return item.HasType(Velmora::IT_STRING); }
    static bool IsWhole(const PListItem& item) {
        return item.HasType(Velmora::IT_INT) || item.HasType(Velmora::IT_INT64);
    }
    static bool HasType(const std::string& type, const PListItem& value) {
        if (type == "object") return Dict(value) != nullptr;
        if (type == "array") return dynamic_cast<const PListArray*>(&value) != nullptr;
        if (type == "string") return IsText(value);
        if (type == "integer") return IsWhole(value);
        return type == "boolean" && (value.HasType(Velmora::IT_TRUE) || value.HasType(Velmora::IT_FALSE));
    }
    static bool HasFormat(const std::string& format, const std::string& text) {
        static const std::map<std::string, std::regex> formats = {
            {"uuid", std::regex("[0-9a-fA-F]{8}(-[0-9a-fA-F]{4}){3}-[0-9a-fA-F]{12}")},
            {"date-time", std::regex("\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d([+-]\\d\\d:\\d\\d|Z)")}};
        return std::regex_match(text, formats.at(format));
    }

    std::string Apply(const std::string& keyword, const PListItem& operand, const PListDict& schema,
                      const PListItem& value, const std::string& at) const {
        const auto unless = [&](bool good) { return good ? "" : at + " is not as \"" + keyword + "\" says"; };
        if (keyword == "$ref") return Fault(Referred(Text(operand)), value, at);
        if (keyword == "type") return unless(HasType(Text(operand), value));
        if (keyword == "const") return unless(operand == value);
        if (keyword == "enum") return unless(Names(operand, value));
        if (keyword == "minimum") return unless(!IsWhole(value) || Number(value) >= Number(operand));
        if (keyword == "maximum") return unless(!IsWhole(value) || Number(value) <= Number(operand));
        if (keyword == "minLength")
            return unless(!IsText(value) || Text(value).size() >= std::size_t(Number(operand)));
        if (keyword == "maxLength")
            return unless(!IsText(value) || Text(value).size() <= std::size_t(Number(operand)));
        if (keyword == "pattern")
            return unless(!IsText(value) || std::regex_search(Text(value), std::regex(Text(operand))));
        if (keyword == "format") return unless(HasFormat(Text(operand), Text(value)));
        if (keyword == "required") return Required(operand, value, at);
        if (keyword == "properties") return Properties(operand, schema, value, at);
        if (keyword == "items") return Items(operand, value, at);
        if (keyword == "anyOf" || keyword == "oneOf") return unless(FitsOne(operand, value));
        return unless(keyword == "description" || keyword == "additionalProperties");
    }

    const PListDict& Referred(const std::string& reference) const {
        return m_Document.GetDict("components")
            .GetDict("schemas")
            .GetDict(reference.substr(reference.rfind('/') + 1));
    }
    static bool Names(const PListItem& list, const PListItem& value) {
        const auto& array = dynamic_cast<const PListArray&>(list);
        return std::any_of(array.begin(), array.end(), [&](const PListItem& item) { return item == value; });
    }
    bool FitsOne(const PListItem& schemas, const PListItem& value) const {
        const auto& array = dynamic_cast<const PListArray&>(schemas);
        return std::any_of(array.begin(), array.end(),
                           [&](const PListItem& item) { return Fault(item, value).empty(); });
    }
    static std::string Required(const PListItem& names, const PListItem& value, const std::string& at) {
        for (const PListItem& name : dynamic_cast<const PListArray&>(names)) {
            if (Dict(value) != nullptr && !Dict(value)->HasItem(Text(name)))
                return at + "/" + Text(name) + " is missing";
        }
        return "";
    }
    std::string Properties(const PListItem& properties, const PListDict& schema, const PListItem& value,
                           const std::string& at) const {
        if (Dict(value) == nullptr) return "";
        for (const auto& [name, item] : *Dict(value)) {
            const PListItem* member = Dict(properties)->GetItem(std::string(name));
            const std::string place = at + "/" + std::string(name);
            if (member == nullptr && schema.GetItem("additionalProperties") == nullptr)
                return place + " is not described";
            if (member == nullptr) return place + " may not be there";
            const std::string fault = Fault(*member, item, place);
            if (!fault.empty()) return fault;
        }
        return "";
    }
    std::string Items(const PListItem& schema, const PListItem& value, const std::string& at) const {
        const auto* array = dynamic_cast<const PListArray*>(&value);
        if (array == nullptr) return "";
        std::size_t index = 0;
        for (const PListItem& item : *array) {
            const std::string fault = Fault(schema, item, at + "/" + std::to_string(index++));
            if (!fault.empty()) return fault;
        }
        return "";
    }

    const PListDict& m_Document;
};

}  // namespace Testing
