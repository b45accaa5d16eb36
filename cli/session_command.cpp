// `pavane login`, `logout` and `whoami`.

#include <memory>
#include <string>

#include <CLI/CLI.hpp>

#include "cli/command.h"
#include "cli/password.h"

namespace cli {

namespace {

void PrintAccount(const Json::Value& data) {
    PrintLine(Cell(data, "account") + (data["admin"].asBool() ? ", an administrator" : ""));
}

struct LoginOptions {
    std::string account;
    PasswordSource password;
};

void Login(const Context& context, const LoginOptions& options) {
    Client client = context.MakeClient();
    const Json::Value data =
        client.Login(options.account, options.password.Read("Password of " + options.account + ": "));
    if (context.json) {
        PrintJson(data);
    } else {
        PrintAccount(data);
    }
}

void Whoami(const Context& context) {
    const Json::Value data = context.MakeClient().Call("KORV.Core.Session", "whoami");
    if (context.json) {
        PrintJson(data);
    } else {
        PrintAccount(data);
    }
}

}  // namespace

void AddSessionCommands(CLI::App& app, Context& context) {
    const auto options = std::make_shared<LoginOptions>();
    CLI::App* const login = app.add_subcommand("login", "Log in and keep the session");
    login->add_option("account", options->account, "Account of the server")->required();
    options->password.AddOptions(*login);
    login->callback(
        [&context, options] { context.chosen = [&context, options] { Login(context, *options); }; });

    app.add_subcommand("logout", "End the session")->callback([&context] {
        context.chosen = [&context] { context.MakeClient().Logout(); };
    });
    app.add_subcommand("whoami", "Tell which account the session belongs to")->callback([&context] {
        context.chosen = [&context] { Whoami(context); };
    });
}

}  // namespace cli
