#include "platform/korv/configuration.h"

#include <yaml-cpp/yaml.h>

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <stdexcept>

#include "korv/system/settings.h"

namespace korv {
namespace {

constexpr const char* kDefaultFile = "/etc/pavane/pavane.yaml";
constexpr const char* kFileVariable = "KORV_CONFIG";
constexpr int kMaxPort = 65535;
constexpr int kMaxProcessors = 1024;
constexpr int kMaxWorkers = 256;

[[noreturn]] void Refuse(const std::string& key, const std::string& why) {
    throw std::runtime_error("configuration: '" + key + "' " + why);
}

// Reads the members of one mapping and, at the end, refuses those that nobody asked for.
class Mapping {
public:
    Mapping(const YAML::Node& node, std::string prefix)
        : m_node(node.IsDefined() ? node : YAML::Node()), m_prefix(std::move(prefix)) {
        if (!m_node.IsNull() && !m_node.IsMap()) {
            throw std::runtime_error(
                "configuration: " + (m_prefix.empty() ? "the file" : "'" + m_prefix + "'") +
                " must be a mapping of keys to values");
        }
    }

    void Text(const char* key, std::string& value) {
        const YAML::Node member = Member(key);
        if (member.IsDefined()) {
            value = TextOf(member, Name(key));
        }
    }

    // A path that may stand in nginx's configuration and in messages: absolute, of harmless characters.
    void Path(const char* key, std::string& value) {
        Text(key, value);
        if (!value.empty()) {
            CheckPath(value, Name(key));
        }
    }

    void RequiredPath(const char* key, std::string& value) {
        Path(key, value);
        if (value.empty()) {
            Refuse(Name(key), "is missing");
        }
    }

    void Number(const char* key, int& value, int least, int most) {
        const YAML::Node member = Member(key);
        if (member.IsDefined()) {
            value = NumberOf(member, Name(key), least, most);
        }
    }

    void TextList(const char* key, std::vector<std::string>& values) {
        const YAML::Node member = Member(key);
        if (!member.IsDefined()) {
            return;
        }
        values.clear();
        for (const YAML::Node& item : ListOf(member, Name(key))) {
            values.push_back(TextOf(item, Name(key)));
        }
    }

    // Lists of processor numbers by name.
    void ProcessorLists(const char* key, std::map<std::string, std::vector<int>>& lists) {
        const YAML::Node member = Member(key);
        if (!member.IsDefined()) {
            return;
        }
        if (!member.IsMap()) {
            Refuse(Name(key), "must be a mapping of task names to lists of processors");
        }
        for (const auto& entry : member) {
            const std::string task = entry.first.Scalar();
            const std::string name = Name(key) + "." + task;
            for (const YAML::Node& processor : ListOf(entry.second, name)) {
                lists[task].push_back(NumberOf(processor, name, 0, kMaxProcessors - 1));
            }
        }
    }

    Mapping Child(const char* key) { return {Member(key), Name(key)}; }

    void RefuseUnknown() const {
        if (!m_node.IsMap()) {
            return;
        }
        for (const auto& entry : m_node) {
            const YAML::Node& key = entry.first;
            if (!key.IsScalar() || m_known.count(key.Scalar()) == 0) {
                Refuse(key.IsScalar() ? Name(key.Scalar()) : m_prefix, "is not a known key");
            }
        }
    }

    static void CheckPath(const std::string& path, const std::string& name) {
        if (path.front() != '/') {
            Refuse(name, "must be an absolute path");
        }
        for (const char c : path) {
            if (static_cast<unsigned char>(c) < ' ' ||
                std::string("\"'\\$;{}").find(c) != std::string::npos) {
                Refuse(name, "must not hold control characters, quotes, backslashes, '$', ';' or braces");
            }
        }
    }

private:
    static std::string TextOf(const YAML::Node& node, const std::string& name) {
        if (!node.IsScalar()) {
            Refuse(name, "must be a text");
        }
        return node.Scalar();
    }

    static int NumberOf(const YAML::Node& node, const std::string& name, int least, int most) {
        const std::string range =
            "must be a whole number from " + std::to_string(least) + " to " + std::to_string(most);
        int number = 0;
        if (!node.IsScalar() || !YAML::convert<int>::decode(node, number) || number < least ||
            number > most) {
            Refuse(name, range);
        }
        return number;
    }

    static YAML::Node ListOf(const YAML::Node& node, const std::string& name) {
        if (!node.IsSequence()) {
            Refuse(name, "must be a list");
        }
        return node;
    }

    YAML::Node Member(const std::string& key) {
        m_known.insert(key);
        return m_node.IsMap() ? m_node[key] : YAML::Node(YAML::NodeType::Undefined);
    }

    [[nodiscard]] std::string Name(const std::string& key) const {
        return m_prefix.empty() ? key : m_prefix + "." + key;
    }

