#include "cli/camera_file.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cli/client.h"
#include "cli/input_error.h"

namespace {

using cli::BatchLength;
using cli::CameraEntry;
using cli::ReadCameras;

std::string ProblemOf(const std::string& text) {
    try {
        ReadCameras(text);
    } catch (const cli::InputError& error) {
        return error.what();
    }
    return "none";
}

TEST(CameraFile, CsvColumnsMayComeInAnyOrder) {
    const auto cameras =
        ReadCameras("owner,recording_path,name\r\n5,/volume1/rec/a,Gate\r\n,/volume1/rec/b,Yard\r\n");
    ASSERT_EQ(cameras.size(), 2U);
    EXPECT_EQ(cameras[0].place, "line 2");
    EXPECT_EQ(cameras[0].camera["name"], "Gate");
    EXPECT_EQ(cameras[0].camera["recordingPath"], "/volume1/rec/a");
    EXPECT_EQ(cameras[0].camera["ownerRvId"], 5);
    EXPECT_FALSE(cameras[1].camera.isMember("ownerRvId"));
}

TEST(CameraFile, ABadCsvRowIsToldWithItsLine) {
    EXPECT_EQ(ProblemOf(""), "the file is empty");
    EXPECT_EQ(
        ProblemOf("name,path\n"),
        "line 1: unknown column 'path' (known: name, recording_path, owner, ip, occupied_mb, rotation_mb)");
    EXPECT_EQ(ProblemOf("name,name\n"), "line 1: column 'name' stands there twice");
    EXPECT_EQ(ProblemOf("name\n"), "line 1: the header must have the columns name and recording_path");
    EXPECT_EQ(ProblemOf("name,recording_path\na,/p\nb\n"), "line 3: 1 fields, but the header has 2");
    EXPECT_EQ(ProblemOf("name,recording_path,owner\na,/p,-1\n"),
              "line 2: owner '-1' is no recording server's id (0 to 2147483647)");
    EXPECT_EQ(ProblemOf("name,recording_path,owner\na,/p,2x\n"),
              "line 2: owner '2x' is no recording server's id (0 to 2147483647)");
    EXPECT_EQ(ProblemOf("name,recording_path,occupied_mb\na,/p,2147483648\n"),
              "line 2: occupied_mb '2147483648' is no size in MB (0 to 2147483647)");
}

TEST(CameraFile, ACameraStandsThereOncePerServer) {
    EXPECT_EQ(ProblemOf("name,recording_path,owner\na,/p,\na,/p,1\n\nb,/p,0\na,/q,0\n"),
              "line 6: the camera 'a' of server 0 stands in line 2 already");
    EXPECT_EQ(ProblemOf(R"([{"name": "a"}, {"name": "a", "ownerRvId": 1}, {"name": "a", "ownerRvId": 0}])"),
              "camera 3: the camera 'a' of server 0 stands in camera 1 already");
    EXPECT_EQ(ReadCameras(R"([{"name": 1}, {"name": 1}, {"name": "a", "ownerRvId": "x"}, {}, {}])").size(),
              5U);  // the server says what is wrong with them
}

TEST(CameraFile, AByteOrderMarkIsLeftOutOfEitherKind) {
    const std::string mark = "\xEF\xBB\xBF";
    EXPECT_EQ(ReadCameras(mark + R"([{"name": "a"}])").size(), 1U);
    EXPECT_EQ(ReadCameras(mark + "name,recording_path\na,/p\n").size(), 1U);
    EXPECT_EQ(ProblemOf(mark), "the file is empty");
}

TEST(CameraFile, NestedJsonIsRefusedBeforeItTakesTheStack) {
    EXPECT_EQ(ProblemOf(std::string(100000, '[')), "not valid JSON: it is nested too deeply");
    EXPECT_EQ(ProblemOf(R"([{"name": )" + std::string(30, '[') + std::string(30, ']') + "}]"),
              "not valid JSON: it is nested too deeply");
}

TEST(CameraFile, ACameraThatNoRequestCanHoldIsNamed) {
    const auto cameras = ReadCameras("name,recording_path\na,/p\n" + std::string(1000, 'b') + ",/p\n");
    EXPECT_NO_THROW(cli::CheckLengths(cameras, 1100));
    try {
        cli::CheckLengths(cameras, 1000);
        FAIL();
    } catch (const cli::InputError& error) {
        EXPECT_STREQ(error.what(), "line 3: the camera is too long for a request of 1000 bytes");
    }
}

TEST(CameraFile, JsonMayBeAnArrayOrWhatTheListPrints) {
    const auto plain = ReadCameras(" [{\"name\": \"a\", \"recordingPath\": \"/p\"}]");
    ASSERT_EQ(plain.size(), 1U);
    EXPECT_EQ(plain[0].place, "camera 1");
    const auto listed = ReadCameras("{\"cameras\": [{\"id\": 7, \"name\": \"a\"}], \"total\": 1}");
    ASSERT_EQ(listed.size(), 1U);
    EXPECT_FALSE(listed[0].camera.isMember("id"));
    EXPECT_EQ(listed[0].camera["name"], "a");
}

TEST(CameraFile, BadJsonIsRefused) {
    EXPECT_EQ(ProblemOf("[1]"), "camera 1 is no object");
    EXPECT_EQ(ProblemOf("{}"),
              "the file must be an array of cameras, or an object that has one under \"cameras\"");
    EXPECT_EQ(ProblemOf("[{]").substr(0, 14), "not valid JSON");
}

TEST(CameraFile, BatchesStayWithinTheLimitAndLeaveNoneOut) {
    std::string csv = "name,recording_path\n";
    for (int i = 0; i < 100; ++i) {
        csv += "camera " + std::to_string(i) + ",/volume1/rec/" + std::to_string(i) + "\n";
    }
    const auto cameras = ReadCameras(csv);
    constexpr std::size_t kLimit = 500;
    std::size_t done = 0;
    while (done < cameras.size()) {
        const std::size_t length = BatchLength(cameras, done, kLimit);
        Json::Value batch(Json::arrayValue);
        for (std::size_t i = done; i < done + length; ++i) {
            batch.append(cameras[i].camera);
        }
        EXPECT_LE(cli::RequestText(batch).size(), kLimit + 2);
        ASSERT_GE(length, 1U);
        done += length;
    }
    EXPECT_EQ(done, cameras.size());
}

TEST(CameraFile, ACameraBeyondTheLimitIsABatchOfItsOwn) {
    const auto cameras = ReadCameras("name,recording_path\naaaaaaaaaaaaaaaaaaaaaaaa,/p\nb,/p\n");
    EXPECT_EQ(BatchLength(cameras, 0, 1), 1U);
    EXPECT_EQ(BatchLength(cameras, 1, 1), 1U);
}

}  // namespace
