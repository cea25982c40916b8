#include "Platform/memory/MemoryUDPFlow.hpp"

#include <asio/io_context.hpp>
#include <asio/post.hpp>

namespace veltrane::platform {

MemoryUDPFlow::MemoryUDPFlow(MemoryPoster post, NWEndpointRef localEndpoint,
                             NEFlowMetaData metaData)
    : MemoryFlow(std::move(post), std::move(metaData),
                 MemoryDatagramBatch{std::vector<Bytes>{}, std::vector<NWEndpointRef>{}}),
      localEndpoint_(std::move(localEndpoint)) {}

std::shared_ptr<MemoryUDPFlow>
MemoryUDPFlow::make(DispatchQueue& queue, NWEndpointRef localEndpoint, NEFlowMetaData metaData) {
    MemoryPoster post = [&queue](std::function<void()> fn) { asio::post(queue, std::move(fn)); };
    return std::make_shared<MemoryUDPFlow>(std::move(post), std::move(localEndpoint),
                                           std::move(metaData));
}

void MemoryUDPFlow::readDatagrams(ReadDatagramsCompletion completion) {
    startRead([completion = std::move(completion)](MemoryDatagramBatch batch,
                                                   const std::optional<FlowError>& error) {
        completion(std::move(batch.datagrams), std::move(batch.endpoints), error);
    });
}

void MemoryUDPFlow::writeDatagrams(std::vector<Bytes> datagrams, std::vector<NWEndpointRef> sentBy,
                                   WriteDatagramsCompletion completion) {
    startWrite(MemoryDatagramWrite{std::move(datagrams), std::move(sentBy)}, std::move(completion));
}

} // namespace veltrane::platform
