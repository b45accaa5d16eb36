#include "korv/system/server_probe.h"

#include <netdb.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <vector>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/mount.h>
#include <sys/socket.h>

#include "korv/system/file_descriptor.h"
#include "tests/unit/korv/private_machine.h"
#include "tests/unit/korv/samba_server.h"

namespace fs = std::filesystem;

namespace {

using korv::FileDescriptor;
using korv::MountFailure;
using std::chrono::steady_clock;

constexpr int kPort = 2445;

sockaddr_in AddressOf(const char* text) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(kPort);
    inet_pton(AF_INET, text, &address.sin_addr);
    return address;
}

FileDescriptor ListenAt(const char* text, int backlog) {
    FileDescriptor listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in address = AddressOf(text);
    const int on = 1;
    setsockopt(listener.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    EXPECT_EQ(bind(listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(listen(listener.Get(), backlog), 0);
    return listener;
}

// A full queue of connections: what asks for another one is dropped without a word.
class SilentServer {
public:
    explicit SilentServer(const char* text) : m_listener(ListenAt(text, 0)) {
        const sockaddr_in address = AddressOf(text);
        for (int i = 0; i < 3; ++i) {
            m_waiting.emplace_back(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
            if (connect(m_waiting.back().Get(), reinterpret_cast<const sockaddr*>(&address),
                        sizeof address) != 0) {
                EXPECT_EQ(errno, EINPROGRESS);
            }
        }
    }

private:
    FileDescriptor m_listener;
    std::vector<FileDescriptor> m_waiting;
};

class ServerProbe : public MachineTest {
protected:
    void SetUp() override {
        MachineTest::SetUp();
        EnterPrivateNetwork();
        const std::string hosts = fs::path(machine::StateFolder()).parent_path() / "hosts";
        std::ofstream(hosts) << "127.0.0.1 nas.test\n127.0.0.2 nas.test\n127.0.0.3 nas.test\n";
        ASSERT_EQ(mount(hosts.c_str(), "/etc/hosts", nullptr, MS_BIND, nullptr), 0);
    }
    void TearDown() override {
        umount2("/etc/hosts", MNT_DETACH);
        MachineTest::TearDown();
    }
};

std::vector<std::string> AddressesOf(const char* name) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    EXPECT_EQ(getaddrinfo(name, nullptr, &hints, &found), 0);
    std::vector<std::string> texts;
    for (const addrinfo* each = found; each != nullptr; each = each->ai_next) {
        texts.emplace_back(inet_ntoa(reinterpret_cast<const sockaddr_in*>(each->ai_addr)->sin_addr));
    }
    freeaddrinfo(found);
    return texts;
}

TEST_F(ServerProbe, AnAddressWithoutAnAnswerHoldsUpNoOther) {
    ASSERT_EQ(AddressesOf("nas.test"), (std::vector<std::string>{"127.0.0.1", "127.0.0.2", "127.0.0.3"}));
    const SilentServer first("127.0.0.1");
    const SilentServer second("127.0.0.2");
    const FileDescriptor third = ListenAt("127.0.0.3", 8);
    const auto begin = steady_clock::now();
    EXPECT_EQ(korv::ProbeServer("nas.test", kPort), MountFailure::kNone);
    EXPECT_LT(steady_clock::now() - begin, std::chrono::seconds(8));
}

TEST_F(ServerProbe, TellsARefusalFromSilence) {
    EXPECT_EQ(korv::ProbeServer("nas.test", kPort), MountFailure::kRefused);
    const SilentServer first("127.0.0.1");
    EXPECT_EQ(korv::ProbeServer("127.0.0.1", kPort), MountFailure::kNoAnswer);
    EXPECT_EQ(korv::ProbeServer("nas.test", kPort), MountFailure::kRefused) << "by the other addresses";
    EXPECT_EQ(korv::ProbeServer("no-such-host.test", kPort), MountFailure::kUnknownHost);
}

}  // namespace
