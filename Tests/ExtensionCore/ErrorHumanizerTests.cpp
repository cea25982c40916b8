#include "ExtensionCore/Clients/HTTPProxyError.hpp"
#include "ExtensionCore/Clients/InterfaceError.hpp"
#include "ExtensionCore/Clients/NetworkError.hpp"
#include "ExtensionCore/Clients/SOCKSError.hpp"
#include "ExtensionCore/Errors/ErrorConversion.hpp"
#include "ExtensionCore/Errors/ErrorHumanizer.hpp"

#include <cerrno>
#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>

namespace veltrane::core {
namespace {

// An error of some other component, seen only through the generic form.
class OtherError : public kit::Error {
public:
    OtherError(std::string domain, int code, std::string text)
        : domain_(std::move(domain)), code_(code), text_(std::move(text)) {}
    std::string domain() const override { return domain_; }
    int code() const override { return code_; }
    std::string localizedDescription() const override { return text_; }

private:
    std::string domain_;
    int code_;
    std::string text_;
};

const char* const unreachable = "网络不可达 — 检查网络连接";

TEST(ErrorHumanizerTest, EachErrorGivesItsLine) {
    struct Case {
        const char* name;
        std::exception_ptr error;
        const char* expected;
    } cases[] = {
        {"SOCKS connectionFailed drops its reason",
         std::make_exception_ptr(SOCKSError::connectionFailed("cancelled")),
         "连不上代理服务器 — 它可能没在运行，或地址端口填错了"},
        {"SOCKS unsupportedAuth", std::make_exception_ptr(SOCKSError::unsupportedAuth(0xff)),
         "代理要求的认证方式不支持"},
        {"SOCKS requestRejected, any REP", std::make_exception_ptr(SOCKSError::requestRejected(2)),
         "代理拒绝了这个连接 — 目标可能被代理端策略挡住了"},
        {"SOCKS handshakeFailed", std::make_exception_ptr(SOCKSError::handshakeFailed()),
         "代理握手异常 — 对端可能不是 SOCKS5 代理（端口填错？）"},
        {"SOCKS shortRead", std::make_exception_ptr(SOCKSError::shortRead()),
         "代理握手异常 — 对端可能不是 SOCKS5 代理（端口填错？）"},
        {"SOCKS authRequired", std::make_exception_ptr(SOCKSError::authRequired()),
         "代理认证失败 — 检查用户名和密码"},
        {"SOCKS authFailed", std::make_exception_ptr(SOCKSError::authFailed()),
         "代理认证失败 — 检查用户名和密码"},
        {"SOCKS valueTooLong keeps its own words",
         std::make_exception_ptr(SOCKSError::valueTooLong(SOCKSError::Field::password)),
         "代理密码超过 255 字节，SOCKS5 无法发送"},
        {"HTTP 407 keeps the client's wording",
         std::make_exception_ptr(HTTPProxyError::rejected(407, "x")),
         "代理认证失败（用户名或密码可能不对）"},
        {"HTTP rejected", std::make_exception_ptr(HTTPProxyError::rejected(403, "Forbidden")),
         "代理拒绝了连接（HTTP 403 Forbidden）"},
        {"HTTP rejected without a reason",
         std::make_exception_ptr(HTTPProxyError::rejected(502, "")), "代理拒绝了连接（HTTP 502 ）"},
        {"HTTP connectionFailed keeps its reason",
         std::make_exception_ptr(HTTPProxyError::connectionFailed("cancelled")),
         "无法连接代理：cancelled"},
        {"HTTP malformed", std::make_exception_ptr(HTTPProxyError::malformedResponse()),
         "代理返回了无法解析的响应"},
        {"ENETUNREACH",
         std::make_exception_ptr(NetworkError(platform::NWError::posix(ENETUNREACH))), unreachable},
        {"ECONNREFUSED by the other POSIX domain name",
         std::make_exception_ptr(OtherError("NSPOSIXErrorDomain", ECONNREFUSED, "x")),
         "连接被拒绝 — 代理没在监听这个端口"},
        {"the other platform's value is no refusal here",
         std::make_exception_ptr(OtherError("POSIX", 61, "No data available")),
         "No data available"},
        {"other POSIX code keeps its description",
         std::make_exception_ptr(NetworkError(platform::NWError{
             platform::NWError::Domain::posix, ECONNRESET, "Connection reset by peer"})),
         "Connection reset by peer"},
        {"same code in another domain",
         std::make_exception_ptr(NetworkError(
             platform::NWError{platform::NWError::Domain::dns, ECONNREFUSED, "dns failure"})),
         "dns failure"},
        {"system_error",
         std::make_exception_ptr(std::system_error(ETIMEDOUT, std::generic_category())),
         "连接超时 — 代理没有响应"},
        {"plain exception", std::make_exception_ptr(std::runtime_error("boom")), "boom"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(ErrorHumanizer::humanize(c.error), c.expected);
        // The same error after it crossed the flow host in its generic form.
        EXPECT_EQ(ErrorHumanizer::humanize(flowError(c.error)), c.expected);
    }
}

TEST(ErrorHumanizerTest, GenericForms) {
    using platform::FlowError;
    struct Case {
        FlowError error;
        const char* expected;
    } cases[] = {
        {{SOCKSError::errorDomain, 99, "odd"}, "odd"},
        {{HTTPProxyError::errorDomain, 1, ""}, "代理连接失败"},
        {FlowError::posix(EHOSTUNREACH), unreachable},
        {flowError(InterfaceError::connectionFailed("utun4", "Connection refused")),
         "经网卡「utun4」连接失败：Connection refused"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.error.text);
        EXPECT_EQ(ErrorHumanizer::humanize(c.error), c.expected);
    }
}

TEST(ErrorHumanizerTest, BareConnectionServiceErrors) {
    EXPECT_EQ(ErrorHumanizer::humanize(platform::NWError::posix(ECONNREFUSED)),
              "连接被拒绝 — 代理没在监听这个端口");
    EXPECT_EQ(ErrorHumanizer::humanize(std::exception_ptr()), "");
}

} // namespace
} // namespace veltrane::core
