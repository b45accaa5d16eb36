// Recording share records in the application database.

#include "pavane/store/rec_share_store.h"

#include <bit>
#include <exception>
#include <list>
#include <optional>
#include <string>

#include <soci/soci.h>

#include "platform/korv/mount.h"
#include "platform/pavane/rec_share.h"
#include "platform/pavane/services.h"

#include "include/trailing_slashes.h"
#include "pavane/log_line.h"
#include "pavane/store/database.h"
#include "pavane/store/folder_rename.h"

namespace {

constexpr const char* kSource = "pavane/store/rec_share_store";
constexpr const char* kSelect =
    "select id, id_on_rec, owner_rv_id, name, path, volume, description, hidden, enc_type, fs_type, "
    "mount_type,"
    " mount_source, mount_status, auto_mount, migrating, rec_limit_gb, enable_rec_limit, total_size_mb"
    " from recording_share ";

// The types that the database knows, one member a column; the record's own narrower types are made of it.
struct ShareRow {
    int id = 0;
    int idOnRec = 0;
    int ownerRvId = 0;
    std::string name;
    std::string path;
    std::string volume;
    std::string description;
    int hidden = 0;
    int encType = 0;
    int fsType = 0;
    int mountType = 0;
    std::string mountSource;
    int mountStatus = 0;
    int autoMount = 0;
    int migrating = 0;
    int recLimitGB = 0;
    int enableRecLimit = 0;
    long long totalSizeMB = 0;
};

// Binds the columns of kSelect, in its order.
template <class Binder>
void BindColumns(Binder& bind, ShareRow& row) {
    bind, soci::into(row.id), soci::into(row.idOnRec), soci::into(row.ownerRvId), soci::into(row.name),
        soci::into(row.path), soci::into(row.volume), soci::into(row.description), soci::into(row.hidden),
        soci::into(row.encType), soci::into(row.fsType), soci::into(row.mountType),
        soci::into(row.mountSource), soci::into(row.mountStatus), soci::into(row.autoMount),
        soci::into(row.migrating), soci::into(row.recLimitGB), soci::into(row.enableRecLimit),
        soci::into(row.totalSizeMB);
}

void BindValues(soci::details::prepare_temp_type& bind, ShareRow& row) {
    bind, soci::use(row.idOnRec), soci::use(row.ownerRvId), soci::use(row.name), soci::use(row.path),
        soci::use(row.volume), soci::use(row.description), soci::use(row.hidden), soci::use(row.encType),
        soci::use(row.fsType), soci::use(row.mountType), soci::use(row.mountSource),
        soci::use(row.mountStatus), soci::use(row.autoMount), soci::use(row.migrating),
        soci::use(row.recLimitGB), soci::use(row.enableRecLimit), soci::use(row.totalSizeMB);
}

}  // namespace

struct RecShareAccess {
    static RecShare FromRow(const ShareRow& row) {
        RecShare share;
        share.m_id = row.id;
        share.m_idOnRec = row.idOnRec;
        share.m_ownerRvId = row.ownerRvId;
        share.m_name = row.name;
        share.m_path = row.path;
        share.m_volume = row.volume;
        share.m_description = row.description;
        share.m_hidden = row.hidden != 0;
        share.m_encType = static_cast<SHARE_ENC_TYPE>(row.encType);
        share.m_fsType = static_cast<_tag_FSTYPE>(row.fsType);
        share.m_mountType = static_cast<SHARE_MOUNT_TYPE>(row.mountType);
        share.m_mountSource = row.mountSource;
        share.m_mountStatus = static_cast<SHARE_MOUNT_STATUS>(row.mountStatus);
        share.m_autoMount = row.autoMount != 0;
        share.m_migrating = row.migrating != 0;
        share.m_recLimitGB = row.recLimitGB;
        share.m_enableRecLimit = row.enableRecLimit != 0;
        share.m_totalSizeMB = std::bit_cast<std::uint64_t>(row.totalSizeMB);
        return share;
    }

