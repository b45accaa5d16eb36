#include "pavane/store/statement_list.h"

#include <algorithm>
#include <cctype>

namespace pavane {

namespace {

// Just behind `end`, searched from `from`; the text's end when it is missing.
std::size_t Behind(std::string_view text, std::string_view end, std::size_t from) {
    const std::size_t found = text.find(end, from);
    return found == std::string_view::npos ? text.size() : found + end.size();
}

void AddUnlessBlank(std::vector<std::string>& statements, std::string& statement) {
    const bool blank = std::all_of(statement.begin(), statement.end(),
                                   [](unsigned char byte) { return std::isspace(byte) != 0; });
    if (!blank) {
        statements.push_back(statement);
    }
    statement.clear();
}

}  // namespace

std::vector<std::string> SplitStatements(std::string_view text) {
    std::vector<std::string> statements;
    std::string statement;
    std::size_t at = 0;
    while (at < text.size()) {
        const char byte = text[at];
        if (text.substr(at, 2) == "--") {
            at = Behind(text, "\n", at);
            statement += '\n';
        } else if (text.substr(at, 2) == "/*") {
            at = Behind(text, "*/", at + 2);
            statement += ' ';
        } else if (byte == '\'' || byte == '"') {
            // A doubled quote ends one quoted stretch and begins the next, which comes to the same.
            const std::size_t end = Behind(text, text.substr(at, 1), at + 1);
            statement += text.substr(at, end - at);
            at = end;
        } else if (byte == ';') {
            AddUnlessBlank(statements, statement);
            ++at;
        } else {
            statement += byte;
            ++at;
        }
    }
    AddUnlessBlank(statements, statement);
    return statements;
}

}  // namespace pavane
