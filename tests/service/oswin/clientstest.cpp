#include <gtest/gtest.h>

#include "service/oswin/profile.h"
#include "service/selby/trackingflag.h"

namespace velmora::service {
namespace {

TEST(Clients, ReadWhatTheServicesSend) {
    oswin::Profile profile;
    EXPECT_FALSE(JsonParser::parse(
        R"({"account_type":"type1","preferred_languages":["de","fr",1],"userId":"u","mrktPerm":true,"mrktPermEmail":"m",
            "other":{"userId":"x","serviceAccounts":[{"ident":"x"}]},
            "serviceAccounts":[{"serviceCode":"a","serviceLevel":1,"more":{"ident":"x"}},{"ident":"i","serviceStatus":"s"}]})",
        std::make_shared<oswin::ProfileParser>(profile)));
    EXPECT_EQ(profile.accountType, "type1");
    EXPECT_EQ(profile.preferredLanguages, (std::vector<std::string>{"de", "fr"}));
    EXPECT_EQ(profile.userId, "u");
    EXPECT_EQ(profile.mrktPerm, "");
    EXPECT_EQ(profile.mrktPermEmail, "m");
    ASSERT_EQ(profile.serviceAccounts.size(), 2u);
    EXPECT_EQ(profile.serviceAccounts[0].serviceCode, "a");
    EXPECT_EQ(profile.serviceAccounts[0].serviceLevel + profile.serviceAccounts[0].ident, "");
    EXPECT_EQ(profile.serviceAccounts[1].ident, "i");
    EXPECT_EQ(profile.serviceAccounts[1].serviceStatus, "s");

    selby::TrackingFlag flag;
    EXPECT_FALSE(
        JsonParser::parse(R"({"tracking_flag":"PII","x":1})", std::make_shared<selby::TrackingFlagParser>(flag)));
    EXPECT_EQ(flag.trackingFlag, "PII");
    for (const auto& [text, expected] :
         {std::pair("pIi", true), {"PII", true}, {"PI", false}, {"PII ", false}, {"", false}}) {
        EXPECT_EQ(selby::isPII(text), expected) << text;
    }
}

TEST(Clients, BuildTheirRequests) {
    const http::Request profile = oswin::makeProfileRequest("https://host/", "token");
    EXPECT_EQ(profile.url, "https://host/oswin/profile");
    EXPECT_EQ(profile.verb, http::Verb::GET);
    EXPECT_EQ(profile.headers, (http::Headers{{"Authorization", "Bearer token"}}));
    const http::Request flag = selby::makeTrackingFlagRequest("http://host", "token");
    EXPECT_EQ(flag.url, "http://host/fetch_user_tracking_flag");
    EXPECT_EQ(flag.headers, (http::Headers{{"Access-Token", "token"}}));
    EXPECT_NE(oswin::defaultBaseUrl(Environment::prod), oswin::defaultBaseUrl(Environment::stage));
    EXPECT_EQ(selby::defaultBaseUrl(Environment::prod), selby::defaultBaseUrl(static_cast<Environment>(7)));
}

}  // namespace
}  // namespace velmora::service