    static ShareRow ToRow(const RecShare& share) {
        ShareRow row;
        row.id = share.m_id;
        row.idOnRec = share.m_idOnRec;
        row.ownerRvId = share.m_ownerRvId;
        row.name = share.m_name;
        row.path = share.m_path;
        row.volume = share.m_volume;
        row.description = share.m_description;
        row.hidden = share.m_hidden ? 1 : 0;
        row.encType = share.m_encType;
        row.fsType = share.m_fsType;
        row.mountType = share.m_mountType;
        row.mountSource = share.m_mountSource;
        row.mountStatus = share.m_mountStatus;
        row.autoMount = share.m_autoMount ? 1 : 0;
        row.migrating = share.m_migrating ? 1 : 0;
        row.recLimitGB = share.m_recLimitGB;
        row.enableRecLimit = share.m_enableRecLimit ? 1 : 0;
        row.totalSizeMB = std::bit_cast<long long>(share.m_totalSizeMB);
        return row;
    }

    static void SetId(RecShare& share, int id) { share.m_id = id; }
    static void SetMountStatus(RecShare& share, SHARE_MOUNT_STATUS status) { share.m_mountStatus = status; }
};

namespace {

// Finds one record; derived types say by what.
struct ShareQuery : pavane::KeptQuery {
    ShareRow row;
};

struct ShareById : ShareQuery {
    explicit ShareById(soci::session& session) {
        auto bind = (session.prepare << kSelect << "where id = :id");
        BindColumns(bind, row);
        Prepare((bind, soci::use(id)));
    }
    int id = 0;
};

struct ShareByIdOnRec : ShareQuery {
    explicit ShareByIdOnRec(soci::session& session) {
        auto bind = (session.prepare << kSelect << "where id_on_rec = :rec and owner_rv_id = :owner"
                                     << " order by id limit 1");
        BindColumns(bind, row);
        Prepare((bind, soci::use(idOnRec), soci::use(ownerRvId)));
    }
    int idOnRec = 0;
    int ownerRvId = 0;
};

struct ShareByPath : ShareQuery {
    explicit ShareByPath(soci::session& session) {
        auto bind = (session.prepare << kSelect << "where owner_rv_id = :owner and path = :path");
        BindColumns(bind, row);
        Prepare((bind, soci::use(ownerRvId), soci::use(path)));
    }
    int ownerRvId = 0;
    std::string path;
};

// Fills `share` with what the query finds once `give` has given it its values.
template <class Query, class Give>
int LoadOne(RecShare& share, const Give& give) {
    try {
        auto& query = pavane::AppDatabase().Kept<Query>();
        give(query);
        if (!query.Run()) {
            return -1;
        }
        share = RecShareAccess::FromRow(query.row);
        return 0;
    } catch (const std::exception& failure) {
        PV_LOG_LINE(kSource, "Failed to load a recording share: %s\n",
                    pavane::DescribeFailure(failure).c_str());
        return -1;
    }
}

// A text with a NUL would be cut by one database and kept by the other.
bool HasNul(const ShareRow& row) {
    for (const std::string* text : {&row.name, &row.path, &row.volume, &row.description, &row.mountSource}) {
        if (text->find('\0') != std::string::npos) {
            return true;
        }
    }
    return false;
}

struct ShareInsertion : ShareQuery {
    explicit ShareInsertion(soci::session& session) {
        auto bind =
            (session.prepare << "insert into recording_share (id_on_rec, owner_rv_id, name, path, volume,"
                                " description, hidden, enc_type, fs_type, mount_type, mount_source,"
                                " mount_status, auto_mount, migrating, rec_limit_gb, enable_rec_limit,"
                                " total_size_mb) values (:rec, :owner, :name, :path, :volume, :text, :hidden,"
                                " :enc, :fs, :mtype, :msource, :mstatus, :auto, :migrating, :climit,"
                                " :enable, :size) returning id",
             soci::into(id));
        BindValues(bind, row);
        Prepare(bind);
    }
    int id = 0;
};

int Insert(pavane::Database& database, const ShareRow& row) {
    auto& query = database.Kept<ShareInsertion>();
    query.row = row;
    query.Run();
    return query.id;
}

// False when there is no record of that id.
bool Update(soci::session& session, ShareRow& row) {
    auto bind = (session.prepare << "update recording_share set id_on_rec = :rec, owner_rv_id = :owner,"
                                    " name = :name, path = :path, volume = :volume, description = :text,"
                                    " hidden = :hidden, enc_type = :enc, fs_type = :fs, mount_type = :mtype,"
                                    " mount_source = :msource, mount_status = :mstatus, auto_mount = :auto,"
                                    " migrating = :migrating, rec_limit_gb = :climit,"
                                    " enable_rec_limit = :enable, total_size_mb = :size where id = :id");
    BindValues(bind, row);
    bind, soci::use(row.id);
    soci::statement statement(bind);
    statement.execute(true);
    return statement.get_affected_rows() == 1;
}

// Where the record's folder was until now: none for a record that there isn't.
std::optional<pavane::FolderPlace> FindPlace(soci::session& session, int id) {
    pavane::FolderPlace place;
    session << "select owner_rv_id, name, path from recording_share where id = :id",
        soci::into(place.ownerRvId), soci::into(place.name), soci::into(place.path), soci::use(id);
    return session.got_data() ? std::optional(place) : std::nullopt;
}

// False when there is no record of that id. What names the folder follows; `linkNames` are the service links
// to bring up to date afterwards.
bool UpdateAll(pavane::Database& database, ShareRow& row, std::list<std::string>& linkNames) {
    const auto before = FindPlace(database.Session(), row.id);
    if (!before || !Update(database.Session(), row)) {
        return false;
    }
    if (before->ownerRvId == row.ownerRvId && (before->name != row.name || before->path != row.path)) {
        pavane::FollowRename(database, *before, {row.ownerRvId, row.name, row.path});
        if (row.ownerRvId == 0) {
            linkNames = {before->name, row.name};
        }
    }
    return true;
}

}  // namespace

