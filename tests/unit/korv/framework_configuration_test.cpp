// Reading of the configuration: what is wrong is named, and nothing is guessed.
#include <stdexcept>

#include <gtest/gtest.h>

#include "korv/system/settings.h"
#include "korvd/nginx_config.h"

namespace {

constexpr const char* kLeast = "state_dir: /s\nrun_dir: /r\nlog_dir: /l\n";

korv::Settings Parse(const std::string& more) { return korv::ParseSettings(kLeast + more, "/modules"); }

TEST(Configuration, LeavesTheDefaultsWhereNothingIsSaid) {
    const korv::Settings settings = Parse("");
    EXPECT_EQ(settings.node.stateDir, "/s");
    EXPECT_EQ(settings.node.serviceUser, "Pavane");
    EXPECT_EQ(settings.node.database, "sqlite");
    EXPECT_TRUE(settings.node.volumes.empty());
    EXPECT_EQ(settings.listen, "127.0.0.1:5080");
    EXPECT_EQ(settings.workers.publicCount, 4);
    EXPECT_EQ(settings.session.idle_s, 1800);
    EXPECT_EQ(settings.node.peerAnswer_s, 38) << "more than an attempt to mount, less than a host is given";
}

TEST(Configuration, ReadsEveryKey) {
    const korv::Settings settings = Parse(
        "service_user: svc\nvolumes: [/volume1, /volume2]\ndatabase: dbname=x\nsamba_include: /i\n"
        "modules: [share.so, /opt/m.so]\nlisten: '[::]:80'\nconsole_dir: /c\n"
        "workers: {public: 7, peer: 3, recycle_after: 9}\n"
        "session: {idle_s: 5, login_failures: 6, login_window_s: 7, pam_service: other}\n"
        "tls: {certificate: /cert, key: /key}\n"
        "nginx: {binary: /n, modules_dir: /m, user: web, workers: 1, connections_per_address: 2,"
        " requests_per_second: 3, request_timeout_s: 4}\n"
        "affinity: {default: [0, 1], rotate: [1]}\n");
    EXPECT_EQ(settings.node.serviceUser, "svc");
    EXPECT_EQ(settings.node.volumes, (std::vector<std::string>{"/volume1", "/volume2"}));
    EXPECT_EQ(settings.node.database, "dbname=x");
    EXPECT_EQ(settings.node.sambaInclude, "/i");
    EXPECT_EQ(settings.node.modules, (std::vector<std::string>{"/modules/share.so", "/opt/m.so"}));
    EXPECT_EQ(settings.listen, "[::]:80");
    EXPECT_EQ(settings.consoleDir, "/c");
    EXPECT_EQ(settings.workers.publicCount, 7);
    EXPECT_EQ(settings.workers.peerCount, 3);
    EXPECT_EQ(settings.workers.recycleAfter, 9);
    EXPECT_EQ(settings.session.idle_s, 5);
    EXPECT_EQ(settings.session.loginFailures, 6);
    EXPECT_EQ(settings.session.loginWindow_s, 7);
    EXPECT_EQ(settings.session.pamService, "other");
    EXPECT_EQ(settings.tls.certificate, "/cert");
    EXPECT_EQ(settings.tls.key, "/key");
    EXPECT_EQ(settings.nginx.binary, "/n");
    EXPECT_EQ(settings.nginx.modulesDir, "/m");
    EXPECT_EQ(settings.nginx.user, "web");
    EXPECT_EQ(settings.nginx.workers, 1);
    EXPECT_EQ(settings.nginx.connectionsPerAddress, 2);
    EXPECT_EQ(settings.nginx.requestsPerSecond, 3);
    EXPECT_EQ(settings.nginx.requestTimeout_s, 4);
    EXPECT_EQ(settings.affinity.at("default"), (std::vector<int>{0, 1}));
    EXPECT_EQ(settings.affinity.at("rotate"), std::vector<int>{1});
}

struct BadFile {
    const char* name;
    const char* text;
    const char* named;  // what the error must name
};

class BadConfiguration : public testing::TestWithParam<BadFile> {};

TEST_P(BadConfiguration, IsRefusedByName) {
    try {
        Parse(GetParam().text);
        FAIL() << "accepted: " << GetParam().text;
    } catch (const std::runtime_error& error) {
        EXPECT_NE(std::string(error.what()).find(GetParam().named), std::string::npos) << error.what();
    }
}

INSTANTIATE_TEST_SUITE_P(
    Files, BadConfiguration,
    testing::Values(BadFile{"unknown_key", "colour: red", "'colour'"},
                    BadFile{"unknown_inner_key", "workers: {publik: 1}", "'workers.publik'"},
                    BadFile{"mapping_expected", "workers: 3", "'workers'"},
                    BadFile{"number_expected", "workers: {public: many}", "'workers.public'"},
                    BadFile{"fraction", "workers: {public: 1.5}", "'workers.public'"},
                    BadFile{"out_of_range", "workers: {public: 0}", "'workers.public'"},
                    BadFile{"list_expected", "volumes: /volume1", "'volumes'"},
                    BadFile{"relative_volume", "volumes: [volume1]", "'volumes'"},
                    BadFile{"text_expected", "database: [a]", "'database'"},
                    BadFile{"relative_path", "console_dir: web", "'console_dir'"},
                    BadFile{"path_for_nginx", "console_dir: '/a\";b'", "'console_dir'"},
                    BadFile{"variable_in_path", "console_dir: /a$uri", "'console_dir'"},
                    BadFile{"listen_without_port", "listen: 127.0.0.1", "'listen'"},
                    BadFile{"listen_port_too_large", "listen: 127.0.0.1:70000", "'listen'"},
                    BadFile{"listen_with_text", "listen: '1:80; x'", "'listen'"},
                    BadFile{"peer_listen_without_port", "peer: {listen: '*'}", "'peer.listen'"},
                    BadFile{"peer_patience", "peer: {answer_timeout_s: 0}", "'peer.answer_timeout_s'"},
                    BadFile{"peer_key", "peer: {key: /k}", "'peer.key'"},
                    BadFile{"half_of_tls", "tls: {key: /k}", "'tls'"},
                    BadFile{"account_name", "service_user: 'a b'", "'service_user'"},
                    BadFile{"nginx_account", "nginx: {user: 'a;b'}", "'nginx.user'"},
                    BadFile{"affinity_text", "affinity: {default: all}", "'affinity.default'"},
                    BadFile{"affinity_number", "affinity: {default: [-1]}", "'affinity.default'"},
                    BadFile{"no_yaml", "a: [", "YAML"}, BadFile{"no_mapping", "- a", "YAML"}),
    [](const auto& instance) { return std::string(instance.param.name); });

TEST(Configuration, TheThreeFoldersAreRequired) {
    EXPECT_THROW(korv::ParseSettings("state_dir: /s\nrun_dir: /r\n", ""), std::runtime_error);
    EXPECT_THROW(korv::ParseSettings("", ""), std::runtime_error);
}

TEST(NginxConfiguration, HoldsTheSettingsAndNoMarkThatWasLeft) {
    const std::string text =
        NginxConfiguration(Parse("console_dir: /c\ntls: {certificate: /cert, key: /key}"));
    EXPECT_NE(text.find("listen 127.0.0.1:5080 backlog=4096 ssl;"), std::string::npos);
    EXPECT_NE(text.find("ssl_certificate_key \"/key\";"), std::string::npos);
    EXPECT_NE(text.find("root \"/c\";"), std::string::npos);
    EXPECT_NE(text.find("server \"unix:/r/public.sock\""), std::string::npos);
    EXPECT_NE(text.find("client_max_body_size 10485760;"), std::string::npos);
    const std::string plain = NginxConfiguration(Parse(""));
    EXPECT_EQ(plain.find("ssl"), std::string::npos);
    EXPECT_EQ(plain.find_first_of('@', plain.find("@busy {") + 1), std::string::npos);
    EXPECT_EQ(plain.find("_DIR@"), std::string::npos);
}

TEST(NginxConfiguration, ListensForPairedServersOverTlsOnlyWhenToldWhere) {
    const std::string text = NginxConfiguration(Parse("peer: {listen: '*:5443'}"));
    const std::size_t listener = text.find("listen *:5443 backlog=4096 ssl;");
    ASSERT_NE(listener, std::string::npos);
    EXPECT_NE(text.find("ssl_certificate_key \"/s/peer.key\";", listener), std::string::npos);
    EXPECT_NE(text.find("fastcgi_pass korv_peer;", listener), std::string::npos);
    EXPECT_EQ(text.find("PEER_"), std::string::npos);
    EXPECT_EQ(NginxConfiguration(Parse("")).find("5443"), std::string::npos);
}

TEST(NginxConfiguration, RefusesWhatItCannotQuote) {
    korv::Settings settings = Parse("");
    settings.consoleDir = "/a\";b";
    EXPECT_THROW(NginxConfiguration(settings), std::runtime_error);
    settings.consoleDir = "/$uri";
    EXPECT_THROW(NginxConfiguration(settings), std::runtime_error);
}

}  // namespace
