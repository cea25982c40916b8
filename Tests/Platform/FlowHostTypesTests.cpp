// What every flow host shares. The in-memory host and flows themselves are
// test doubles, exercised through the suites that drive the provider with them.
#include "Platform/FlowError.hpp"
#include "Platform/NEFlowMetaData.hpp"
#include "Platform/NETransparentProxyProvider.hpp"

#include <gtest/gtest.h>

namespace {

using namespace veltrane::platform;

Bytes text(std::string_view s) {
    return Bytes(s.begin(), s.end());
}

TEST(FlowHostTypesTest, OrderlyEndsAndAuditTokens) {
    struct ErrorCase {
        std::optional<FlowError> error;
        bool orderly;
    } errors[] = {
        {std::nullopt, true},
        {NEAppProxyError::notConnected(), true},
        {NEAppProxyError::make(NEAppProxyError::Code::peerReset), false},
        {FlowError{"OtherDomain", 1, "same code, other domain"}, false},
    };
    for (const auto& c : errors) {
        EXPECT_EQ(isOrderlyEnd(c.error), c.orderly) << (c.error ? c.error->text : "none");
    }

    struct TokenCase {
        Bytes token;
        std::optional<std::int32_t> pid;
    } tokens[] = {
        {makeAuditToken(4242), 4242},
        {Bytes(31, 0), std::nullopt},
        {makeAuditToken(0), std::nullopt},
        {[] {
             Bytes longer = makeAuditToken(77);
             longer.push_back(1);
             return longer;
         }(),
         77},
    };
    for (const auto& c : tokens) {
        EXPECT_EQ(auditTokenProcessID(c.token), c.pid);
    }
}

class Unattached final : public NETransparentProxyProvider {
public:
    void startProxy(std::optional<ProviderDictionary>, StartCompletion) override {}
    void stopProxy(NEProviderStopReason, StopCompletion) override {}
    void handleAppMessage(Bytes, AppMessageCompletion) override {}
    bool handleNewFlow(std::shared_ptr<NEAppProxyFlow>) override { return false; }
};

TEST(ProviderBaseTest, SettingsNeedAHostAndOnlyBytesAreConfiguration) {
    Unattached provider;
    std::optional<FlowError> result;
    provider.setTunnelNetworkSettings(std::nullopt,
                                      [&](const std::optional<FlowError>& e) { result = e; });
    EXPECT_TRUE(result.has_value()) << "no host attached";

    const ProviderDictionary configuration{{"profile", text("{}")}, {"note", std::string("text")}};
    EXPECT_EQ(providerBytes(configuration, "profile"), text("{}"));
    EXPECT_EQ(providerBytes(configuration, "note"), std::nullopt);
}

} // namespace
