#include "korvd/nginx_config.h"

#include <algorithm>
#include <map>
#include <stdexcept>

#include "korv/framework/http_exchange.h"
#include "korvd/nginx_template.h"

namespace {

constexpr int kMaxEventListen_s = 3600;

// A text that may stand between double quotes in nginx's configuration. A '$' would start a variable and
// can't be escaped, so it is refused with everything else that is not plain.
std::string Checked(const std::string& text) {
    for (const char c : text) {
        if (static_cast<unsigned char>(c) < ' ' || c == '"' || c == '\\' || c == '$') {
            throw std::runtime_error("configuration: '" + text + "' can't stand in nginx's configuration");
        }
    }
    return text;
}

std::string TlsLines(const korv::TlsSettings& tls) {
    if (tls.certificate.empty()) {
        return "";
    }
    return "        ssl_certificate \"" + Checked(tls.certificate) + "\";\n        ssl_certificate_key \"" +
           Checked(tls.key) +
           "\";\n"
           "        ssl_protocols TLSv1.2 TLSv1.3;\n"
           "        ssl_session_cache shared:tls:4m;\n";
}

std::string ConsoleLines(const std::string& folder) {
    if (folder.empty()) {
        return "            return 404;";
    }
    return "            root \"" + Checked(folder) +
           "\";\n"
           "            index index.html;\n"
           "            add_header X-Content-Type-Options nosniff always;\n"
           "            add_header X-Frame-Options DENY always;\n"
           "            add_header Referrer-Policy no-referrer always;\n"
           "            add_header Content-Security-Policy \"default-src 'self'; frame-ancestors 'none'\" "
           "always;";
}

// Replaces every @NAME@ of `values` in the template.
std::string Fill(std::string text, const std::map<std::string, std::string>& values) {
    for (const auto& [name, value] : values) {
        const std::string mark = "@" + name + "@";
        for (std::size_t at = text.find(mark); at != std::string::npos;
             at = text.find(mark, at + value.size())) {
            text.replace(at, mark.size(), value);
        }
    }
    return text;
}

}  // namespace

std::string NginxConfiguration(const korv::Settings& settings) {
    const korv::NginxSettings& nginx = settings.nginx;
    // The peer listener's text holds names of its own, so it is put in before any is filled.
    const std::string text =
        Fill(kNginxTemplate, {{"PEER_SERVER", settings.node.peerListen.empty() ? "" : kNginxPeerTemplate}});
    return Fill(text,
                {
                    {"CONNECTIONS_PER_ADDRESS", std::to_string(nginx.connectionsPerAddress)},
                    {"CONSOLE", ConsoleLines(settings.consoleDir)},
                    {"EVENT_LISTEN", std::to_string(std::min(settings.session.idle_s, kMaxEventListen_s))},
                    {"LISTEN", Checked(settings.listen)},
                    {"LISTEN_TLS", settings.tls.certificate.empty() ? "" : " ssl"},
                    {"LOG_DIR", Checked(settings.node.logDir)},
                    {"MAX_BODY", std::to_string(korv::kMaxUploadBytes)},
                    {"NGINX_MODULES", Checked(nginx.modulesDir)},
                    {"NGINX_USER", Checked(nginx.user)},
                    {"NGINX_WORKERS", std::to_string(nginx.workers)},
                    {"PEER_CERTIFICATE", Checked(settings.peerTls.certificate)},
                    {"PEER_KEY", Checked(settings.peerTls.key)},
                    {"PEER_LISTEN", Checked(settings.node.peerListen)},
                    {"REQUEST_TIMEOUT", std::to_string(nginx.requestTimeout_s)},
                    {"REQUESTS_PER_SECOND", std::to_string(nginx.requestsPerSecond)},
                    {"RUN_DIR", Checked(settings.node.runDir)},
                    {"TLS", TlsLines(settings.tls)},
                });
}
