#include "korv/system/mount_source.h"

#include <string>

#include <gtest/gtest.h>

#include "korv/system/mount_failure.h"

namespace {

using korv::AllowedOptions;
using korv::MountFailure;
using korv::ParseMountSource;
using korv::RemoteType;

TEST(MountSource, ReadsHostAndFolder) {
    EXPECT_EQ(ParseMountSource(RemoteType::kCifs, "//nas/video")->host, "nas");
    EXPECT_EQ(ParseMountSource(RemoteType::kCifs, "\\\\nas.local\\video\\a b")->text,
              "//nas.local/video/a b");
    EXPECT_EQ(ParseMountSource(RemoteType::kCifs, "//10.0.0.1/it's \"q\" #1 ü/")->text,
              "//10.0.0.1/it's \"q\" #1 ü");
    EXPECT_EQ(ParseMountSource(RemoteType::kNfs, "nas:/export/rec/")->text, "nas:/export/rec");
    EXPECT_EQ(ParseMountSource(RemoteType::kNfs, "nas:/")->text, "nas:/");
    EXPECT_EQ(ParseMountSource(RemoteType::kNfs, "[2001:db8::7]:/x")->host, "2001:db8::7");
    EXPECT_EQ(ParseMountSource(RemoteType::kNfs, "[::1]:/x")->host, "::1");
    EXPECT_EQ(ParseMountSource(RemoteType::kNfs, "nas:/a:/b")->host, "nas");
}

TEST(MountSource, RefusesWhatIsNone) {
    for (const std::string& text :
         {std::string(), std::string("nas"), std::string("/nas/video"), std::string("//nas"),
          std::string("//nas/"), std::string("///video"), std::string("//na s/video"),
          std::string("//-o/video"), std::string("//nas/a,uid=0"), std::string("//nas/a\nb"),
          std::string("//nas/a\0b", 9), std::string("//nas/../b"), "//nas/" + std::string(1100, 'x'),
          std::string("nas:/export"), std::string("UUID=1/x")}) {
        EXPECT_FALSE(ParseMountSource(RemoteType::kCifs, text)) << testing::PrintToString(text);
    }
    for (const char* text :
         {"nas", "nas:export", ":/x", "host:/x,uid=0", "-o:/x", "UUID=1:/x", "nas:/a/../b", "[nas:/x",
          "//nas/video", "2001:db8::7:/x", "[]:/x", "[:a b]:/x", "[::1 -o]:/x"}) {
        EXPECT_FALSE(ParseMountSource(RemoteType::kNfs, text)) << text;
    }
}

TEST(MountAccount, HoldsOneLineEach) {
    EXPECT_TRUE(korv::IsUsableAccount({"DOMAIN\\it's me", "a,b #\"'ü"}));
    EXPECT_TRUE(korv::IsUsableAccount({"", ""}));
    EXPECT_FALSE(korv::IsUsableAccount({"a\npassword=b", "x"}));
    EXPECT_FALSE(korv::IsUsableAccount({"a", "x\ny"}));
    EXPECT_FALSE(korv::IsUsableAccount({"a", std::string("x\0y", 3)}));
    EXPECT_TRUE(korv::IsUsableAccount({"a", std::string(512, 'x')}));
    EXPECT_FALSE(korv::IsUsableAccount({"a", std::string(1000, 'x')}));
}

TEST(MountOptions, AreFromTheListOnly) {
    EXPECT_EQ(AllowedOptions({RemoteType::kCifs, " vers=3.0 , ro,", "", ""}), "vers=3.0,ro");
    EXPECT_EQ(AllowedOptions({RemoteType::kNfs, "soft,timeo=30", "4.1", "tcp"}),
              "vers=4.1,proto=tcp,soft,timeo=30");
    EXPECT_EQ(AllowedOptions({RemoteType::kCifs, "", "", ""}), "");
    for (const char* text : {"suid",   "dev",        "exec",       "uid=0",    "credentials=/etc/shadow",
                             "guest",  "user=x",     "vers",       "vers=9",   "ro=1",
                             "port=0", "port=65536", "port=1x",    "ro,ro",    "rsize=",
                             "bind",   "remount",    "domain=a=b", "helper=x", "vers=3.0\nuid=0",
                             "nosuid"}) {
        EXPECT_FALSE(AllowedOptions({RemoteType::kCifs, text, "", ""})) << text;
    }
    EXPECT_FALSE(AllowedOptions({RemoteType::kNfs, "vers=3", "", ""}));
    EXPECT_FALSE(AllowedOptions({RemoteType::kNfs, "", "5", ""}));
    EXPECT_FALSE(AllowedOptions({RemoteType::kNfs, "", "3,suid", ""}));
    EXPECT_FALSE(AllowedOptions({RemoteType::kNfs, "", "", "rdma,suid"}));
    EXPECT_EQ(korv::ServerPort(RemoteType::kCifs, "ro"), 445);
    EXPECT_EQ(korv::ServerPort(RemoteType::kNfs, "ro,port=2050"), 2050);
}

TEST(MountFailure, IsReadFromWhatHelpersWrite) {
    const auto cifs = [](const std::string& text) { return korv::FailureOfHelper(true, text); };
    const auto nfs = [](const std::string& text) { return korv::FailureOfHelper(false, text); };
    EXPECT_EQ(cifs("mount error(13): Permission denied\nRefer to the mount.cifs(8) manual page"),
              MountFailure::kWrongAccount);
    EXPECT_EQ(cifs("mount error(2): No such file or directory"), MountFailure::kNoSuchFolder);
    EXPECT_EQ(cifs("mount error(112): Host is down"), MountFailure::kNoAnswer);
    EXPECT_EQ(cifs("mount error: could not resolve address for nas: Unknown error"),
              MountFailure::kUnknownHost);
    EXPECT_EQ(cifs("mount error(95): Operation not supported"), MountFailure::kProtocol);
    EXPECT_EQ(nfs("mount.nfs: access denied by server while mounting nas:/x"), MountFailure::kAccessDenied);
    EXPECT_EQ(nfs("mount.nfs: mounting nas:/x failed, reason given by server: No such file or directory"),
              MountFailure::kNoSuchFolder);
    EXPECT_EQ(nfs("mount.nfs: Connection timed out"), MountFailure::kNoAnswer);
    EXPECT_EQ(nfs("mount.nfs: Connection refused"), MountFailure::kRefused);
    EXPECT_EQ(nfs("mount.nfs: requested NFS version or transport protocol is not supported for /mnt"),
              MountFailure::kProtocol);
    EXPECT_EQ(nfs("mount.nfs: Stale file handle"), MountFailure::kStale);
    EXPECT_EQ(nfs("mount.nfs: an incorrect mount option was specified"), MountFailure::kBadOption);
    EXPECT_EQ(nfs("mount.nfs: nas:/x is busy or already mounted or sharecache fail"), MountFailure::kBusy);
    EXPECT_EQ(nfs("something else"), MountFailure::kFailed);
}

}  // namespace
