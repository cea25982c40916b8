// Any datagram through the question parser and the whole responder: never a
// crash, never a read past the input, and an answer only in the fixed layout.
#include "ExtensionCore/DNS/DNSResponder.hpp"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

using veltrane::core::DNSResponder;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static DNSResponder responder = [] {
        DNSResponder r(std::make_shared<veltrane::kit::FakeIPAllocator>(0x10000, 3600),
                       {"localhost", "*.local", "%ComputerName%", "a?c.*.example"});
        r.computerName = [] { return std::string("fuzz.box"); };
        return r;
    }();
    const std::span<const std::uint8_t> datagram(data, size);
    const auto question = DNSResponder::parseQuestion(datagram);
    if (question && (question->questionEnd > size || question->questionEnd < 12 + 2 + 4 ||
                     question->name.empty())) {
        std::abort();
    }
    const auto outcome = responder.handle(datagram);
    if (const auto* answered = std::get_if<DNSResponder::Answered>(&outcome)) {
        if (!question || answered->response.size() != question->questionEnd + 16 ||
            answered->hostname != question->name) {
            std::abort();
        }
    } else if (std::get<DNSResponder::Passthrough>(outcome).hostname.has_value() !=
               question.has_value()) {
        std::abort();
    }
    return 0;
}
