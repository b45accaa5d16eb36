#include "cli/whole_number.h"

#include <functional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <gtest/gtest.h>

#include "cli/command.h"

namespace {

// What the option makes of the text, or what it says against it.
std::string TakenFrom(const CLI::Validator& validator, const std::string& text) {
    CLI::App app;
    int number = -1;
    app.add_option("number", number)->transform(validator);
    try {
        app.parse(std::vector<std::string>{text});
    } catch (const CLI::ParseError& error) {
        return error.what();
    }
    return std::to_string(number);
}

// Calls `take` for every option of `app` and of its subcommands that holds a whole number.
void ForEachNumber(CLI::App& app, const std::function<void(CLI::Option&)>& take) {
    for (CLI::Option* const option : app.get_options()) {
        if (option->get_type_name().find("INT") != std::string::npos) {
            take(*option);
        }
    }
    for (CLI::App* const subcommand : app.get_subcommands({})) {
        ForEachNumber(*subcommand, take);
    }
}

TEST(WholeNumber, IsDecimalAlsoWithLeadingZeros) {
    EXPECT_EQ(TakenFrom(cli::Id(), "010"), "10");
    EXPECT_EQ(TakenFrom(cli::Id(), "08"), "8");
    EXPECT_EQ(TakenFrom(cli::Id(), "0"), "0");
    EXPECT_EQ(TakenFrom(cli::Id(), "2147483647"), "2147483647");
}

TEST(WholeNumber, AnythingElseIsRefusedWithTheRange) {
    for (const char* text : {"abc", "0x1", "1.5", "+1", "1 ", "", "2147483648", "99999999999999999999"}) {
        EXPECT_EQ(TakenFrom(cli::Id(), text),
                  "number: '" + std::string(text) + "' is no whole number from 0 to 2147483647");
    }
    EXPECT_EQ(TakenFrom(cli::WholeNumber(1, 9), "0"), "number: '0' is no whole number from 1 to 9");
    EXPECT_EQ(TakenFrom(cli::WholeNumber(1, 9), "10"), "number: '10' is no whole number from 1 to 9");
}

TEST(WholeNumber, EveryNumberOfTheCommandLineIsOne) {
    CLI::App app;
    cli::Context context;
    for (const auto add :
         {cli::AddSessionCommands, cli::AddShareCommands, cli::AddCandidatesCommand, cli::AddJobCommands,
          cli::AddArchiveCommands, cli::AddCameraCommands, cli::AddEventCommands, cli::AddLogCommands,
          cli::AddMountCommands, cli::AddServerCommands, cli::AddServiceCommands, cli::AddSnapshotCommands}) {
        add(app, context);
    }
    int numbers = 0;
    ForEachNumber(app, [&numbers](CLI::Option& option) {
        ++numbers;
        for (const char* text : {"abc", "0x1", "-1"}) {
            option.clear();
            option.add_result(text);
            try {
                option.run_callback();
                ADD_FAILURE() << option.get_name(true) << " takes " << text;
            } catch (const CLI::ParseError& error) {
                EXPECT_NE(std::string(error.what()).find("is no whole number from"), std::string::npos)
                    << option.get_name(true) << ": " << error.what();
            }
        }
    });
    EXPECT_GT(numbers, 20);
}

}  // namespace
