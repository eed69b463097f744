// What the web view parses and computes on its own: request targets and who may reach them,
// the page's messages, the token, and the picture encodings.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include <opencv2/imgcodecs.hpp>

#include "PageMessage.h"
#include "PictureEncoder.h"
#include "Routes.h"
#include "Token.h"

namespace lumora::web {
namespace {

const std::string kToken = "0123456789abcdef0123456789abcdef";

TEST(Routes, OnlyThePagesRoutesWithTheTokenAreServed) {
    EXPECT_EQ(decide("/?token=" + kToken, kToken).status, 200);
    EXPECT_EQ(decide("/?token=" + kToken, kToken).route, Route::Page);
    const Decision socket = decide("/ws?png&token=" + kToken, kToken);
    EXPECT_EQ(socket.status, 200);
    EXPECT_EQ(socket.route, Route::Socket);
    EXPECT_EQ(decide("/etc/passwd?token=" + kToken, kToken).status, 404);
    EXPECT_EQ(decide("/../?token=" + kToken, kToken).status, 404);
    EXPECT_EQ(decide("/ws?token=" + kToken + "/", kToken).status, 403);

    // Anything without the right token is refused whatever the path, also when malformed.
    const std::string page = "/?token=" + kToken;
    const std::string query = "?token=" + kToken;
    const std::string twice = page + query.substr(1).insert(0, "&");
    for (const std::string& target :
         std::vector<std::string>{"/", "/ws", "/etc/passwd", "/?token=", "/?token=0123456789abcdef0123456789abcdee",
                                  page + "0", twice, page + "&debug=1", page + "&png=2", query, "/a b" + query,
                                  page + "\x01", std::string(kMaxTargetLength, '/') + query})
        EXPECT_EQ(decide(target, kToken).status, 403) << target;
    EXPECT_EQ(decide("/?token=", "").status, 403);

    const auto parsed = parseTarget("/ws?token=ab&png=1");
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->path, "/ws");
    EXPECT_EQ(parsed->token, "ab");
    EXPECT_TRUE(parsed->png);
    EXPECT_FALSE(parseTarget("/ws?token=ab")->png);
}

TEST(PageMessages, OnlyThePagesOwnFormsAreTaken) {
    const auto click = parsePageMessage("click 5 65535 12 4294967295");
    ASSERT_TRUE(click);
    EXPECT_EQ(click->kind, PageMessage::Kind::Click);
    EXPECT_EQ(click->view, 5);
    EXPECT_EQ(click->x, 65535);
    EXPECT_EQ(click->y, 12);
    EXPECT_EQ(click->sequence, 4294967295U);
    const auto cloud = parsePageMessage("cloud 1");
    ASSERT_TRUE(cloud);
    EXPECT_EQ(cloud->kind, PageMessage::Kind::Cloud);
    EXPECT_TRUE(cloud->on);
    EXPECT_FALSE(parsePageMessage("cloud 0")->on);
    const auto decoded = parsePageMessage("decoded 77");
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->kind, PageMessage::Kind::Decoded);
    EXPECT_EQ(decoded->sequence, 77U);
    EXPECT_EQ(parsePageMessage("measure 1")->kind, PageMessage::Kind::Measure);
    EXPECT_TRUE(parsePageMessage("measure 1")->on);
    EXPECT_FALSE(parsePageMessage("measure 0")->on);
    const auto roi = parsePageMessage("roi 0 65535 7 1");
    ASSERT_TRUE(roi);
    EXPECT_EQ(roi->kind, PageMessage::Kind::Roi);
    EXPECT_EQ(roi->x, 0);
    EXPECT_EQ(roi->y, 65535);
    EXPECT_EQ(roi->width, 7);
    EXPECT_EQ(roi->height, 1);

    for (const char* text :
         {"", "click", "click 1 2 3", "click 0 1 1 1", "click 6 1 1 1", "click 1 65536 1 1", "click 1 1 1 4294967296",
          "click 1 1 1 1 ", "click 1  1 1 1", "click -1 1 1 1", "click 1 1 1 1 1", "click 1 1 1 x", "cloud 2",
          "cloud 1 ", "decoded", "decoded 1 2", "CLICK 1 1 1 1", "hello",
          "click 1 1 1 00000000000000000000000000000000000000000000000000000000001"})
        EXPECT_FALSE(parsePageMessage(text)) << text;
    for (const char* text : {"measure", "measure 2", "measure 1 ", "roi 1 2 3", "roi 1 2 0 4", "roi 1 2 3 0",
                             "roi 1 2 3 65536", "roi 1 2 3 4 5", "roi -1 2 3 4"})
        EXPECT_FALSE(parsePageMessage(text)) << text;
}

TEST(Token, HoldsAHundredAndTwentyEightRandomBits) {
    std::set<std::string> tokens;
    for (int i = 0; i < 8; ++i) {
        const std::string token = makeToken();
        ASSERT_EQ(token.size(), 32U);
        EXPECT_EQ(token.find_first_not_of("0123456789abcdef"), std::string::npos);
        tokens.insert(token);
    }
    EXPECT_EQ(tokens.size(), 8U);
    EXPECT_TRUE(sameToken(kToken, kToken));
    EXPECT_FALSE(sameToken(kToken.substr(1), kToken));
    EXPECT_FALSE(sameToken("", ""));
}

TEST(PictureEncoder, KeepsTheColoursInTheirChannels) {
    PictureEncoder encoder;
    cv::Mat colour(48, 64, CV_8UC3, cv::Scalar(10, 20, 250));
    colour.at<cv::Vec3b>(5, 7) = {1, 2, 3};
    std::string png = "head";
    ASSERT_TRUE(PictureEncoder::png(colour, png));
    EXPECT_EQ(png.substr(0, 4), "head");
    const std::vector<unsigned char> pngBytes(png.begin() + 4, png.end());
    const cv::Mat lossless = cv::imdecode(pngBytes, cv::IMREAD_UNCHANGED);
    ASSERT_EQ(lossless.type(), CV_8UC3);
    EXPECT_EQ(cv::countNonZero(cv::Mat(lossless != colour).reshape(1)), 0);

    std::string jpeg;
    ASSERT_TRUE(encoder.jpeg(colour, 80, jpeg));
    const cv::Mat decoded = cv::imdecode(std::vector<unsigned char>(jpeg.begin(), jpeg.end()), cv::IMREAD_COLOR);
    ASSERT_EQ(decoded.size(), colour.size());
    const cv::Vec3b centre = decoded.at<cv::Vec3b>(30, 40);
    EXPECT_LT(centre[0], 40);
    EXPECT_GT(centre[2], 220);

    std::string gray;
    ASSERT_TRUE(encoder.jpeg(cv::Mat(4, 4, CV_8UC1, cv::Scalar(128)), 80, gray));
    EXPECT_EQ(cv::imdecode(std::vector<unsigned char>(gray.begin(), gray.end()), cv::IMREAD_UNCHANGED).channels(), 1);
    std::string refused;
    EXPECT_FALSE(encoder.jpeg(cv::Mat(4, 4, CV_16UC1), 80, refused));
    EXPECT_FALSE(encoder.jpeg(cv::Mat(), 80, refused));
    EXPECT_TRUE(refused.empty());
}

}  // namespace
}  // namespace lumora::web
