#include "cli/password.h"

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "cli/input_error.h"

namespace {

class PasswordFileTest : public testing::Test {
protected:
    PasswordFileTest() {
        std::string folder = testing::TempDir() + "cli-password-XXXXXX";
        m_folder = mkdtemp(folder.data()) != nullptr ? folder : throw std::runtime_error("no folder");
    }
    ~PasswordFileTest() override { std::filesystem::remove_all(m_folder); }

    [[nodiscard]] std::string ReadFrom(const std::string& content) const {
        cli::PasswordSource source;
        source.file = m_folder + "/password";
        std::ofstream(source.file) << content;
        return source.Read("");
    }

    std::string m_folder;
};

TEST_F(PasswordFileTest, TheFirstLineIsThePasswordWithoutItsLineEnd) {
    EXPECT_EQ(ReadFrom("s3cret\nrest"), "s3cret");
    EXPECT_EQ(ReadFrom("s3cret\r\n"), "s3cret");
    EXPECT_EQ(ReadFrom(" blanks stay "), " blanks stay ");
}

TEST_F(PasswordFileTest, AnEmptyOrMissingFileIsAnInputError) {
    EXPECT_THROW(static_cast<void>(ReadFrom("")), cli::InputError);
    EXPECT_THROW(static_cast<void>(ReadFrom("\nsecond")), cli::InputError);
    cli::PasswordSource source;
    source.file = m_folder + "/none";
    EXPECT_THROW(static_cast<void>(source.Read("")), cli::InputError);
}

}  // namespace
