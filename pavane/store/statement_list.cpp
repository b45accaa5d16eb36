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

bool IsBlank(char byte) { return std::isspace(static_cast<unsigned char>(byte)) != 0; }

bool IsOfAWord(char byte) { return std::isalnum(static_cast<unsigned char>(byte)) != 0 || byte == '_'; }

bool IsWord(std::string_view text, std::string_view lowerCase) {
    return std::equal(text.begin(), text.end(), lowerCase.begin(), lowerCase.end(),
                      [](unsigned char byte, char expected) { return std::tolower(byte) == expected; });
}

bool EndsWithLike(std::string_view text) {
    const auto end = std::find_if_not(text.rbegin(), text.rend(), IsBlank);
    const auto begin = std::find_if_not(end, text.rend(), IsOfAWord);
    return IsWord(
        text.substr(static_cast<std::size_t>(text.rend() - begin), static_cast<std::size_t>(begin - end)),
        "like");
}

bool BeginsWithEscape(std::string_view text) {
    const auto* const begin = std::find_if_not(text.begin(), text.end(), IsBlank);
    const auto* const end = std::find_if_not(begin, text.end(), IsOfAWord);
    return IsWord(
        text.substr(static_cast<std::size_t>(begin - text.begin()), static_cast<std::size_t>(end - begin)),
        "escape");
}

// Just behind the quoted text that begins at `from`, doubled quotes in it included.
std::size_t BehindQuoted(std::string_view text, std::size_t from) {
    const std::string_view quote = text.substr(from, 1);
    std::size_t at = from;
    do {
        at = Behind(text, quote, at + 1);
    } while (text.substr(at, 1) == quote);
    return at;
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

std::string WithPlainBackslashes(std::string_view statement) {
    std::string result;
    std::size_t at = 0;
    while (at < statement.size()) {
        const std::size_t quote = std::min(statement.find_first_of("'\"", at), statement.size());
        const std::size_t end = quote == statement.size() ? quote : BehindQuoted(statement, quote);
        const std::string_view quoted = statement.substr(quote, end - quote);
        result += statement.substr(at, end - at);
        if (quoted.find('\\') != std::string_view::npos && EndsWithLike(statement.substr(at, quote - at)) &&
            !BeginsWithEscape(statement.substr(end))) {
            result += " escape ''";
        }
        at = end;
    }
    return result;
}

}  // namespace pavane
