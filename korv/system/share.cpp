#include "platform/korv/share.h"

#include <exception>
#include <optional>
#include <string>

#include <soci/soci.h>

#include "korv/framework/log.h"
#include "korv/system/external_share.h"
#include "korv/system/share_store.h"

namespace {

// Keeps the texts that the record points to.
struct ShareRecord : KORVSHARE {
    std::string nameText;
    std::string pathText;

    ShareRecord(std::string shareName, std::string sharePath)
        : KORVSHARE{}, nameText(std::move(shareName)), pathText(std::move(sharePath)) {
        name = nameText.c_str();
        path = pathText.c_str();
    }
};

ShareRecord* FindRecord(const std::string& name) {
    if (korv::IsExternalShareName(name)) {
        const auto path = korv::ExternalSharePath(name);
        return path ? new ShareRecord(name, *path) : nullptr;
    }
    const auto row = korv::FindShareOfAnyCase(name);
    return row ? new ShareRecord(row->name, row->Path()) : nullptr;
}

}  // namespace

int KORVShareGet(const char* name, KORVSHARE** share) {
    *share = nullptr;
    try {
        *share = FindRecord(name);
    } catch (const soci::soci_error& failure) {
        korv::LogLine("a share can't be looked up: " + failure.get_error_message());
    } catch (const std::exception& failure) {
        korv::LogLine(std::string("a share can't be looked up: ") + failure.what());
    }
    return *share != nullptr ? 0 : -1;
}

void KORVShareFree(KORVSHARE* share) { delete static_cast<ShareRecord*>(share); }
