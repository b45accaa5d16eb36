#include "cli/csv.h"

#include <cstddef>
#include <utility>

#include "cli/input_error.h"

namespace cli {

namespace {

class Parser {
public:
    explicit Parser(std::string_view text) : m_text(text) {}

    std::vector<CsvRow> Rows() {
        std::vector<CsvRow> rows;
        while (!AtEnd()) {
            CsvRow row = Row();
            const bool isEmptyLine = row.fields.size() == 1 && row.fields[0].empty();
            if (!isEmptyLine) {
                rows.push_back(std::move(row));
            }
        }
        return rows;
    }

private:
    [[nodiscard]] bool AtEnd() const { return m_position >= m_text.size(); }
    [[nodiscard]] char Here() const { return m_text[m_position]; }
    [[nodiscard]] bool AtLineEnd() const {
        return AtEnd() || Here() == '\n' || m_text.substr(m_position, 2) == "\r\n";
    }

    CsvRow Row() {
        CsvRow row;
        row.line = m_line;
        row.fields.push_back(Field());
        while (!AtEnd() && Here() == ',') {
            ++m_position;
            row.fields.push_back(Field());
        }
        if (!AtEnd()) {
            m_position += Here() == '\r' ? 2 : 1;
            ++m_line;
        }
        return row;
    }

    std::string Field() { return !AtEnd() && Here() == '"' ? Quoted() : Plain(); }

    std::string Plain() {
        std::string field;
        while (!AtLineEnd() && Here() != ',') {
            if (Here() == '"') {
                throw InputError("line " + std::to_string(m_line) +
                                 ": a quote inside a field that does not begin with one");
            }
            field += Here();
            ++m_position;
        }
        return field;
    }

    std::string Quoted() {
        const int begin = m_line;
        std::string field;
        ++m_position;
        while (!AtEnd()) {
            const char c = Here();
            ++m_position;
            if (c == '"') {
                if (AtEnd() || Here() != '"') {
                    return Closed(std::move(field));
                }
                ++m_position;
            }
            m_line += c == '\n' ? 1 : 0;
            field += c;
        }
        throw InputError("line " + std::to_string(begin) + ": a quote is not closed");
    }

    std::string Closed(std::string field) const {
        if (!AtLineEnd() && Here() != ',') {
            throw InputError("line " + std::to_string(m_line) + ": text after a closing quote");
        }
        return field;
    }

    std::string_view m_text;
    std::size_t m_position = 0;
    int m_line = 1;
};

}  // namespace

std::vector<CsvRow> ParseCsv(std::string_view text) { return Parser(text).Rows(); }

}  // namespace cli
