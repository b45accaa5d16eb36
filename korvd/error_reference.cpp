#include "korvd/error_reference.h"

#include "include/error_table.h"

std::string ErrorReferencePage() {
    std::string page =
        "# Error codes\n\n"
        "Printed by `korvd --print-errors` from `include/error_table.h`. An API answers the codes of its own "
        "table\n"
        "and those of every API; where both have a row for a code, the API's own counts.\n";
    const char* api = nullptr;
    for (const ErrorTableRow& row : kErrorTable) {
        if (api == nullptr || std::string_view(api) != row.api) {
            api = row.api;
            page += "\n## " + (*api == '\0' ? std::string("Every API") : '"' + std::string(api) + '"') +
                    "\n\n| code | meaning | what to do |\n|---|---|---|\n";
        }
        page += "| " + std::to_string(row.code) + " | " + row.meaning + " | " + row.remedy + " |\n";
    }
    return page;
}