    const YAML::Node m_node;
    std::string m_prefix;
    std::set<std::string> m_known;
};

void ReadNode(Mapping& file, KORV::Configuration& node, const std::string& defaultModuleDir) {
    file.RequiredPath("state_dir", node.stateDir);
    file.RequiredPath("run_dir", node.runDir);
    file.RequiredPath("log_dir", node.logDir);
    node.serviceUser = "Pavane";
    file.Text("service_user", node.serviceUser);
    file.TextList("volumes", node.volumes);
    for (const std::string& volume : node.volumes) {
        if (volume.size() < 2) {
            Refuse("volumes", "must name mount points such as /volume1");
        }
        Mapping::CheckPath(volume, "volumes");
    }
    node.database = "sqlite";
    file.Text("database", node.database);
    file.Path("samba_include", node.sambaInclude);
    file.TextList("modules", node.modules);
    for (std::string& module : node.modules) {
        if (module.find('/') == std::string::npos) {
            module = (std::filesystem::path(defaultModuleDir) / module).string();
        }
    }
}

void CheckListen(const std::string& listen, const char* key) {
    const std::size_t colon = listen.rfind(':');
    const std::string host = listen.substr(0, colon == std::string::npos ? 0 : colon);
    const std::string port = colon == std::string::npos ? "" : listen.substr(colon + 1);
    const bool digits =
        !port.empty() && port.size() <= 5 && port.find_first_not_of("0123456789") == std::string::npos;
    if (host.empty() || host.find_first_not_of("0123456789abcdefABCDEF.:[]*") != std::string::npos ||
        !digits || std::strtol(port.c_str(), nullptr, 10) < 1 ||
        std::strtol(port.c_str(), nullptr, 10) > kMaxPort) {
        Refuse(key, "must be ADDRESS:PORT, e.g. 127.0.0.1:5080, [::]:5080 or *:5080");
    }
}

void ReadPeer(Mapping peer, Settings& settings) {
    constexpr int kMostAnswer_s = 300;
    KORV::Configuration& node = settings.node;
    peer.Text("listen", node.peerListen);
    peer.Text("address", node.peerAddress);
    peer.Number("answer_timeout_s", node.peerAnswer_s, 1, kMostAnswer_s);
    peer.RefuseUnknown();
    if (!node.peerListen.empty()) {
        CheckListen(node.peerListen, "peer.listen");
    }
    settings.peerTls = {node.stateDir + "/peer.crt", node.stateDir + "/peer.key"};
    node.peerCertificate = settings.peerTls.certificate;
}

void ReadTls(Mapping tls, TlsSettings& settings) {
    tls.Path("certificate", settings.certificate);
    tls.Path("key", settings.key);
    tls.RefuseUnknown();
    if (settings.certificate.empty() != settings.key.empty()) {
        Refuse("tls", "needs both 'certificate' and 'key'");
    }
}

void ReadNginx(Mapping nginx, NginxSettings& settings) {
    constexpr int kMaxRate = 1000000;
    constexpr int kMaxTimeout_s = 86400;
    nginx.Path("binary", settings.binary);
    nginx.Path("modules_dir", settings.modulesDir);
    nginx.Text("user", settings.user);
    nginx.Number("workers", settings.workers, 1, kMaxWorkers);
    nginx.Number("connections_per_address", settings.connectionsPerAddress, 1, kMaxPort);
    nginx.Number("requests_per_second", settings.requestsPerSecond, 1, kMaxRate);
    nginx.Number("request_timeout_s", settings.requestTimeout_s, 1, kMaxTimeout_s);
    nginx.RefuseUnknown();
}

void ReadSession(Mapping session, SessionSettings& settings) {
    session.Number("idle_s", settings.idle_s, 1, INT_MAX);
    session.Number("login_failures", settings.loginFailures, 1, INT_MAX);
    session.Number("login_window_s", settings.loginWindow_s, 1, INT_MAX);
    session.Text("pam_service", settings.pamService);
    session.RefuseUnknown();
}

void ReadWorkers(Mapping workers, WorkerSettings& settings) {
    workers.Number("public", settings.publicCount, 1, kMaxWorkers);
    workers.Number("peer", settings.peerCount, 1, kMaxWorkers);
    workers.Number("recycle_after", settings.recycleAfter, 1, INT_MAX);
    workers.RefuseUnknown();
}

// Account names stand in nginx's configuration.
void CheckAccount(const std::string& account, const char* key) {
    if (account.empty() || account.find_first_of(" \t\r\n\"'\\$;{}:/") != std::string::npos) {
        Refuse(key, "must be an account name");
    }
}

Settings LoadSettings() {
    const char* const named = std::getenv(kFileVariable);
    const std::string file = named != nullptr && *named != '\0' ? named : kDefaultFile;
    std::ifstream stream(file);
    std::ostringstream text;
    if (!stream || !(text << stream.rdbuf())) {
        throw std::runtime_error("configuration: cannot read " + file);
    }
    const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe");
    return ParseSettings(text.str(), (program.parent_path().parent_path() / "lib").string());
}

}  // namespace

Settings ParseSettings(const std::string& yaml, const std::string& defaultModuleDir) {
    YAML::Node root;
    try {
        root = YAML::Load(yaml);
    } catch (const YAML::Exception& error) {
        throw std::runtime_error(std::string("configuration: not valid YAML: ") + error.what());
    }
    Settings settings;
    Mapping file(root, "");
    ReadNode(file, settings.node, defaultModuleDir);
    file.Text("listen", settings.listen);
    CheckListen(settings.listen, "listen");
    file.Path("console_dir", settings.consoleDir);
    ReadWorkers(file.Child("workers"), settings.workers);
    ReadSession(file.Child("session"), settings.session);
    ReadTls(file.Child("tls"), settings.tls);
    ReadPeer(file.Child("peer"), settings);
    ReadNginx(file.Child("nginx"), settings.nginx);
    file.ProcessorLists("affinity", settings.affinity);
    file.RefuseUnknown();
    CheckAccount(settings.node.serviceUser, "service_user");
    CheckAccount(settings.nginx.user, "nginx.user");
    return settings;
}

const Settings& GetSettings() {
    static const Settings settings = LoadSettings();
    return settings;
}

}  // namespace korv

const KORV::Configuration& KORV::GetConfiguration() { return korv::GetSettings().node; }
