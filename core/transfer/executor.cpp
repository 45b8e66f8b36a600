#include "core/transfer/executor.h"

#include <utility>

#include "core/transfer/requestcontext.h"
#include "core/transfer/transferimpl.h"
#include "core/types/errors.h"
#include "core/types/logger.h"

namespace velmora::transfer {
namespace {

// What is bound holds the context, and the context the transfer: the transfer drops its callbacks with its outcome.
void bindCallbacks(const std::shared_ptr<RequestContext>& context) {
    TransferRequest& transfer = context->transfer();
    transfer.setStatusCallback([context](const std::string&, int status, const std::string&) {
        context->inform([&](http::Responder& responder) { responder.setStatus(status); });
    });
    transfer.setHeadersCallback([context](const http::Headers& headers) {
        context->inform([&](http::Responder& responder) { responder.setHeaders(headers); });
    });
    transfer.setBodyCallback([context](uint64_t offset, const std::string& chunk) {
        context->inform(
            [&](http::Responder& responder) { responder.addBodyChunk(offset, chunk.data(), chunk.size()); });
    });
    transfer.setCompletionCallback([context](const TransferResponse&) {
        context->conclude([](http::Responder& responder) { responder.onSuccess(); });
    });
    transfer.setErrorCallback([context](const TransferResponse& response) {
        context->conclude([error = response.error](http::Responder& responder) { responder.onFailure(error); });
    });
    transfer.setCancelCallback([context] {
        context->conclude([](http::Responder& responder) { responder.onFailure(VelmoraHttpError::cancelled); });
    });
}

void dropCallbacks(TransferRequest& transfer) {
    transfer.setStatusCallback(nullptr);
    transfer.setHeadersCallback(nullptr);
    transfer.setBodyCallback(nullptr);
    transfer.setCompletionCallback(nullptr);
    transfer.setErrorCallback(nullptr);
    transfer.setCancelCallback(nullptr);
}

bool executeRequestAsync(const std::shared_ptr<RequestContext>& context, std::error_code& error) {
    const bool isStopped = !context->begin();
    if (isStopped) {
        error = VelmoraHttpError::cancelled;
    } else {
        bindCallbacks(context);
        try {
            if (context->transfer().perform(error)) return true;
        } catch (...) {
            dropCallbacks(context->transfer());
            context->conclude(nullptr);
            throw;
        }
    }
    VELMORA_LOGF(error, "http", "Request failed synchronously!");
    dropCallbacks(context->transfer());
    context->conclude([error](http::Responder& responder) { responder.onFailure(error); });
    return false;
}

}  // namespace

RequestHandle::RequestHandle(std::shared_ptr<RequestContext> context) : context_(std::move(context)) {}

RequestHandle::~RequestHandle() { context_->stop(); }

void RequestHandle::waitForCompletion() { context_->waitForCompletion(); }

ExecutorImpl::ExecutorImpl(std::shared_ptr<TransferEngine> engine) : engine_(std::move(engine)) {}

std::shared_ptr<RequestHandle> ExecutorImpl::createContext(http::Request request,
                                                           std::shared_ptr<http::Responder> responder) {
    VELMORA_LOG(info, "http") << "Request: " << request.verb << " " << request.url;
    auto transfer = std::make_shared<TransferImpl>(engine_, std::move(request));
    return std::make_shared<RequestHandle>(std::make_shared<RequestContext>(std::move(transfer), std::move(responder)));
}

bool ExecutorImpl::execute(const std::shared_ptr<RequestHandle>& handle, std::error_code& error) {
    const std::shared_ptr<RequestContext> context = handle->sharedContext();  // the handle may go meanwhile
    return executeRequestAsync(context, error);
}

}  // namespace velmora::transfer
