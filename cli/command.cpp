#include "cli/command.h"

#include <cstdio>
#include <iostream>

#include "cli/printable.h"
#include "include/error_table.h"

namespace cli {

Client Context::MakeClient() const { return {url, certificateFile, SessionFile::OfThisUser()}; }

void PrintJson(const Json::Value& data) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    std::cout << Json::writeString(builder, data) << '\n';
}

void PrintTable(const Table& table) { std::cout << table.Render(); }

void PrintLine(const std::string& text) { std::cout << MakePrintable(text).text << '\n'; }

std::string Cell(const Json::Value& row, const char* key) {
    const Json::Value& value = row[key];
    return value.isConvertibleTo(Json::stringValue) ? value.asString() : "";
}

std::string DescribeRefusal(const Refused& refused) {
    const ErrorTableRow* const row = FindError(refused.api, refused.code);
    std::string text = "error " + std::to_string(refused.code);
    text += row != nullptr ? std::string(": ") + row->meaning : " of unknown meaning";
    for (const char* key : {"param1", "param2"}) {
        if (refused.details.isObject() && !Cell(refused.details, key).empty()) {
            text += std::string("\n  ") + key + ": " + MakePrintable(Cell(refused.details, key)).text;
        }
    }
    if (row != nullptr) {
        text += std::string("\n  ") + row->remedy;
    }
    return text;
}

}  // namespace cli