int RecShare::Load(int id) {
    return LoadOne<ShareById>(*this, [&](ShareById& query) { query.id = id; });
}

int RecShare::LoadByIdOnRec(int idOnRec, int ownerRvId) {
    return LoadOne<ShareByIdOnRec>(*this, [&](ShareByIdOnRec& query) {
        query.idOnRec = idOnRec;
        query.ownerRvId = ownerRvId;
    });
}

int RecShare::LoadByPath(const std::string& path, int ownerRvId) {
    if (path.find('\0') != std::string::npos) {
        return -1;
    }
    return LoadOne<ShareByPath>(*this, [&](ShareByPath& query) {
        query.ownerRvId = ownerRvId;
        query.path = WithoutTrailingSlashes(path);
    });
}

int RecShare::Save() {
    ShareRow row = RecShareAccess::ToRow(*this);
    if (HasNul(row)) {
        PV_LOG_LINE(kSource, "Refused a recording share whose texts hold a NUL.\n");
        return -1;
    }
    try {
        pavane::Database& database = pavane::AppDatabase();
        pavane::WriteTransaction transaction(database);
        int id = row.id;
        std::list<std::string> linkNames;
        if (id == 0) {
            id = Insert(database, row);
        } else if (!UpdateAll(database, row, linkNames)) {
            PV_LOG_LINE(kSource, "There is no recording share %d to save.\n", id);
            return -1;
        }
        transaction.Commit();
        RecShareAccess::SetId(*this, id);
        // Who renames the folder has them updated too, but before this record says so.
        CheckToUpdatePVServiceLink(linkNames);
        return 0;
    } catch (const std::exception& failure) {
        PV_LOG_LINE(kSource, "Failed to save a recording share: %s\n",
                    pavane::DescribeFailure(failure).c_str());
        return -1;
    }
}

