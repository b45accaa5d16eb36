// The one table of error codes, and the page printed from it.
#include <fstream>
#include <set>
#include <sstream>
#include <tuple>

#include <gtest/gtest.h>

#include "include/error_table.h"
#include "korvd/error_reference.h"

namespace {

TEST(ErrorTable, EveryCodeOfAnApiStandsOnceAndInOrder) {
    std::pair<std::string, int> before{"", 0};
    for (const ErrorTableRow& row : kErrorTable) {
        const std::pair<std::string, int> key{row.api, row.code};
        EXPECT_LT(before, key) << row.api << " " << row.code;
        before = key;
    }
}

TEST(ErrorTable, EveryRowSaysWhatItMeansAndWhatToDo) {
    for (const ErrorTableRow& row : kErrorTable) {
        EXPECT_GT(row.code, 0);
        for (const std::string text : {row.meaning, row.remedy}) {
            ASSERT_FALSE(text.empty()) << row.code;
            EXPECT_EQ(text.back(), '.') << row.code;
            EXPECT_EQ(text.find_first_of("|\n"), std::string::npos) << row.code;
        }
    }
}

TEST(ErrorTable, AnApisOwnRowComesBeforeThatOfEveryApi) {
    const ErrorTableRow* const own = FindError("KORV.Core.Session", 400);
    ASSERT_NE(own, nullptr);
    EXPECT_STREQ(own->api, "KORV.Core.Session");
    const ErrorTableRow* const common = FindError("KORV.Core.Session", 107);
    ASSERT_NE(common, nullptr);
    EXPECT_STREQ(common->api, "");
    EXPECT_EQ(FindError("KORV.Core.Session", 3301), nullptr);
    EXPECT_EQ(FindError("", 1), nullptr);
}

// The module hands a service's code on as its own: unlocking by a key file, mounting lost folders again.
TEST(ErrorTable, AServicesCodesThatArePassedOnStandThereToo) {
    int passedOn = 0;
    for (const ErrorTableRow& row : kErrorTable) {
        const std::string api = row.api;
        if (api == "KORV.Core.Share.Crypto" || api == "KORV.Tarsel.Mount.List") {
            const ErrorTableRow* const shown = FindError("KORV.Pavane.Share", row.code);
            ASSERT_NE(shown, nullptr) << api << " " << row.code;
            EXPECT_STREQ(shown->api, "KORV.Pavane.Share") << row.code;
            ++passedOn;
        }
    }
    EXPECT_GT(passedOn, 7);
}

TEST(ErrorTable, TheReferencePageIsPrintedFromIt) {
    std::ostringstream page;
    page << std::ifstream(ERROR_PAGE).rdbuf();
    EXPECT_EQ(page.str(), ErrorReferencePage()) << "run: korvd --print-errors > docs/ref/errors.md";
}

}  // namespace
