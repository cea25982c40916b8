#include "Platform/memory/MemoryTCPFlow.hpp"

#include <asio/io_context.hpp>
#include <asio/post.hpp>

namespace veltrane::platform {

namespace {

MemoryPoster posterFor(DispatchQueue& queue) {
    return [&queue](std::function<void()> fn) { asio::post(queue, std::move(fn)); };
}

} // namespace

MemoryTCPFlow::MemoryTCPFlow(MemoryPoster post, NWEndpointRef remoteEndpoint,
                             NEFlowMetaData metaData)
    : MemoryFlow(std::move(post), std::move(metaData), std::nullopt),
      remoteEndpoint_(std::move(remoteEndpoint)) {}

std::shared_ptr<MemoryTCPFlow> MemoryTCPFlow::make(DispatchQueue& queue, std::string hostname,
                                                   std::string port, NEFlowMetaData metaData) {
    return make(queue, NWHostEndpoint::endpointWithHostname(std::move(hostname), std::move(port)),
                std::move(metaData));
}

std::shared_ptr<MemoryTCPFlow>
MemoryTCPFlow::make(DispatchQueue& queue, NWEndpointRef remoteEndpoint, NEFlowMetaData metaData) {
    return std::make_shared<MemoryTCPFlow>(posterFor(queue), std::move(remoteEndpoint),
                                           std::move(metaData));
}

Bytes MemoryTCPFlow::received() const {
    Bytes all;
    for (const auto& chunk : record().written) {
        all.insert(all.end(), chunk.begin(), chunk.end());
    }
    return all;
}

void MemoryTCPFlow::readData(ReadCompletion completion) {
    startRead([completion = std::move(completion)](std::optional<Bytes> data,
                                                   const std::optional<FlowError>& error) {
        completion(std::move(data), error);
    });
}

void MemoryTCPFlow::writeData(Bytes data, WriteCompletion completion) {
    startWrite(std::move(data), std::move(completion));
}

} // namespace veltrane::platform
