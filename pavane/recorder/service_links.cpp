#include "pavane/recorder/service_links.h"

#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <exception>
#include <system_error>

#include <soci/soci.h>
#include <sys/stat.h>

#include "platform/korv/configuration.h"
#include "platform/pavane/services.h"

#include "pavane/log_line.h"
#include "pavane/store/database.h"

namespace {

constexpr const char* kSource = "pavane/recorder/service_links";

[[noreturn]] void ThrowSystemError(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

// The folder of the links, made when it is missing.
class LinkFolder {
public:
    LinkFolder() {
        constexpr mode_t kMode = 0755;
        const std::string path = KORV::GetConfiguration().stateDir + "/links";
        if (mkdir(path.c_str(), kMode) != 0 && errno != EEXIST) {
            ThrowSystemError("cannot make the link folder");
        }
        m_fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW);
        if (m_fd < 0) {
            ThrowSystemError("cannot open the link folder");
        }
    }
    ~LinkFolder() { close(m_fd); }
    LinkFolder(const LinkFolder&) = delete;
    LinkFolder& operator=(const LinkFolder&) = delete;

    // The link's target; empty when there is no such link.
    std::string Read(const std::string& name) const {
        std::array<char, PATH_MAX> target{};
        const ssize_t length = readlinkat(m_fd, name.c_str(), target.data(), target.size());
        return length > 0 ? std::string(target.data(), static_cast<std::size_t>(length)) : std::string();
    }

    // Made beside the old one and renamed over it, so that the name always leads somewhere.
    void Place(const std::string& name, const std::string& target) const {
        const std::string fresh = ".new." + std::to_string(getpid());
        unlinkat(m_fd, fresh.c_str(), 0);
        if (symlinkat(target.c_str(), m_fd, fresh.c_str()) != 0) {
            ThrowSystemError("cannot make a service link");
        }
        if (renameat(m_fd, fresh.c_str(), m_fd, name.c_str()) != 0) {
            const int error = errno;
            unlinkat(m_fd, fresh.c_str(), 0);
            errno = error;
            ThrowSystemError("cannot place a service link");
        }
    }

    void Remove(const std::string& name) const {
        if (unlinkat(m_fd, name.c_str(), 0) != 0 && errno != ENOENT) {
            ThrowSystemError("cannot remove a service link");
        }
    }

private:
    int m_fd = -1;
};

struct LocalShare {
    int id = 0;
    std::string path;
};

// Id 0 when no recording share of this server has that name.
LocalShare FindLocalShare(soci::session& session, const std::string& name) {
    LocalShare share;
    session
        << "select id, path from recording_share where owner_rv_id = 0 and name = :name order by id limit 1",
        soci::into(share.id), soci::into(share.path), soci::use(name);
    return session.got_data() ? share : LocalShare{};
}

// The table and the link change under one write lock: two processes that bring the same link up to date leave
// what the later one saw.
void BringLinkUpToDate(const std::string& name) {
    const LinkFolder folder;
    pavane::Database& database = pavane::AppDatabase();
    pavane::WriteTransaction transaction(database);
    if (database.Kind() == pavane::DatabaseKind::kPostgresql) {
        database.Session() << "lock table service_link in share row exclusive mode";
    }
    const LocalShare share = FindLocalShare(database.Session(), name);
    database.Session() << "delete from service_link where name = :name", soci::use(name);
    if (share.id == 0) {
        folder.Remove(name);
    } else {
        database.Session() << "insert into service_link (name, share_id) values (:name, :share)",
            soci::use(name), soci::use(share.id);
        folder.Place(name, share.path);
    }
    transaction.Commit();
}

}  // namespace

void CheckToUpdatePVServiceLink(const std::string& name) {
    if (!pavane::IsLinkName(name)) {
        PV_LOG_LINE(kSource, "Refused a service link whose name is not that of a folder.\n");
        return;
    }
    try {
        BringLinkUpToDate(name);
    } catch (const std::exception& failure) {
        PV_LOG_LINE(kSource, "Failed to bring a service link up to date: %s\n",
                    pavane::DescribeFailure(failure).c_str());
    }
}

void CheckToUpdatePVServiceLink(const std::list<std::string>& names) {
    for (const std::string& name : names) {
        CheckToUpdatePVServiceLink(name);
    }
}

namespace pavane {

bool IsLinkName(const std::string& name) {
    constexpr unsigned char kFirstPrintable = 0x20;
    constexpr unsigned char kDelete = 0x7F;
    const bool plain = std::all_of(name.begin(), name.end(), [](unsigned char byte) {
        return byte >= kFirstPrintable && byte != kDelete && byte != '/';
    });
    return plain && !name.empty() && name.size() <= NAME_MAX && name.front() != '.';
}

std::list<ServiceLink> ListServiceLinks() {
    const LinkFolder folder;
    std::list<ServiceLink> links;
    ServiceLink link;
    soci::statement statement =
        (AppDatabase().Session().prepare << "select l.name, s.path from service_link l"
                                            " join recording_share s on s.id = l.share_id order by l.name",
         soci::into(link.name), soci::into(link.path));
    for (bool more = statement.execute(true); more; more = statement.fetch()) {
        link.inPlace = folder.Read(link.name) == link.path;
        links.push_back(link);
    }
    return links;
}

}  // namespace pavane
