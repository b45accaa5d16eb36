#include "cli/password.h"

#include <termios.h>
#include <unistd.h>

#include <fstream>
#include <iostream>
#include <istream>

#include <CLI/CLI.hpp>

#include "cli/input_error.h"

namespace cli {

namespace {

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

// The terminal without echo, for as long as the object lives.
class SilentTerminal {
public:
    SilentTerminal() : m_isSilent(tcgetattr(STDIN_FILENO, &m_before) == 0) {
        if (m_isSilent) {
            termios silent = m_before;
            silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
            m_isSilent = tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent) == 0;
        }
        if (!m_isSilent) {
            throw InputError("the terminal's echo cannot be switched off");
        }
    }
    ~SilentTerminal() { tcsetattr(STDIN_FILENO, TCSAFLUSH, &m_before); }
    SilentTerminal(const SilentTerminal&) = delete;
    SilentTerminal& operator=(const SilentTerminal&) = delete;

private:
    termios m_before{};
    bool m_isSilent = false;
};

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
    if (isatty(STDIN_FILENO) == 0) {
        throw InputError("no terminal to ask for the password; use --password-file or --password-stdin");
    }
    std::cerr << prompt << std::flush;
    const SilentTerminal silent;
    std::string line = FirstLine(std::cin, "the answer");
    std::cerr << '\n';
    return line;
}

}  // namespace cli
