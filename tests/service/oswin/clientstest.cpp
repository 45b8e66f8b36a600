#include <gtest/gtest.h>

#include "core/types/errors.h"
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

    // An object in a list of texts is a fault.
    EXPECT_EQ(
        JsonParser::parse(R"({"preferred_languages":["de",{"x":1}]})", std::make_shared<oswin::ProfileParser>(profile)),
        JsonError::exception_thrown);
}

}  // namespace
}  // namespace velmora::service