int DelRecShareById(const std::list<int>& ids) {
    constexpr std::size_t kMostInOneStatement = 1000;
    try {
        pavane::Database& database = pavane::AppDatabase();
        pavane::WriteTransaction transaction(database);
        for (auto id = ids.begin(); id != ids.end();) {
            std::string list;
            for (std::size_t n = 0; n < kMostInOneStatement && id != ids.end(); ++n, ++id) {
                list += (list.empty() ? "" : ",") + std::to_string(*id);
            }
            database.Session() << "delete from recording_share where id in (" + list + ")";
        }
        transaction.Commit();
        return 0;
    } catch (const std::exception& failure) {
        PV_LOG_LINE(kSource, "Failed to delete recording shares: %s\n",
                    pavane::DescribeFailure(failure).c_str());
        return -1;
    }
}

void pavane::SetMountStatus(RecShare& share, SHARE_MOUNT_STATUS status) {
    RecShareAccess::SetMountStatus(share, status);
}

std::list<RecShare> pavane::ReadRecShares(int rvId) {
    std::list<RecShare> shares;
    soci::session& session = pavane::AppDatabase().Session();
    ShareRow row;
    auto bind =
        (session.prepare << kSelect << (rvId != 0 ? "where owner_rv_id = :owner " : "") << "order by id");
    BindColumns(bind, row);
    if (rvId != 0) {
        bind, soci::use(rvId);
    }
    soci::statement statement(bind);
    for (bool more = statement.execute(true); more; more = statement.fetch()) {
        shares.push_back(RecShareAccess::FromRow(row));
    }
    return shares;
}

std::list<std::string> LoadRecSharePath(int rvId) {
    std::list<std::string> paths;
    try {
        soci::session& session = pavane::AppDatabase().Session();
        std::string path;
        soci::statement statement =
            (session.prepare << "select path from recording_share where owner_rv_id = :owner order by path",
             soci::into(path), soci::use(rvId));
        for (bool more = statement.execute(true); more; more = statement.fetch()) {
            paths.push_back(path);
        }
    } catch (const std::exception& failure) {
        PV_LOG_LINE(kSource, "Failed to load the paths of the recording shares: %s\n",
                    pavane::DescribeFailure(failure).c_str());
        paths.clear();
    }
    return paths;
}

namespace {

// What a remote mount's state changes of its record: one statement, so that an edit that somebody makes at
// the same time isn't undone by a record that was loaded before.
void StoreMountFacts(RecShare& share) {
    try {
        pavane::Database& database = pavane::AppDatabase();
        pavane::WriteTransaction transaction(database);
        const int status = share.GetMountStatus(), fsType = share.GetFsType(), id = share.GetId();
        const auto sizeMB = std::bit_cast<long long>(share.GetTotalSizeMB());
        database.Session() << "update recording_share set mount_status = :status, fs_type = :type,"
                              " total_size_mb = :size where id = :id",
            soci::use(status), soci::use(fsType), soci::use(sizeMB), soci::use(id);
        transaction.Commit();
    } catch (const std::exception& failure) {
        PV_LOG_LINE(kSource, "Failed to record the state of a mount: %s\n",
                    pavane::DescribeFailure(failure).c_str());
    }
}

}  // namespace

void UpdateShareMountInfo(SHARE_MOUNT_STATUS status, RecShare& share, bool refreshFacts, bool onlyIfChanged) {
    if (onlyIfChanged && share.GetMountStatus() == status) {
        return;
    }
    RecShareAccess::SetMountStatus(share, status);
    auto fsType = FSTYPE_UNKNOWN;
    std::uint64_t sizeMB = 0;
    if (refreshFacts && status == SHARE_MOUNT_NORMAL &&
        GetMntPointFSInfo(share.GetPath(), fsType, sizeMB) == 0) {
        share.SetFsType(fsType);
        share.SetTotalSizeMB(sizeMB);
    }
    StoreMountFacts(share);
}
