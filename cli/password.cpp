#include "cli/password.h"

#include <string.h>

#include <array>
#include <fstream>
#include <iostream>
#include <istream>

#include <CLI/CLI.hpp>
#include <bsd/readpassphrase.h>

#include "cli/input_error.h"

namespace cli {

namespace {

constexpr std::size_t kLongestPassword = 1024;  // one less is accepted, so that a cut one is noticed

std::string FirstLine(std::istream& stream, const std::string& what) {
    std::string line;
    if (!std::getline(stream, line) && line.empty()) {
        throw InputError("no password in " + what);
    }
    if (!line.empty() && line.back() == '\r') {
        line.pop_back();
    }
    if (line.empty()) {
        throw InputError("the password in " + what + " is empty");
    }
    return line;
}

// readpassphrase() gives the terminal its echo back also when a signal ends or stops the program.
std::string AskAtTerminal(const std::string& prompt) {
    std::array<char, kLongestPassword + 1> answer{};
    if (readpassphrase(prompt.c_str(), answer.data(), answer.size(), RPP_REQUIRE_TTY) == nullptr) {
        throw InputError("no terminal to ask for the password; use --password-file or --password-stdin");
    }
    std::string password = answer.data();
    explicit_bzero(answer.data(), answer.size());
    if (password.size() == kLongestPassword) {
        throw InputError("the password is longer than " + std::to_string(kLongestPassword - 1) + " bytes");
    }
    if (password.empty()) {
        throw InputError("the password is empty");
    }
    return password;
}

}  // namespace

void PasswordSource::AddOptions(CLI::App& command) {
    CLI::Option* const fileOption =
        command.add_option("--password-file", file, "Read the password from the first line of a file");
    command.add_flag("--password-stdin", fromStdin, "Read the password from standard input")
        ->excludes(fileOption);
}

std::string PasswordSource::Read(const std::string& prompt) const {
    if (!file.empty()) {
        std::ifstream stream(file);
        if (!stream) {
            throw InputError("cannot read the password file " + file);
        }
        return FirstLine(stream, file);
    }
    if (fromStdin) {
        return FirstLine(std::cin, "standard input");
    }
    return AskAtTerminal(prompt);
}

}  // namespace cli
