// The cost of the message layer over the bare transport it sits on: a request/reply round trip
// through LXPCBase (key-table encoding, reply handler, decoding into a value list, the
// callback) against the same round trip made with the transport's own calls, over the same
// kind of connection (an anonymous listener reached through its endpoint, both ends in this
// process). The data pairs do the same with a 4 KiB and a 1 MiB data value.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstring>
#include <string>

#include "xpc/lxpc_base.h"
#include "xpc/lxpc_server.h"

using namespace lxpc;

namespace {

const LXPCDictionaryKey kRequestKeys[] = {
    {"REQ", LXPCDataTypeInt64}, {"PAYLOAD", LXPCDataTypeData}, {"", LXPCDataTypeNone}};
const LXPCDictionaryKey kReplyKeys[] = {{"REP", LXPCDataTypeInt64}, {"", LXPCDataTypeNone}};

long Handle(xpc_object_t object) {
    return static_cast<long>(reinterpret_cast<intptr_t>(object));
}

// Answers every request with REP = REQ + 1.
class EchoServer final : public LXPCServerEventNotify {
public:
    LXPCBase* base = nullptr;
    void EvConnectionError(long, LXPCErrorType) override {}
    void EvMessageSent(long) override {}
    void EvReplyReceived(long, LList<LXPCDataListable> const&) override {}
    void EvInvalidConnectionAttempt() override {}
    void EvMessageReceived(long connection, long message,
                           LList<LXPCDataListable> const& data) override {
        LXPCDictionaryKeyListable key;
        LXPCCopyName(key.szName, "REP");
        key.type = LXPCDataTypeInt64;
        LList<LXPCDataListable> reply;
        for (const LXPCDataListable& value : data) {
            if (std::strcmp(value.szName, "REQ") == 0) {
                reply.PushFront(CreateXPCData(key, value.nValue + 1, 0));
            }
        }
        base->SendReply(connection, message, reply);
    }
};

// Counts replies; the benchmark thread waits on the counter.
class ReplyCounter final : public LXPCEventNotify {
public:
    std::atomic<uint64_t> replies{0};
    void EvConnectionError(long, LXPCErrorType) override {}
    void EvMessageSent(long) override {}
    void EvMessageReceived(long, long, LList<LXPCDataListable> const&) override {}
    void EvReplyReceived(long, LList<LXPCDataListable> const&) override {
        replies.fetch_add(1, std::memory_order_release);
        replies.notify_one();
    }
};

// A server behind an anonymous listener and one client connection to it.
class Link {
public:
    Link() : server_(&serverEvents_), client_(&clientEvents_) {
        serverEvents_.base = &server_;
        server_.AddKeys(kRequestKeys, true);
        server_.AddKeys(kReplyKeys, false);
        client_.AddKeys(kRequestKeys, false);
        client_.AddKeys(kReplyKeys, true);
        listener_ = xpc_connection_create(nullptr, nullptr);
        xpc_connection_set_event_handler(
            listener_, [](xpc_object_t peer) { LXPCServerBase::StaticNewConnectionHandler(peer); });
        xpc_connection_resume(listener_);
        endpoint_ = xpc_endpoint_create(listener_);
        xpc_connection_t connection = xpc_connection_create_from_endpoint(endpoint_);
        connection_ = std::make_unique<LXPCConnection>(Handle(connection));
        client_.SetupConnectionHandlerAndResume(*connection_);
        connection_->Retain();
        xpc_release(connection);
    }
    ~Link() {
        connection_.reset();
        xpc_connection_cancel(listener_);
        xpc_release(listener_);
        xpc_release(endpoint_);
    }

    // One request through the message layer; returns once its reply has been delivered.
    void RoundTrip(LList<LXPCDataListable> const& request) {
        const uint64_t before = clientEvents_.replies.load(std::memory_order_acquire);
        client_.SendMessage(connection_->hConnection, request, true);
        clientEvents_.replies.wait(before, std::memory_order_acquire);
    }

    xpc_endpoint_t Endpoint() const { return endpoint_; }

private:
    EchoServer serverEvents_;
    LXPCServer server_;
    ReplyCounter clientEvents_;
    LXPCBase client_;
    xpc_connection_t listener_ = nullptr;
    xpc_endpoint_t endpoint_ = nullptr;
    std::unique_ptr<LXPCConnection> connection_;
};

LList<LXPCDataListable> Request(const std::string& payload) {
    LList<LXPCDataListable> request;
    LXPCDictionaryKeyListable key;
    LXPCCopyName(key.szName, "REQ");
    key.type = LXPCDataTypeInt64;
    request.PushFront(CreateXPCData(key, 41, 0));
    if (!payload.empty()) {
        LXPCCopyName(key.szName, "PAYLOAD");
        key.type = LXPCDataTypeData;
        request.PushFront(CreateXPCData(
            key, static_cast<long>(reinterpret_cast<intptr_t>(payload.data())), payload.size()));
    }
    return request;
}

void MessageLayer(benchmark::State& state) {
    Link link;
    const std::string payload(static_cast<size_t>(state.range(0)), 'p');
    const LList<LXPCDataListable> request = Request(payload);
    for (auto _ : state) {
        link.RoundTrip(request);
    }
    if (state.range(0) > 0) {
        state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
    }
}

// The same exchange with the transport's calls alone: the peer answers in its event handler.
void BareTransport(benchmark::State& state) {
    xpc_connection_t listener = xpc_connection_create(nullptr, nullptr);
    xpc_connection_set_event_handler(listener, [](xpc_object_t peer) {
        if (xpc_get_type(peer) != XPC_TYPE_CONNECTION) {
            return;
        }
        // Held until the peer's connection ends, as LXPCServerBase holds its connections.
        xpc_retain(peer);
        xpc_connection_set_event_handler(peer, [peer](xpc_object_t message) {
            if (message == XPC_ERROR_CONNECTION_INVALID) {  // delivered once, and last
                xpc_release(peer);
                return;
            }
            if (xpc_get_type(message) != XPC_TYPE_DICTIONARY) {
                return;
            }
            xpc_object_t reply = xpc_dictionary_create_reply(message);
            xpc_dictionary_set_int64(reply, "REP", xpc_dictionary_get_int64(message, "REQ") + 1);
            xpc_connection_send_message(peer, reply);
            xpc_release(reply);
        });
        xpc_connection_resume(peer);
    });
    xpc_connection_resume(listener);
    xpc_endpoint_t endpoint = xpc_endpoint_create(listener);
    xpc_connection_t connection = xpc_connection_create_from_endpoint(endpoint);
    xpc_connection_set_event_handler(connection, [](xpc_object_t) {});
    xpc_connection_resume(connection);

    const std::string payload(static_cast<size_t>(state.range(0)), 'p');
    std::atomic<uint64_t> replies{0};
    for (auto _ : state) {
        const uint64_t before = replies.load(std::memory_order_acquire);
        xpc_object_t request = xpc_dictionary_create(nullptr, nullptr, 0);
        xpc_dictionary_set_int64(request, "REQ", 41);
        if (!payload.empty()) {
            xpc_dictionary_set_data(request, "PAYLOAD", payload.data(), payload.size());
        }
        xpc_connection_send_message_with_reply(
            connection, request, nullptr, [&replies](xpc_object_t reply) {
                benchmark::DoNotOptimize(xpc_dictionary_get_int64(reply, "REP"));
                replies.fetch_add(1, std::memory_order_release);
                replies.notify_one();
            });
        xpc_release(request);
        replies.wait(before, std::memory_order_acquire);
    }
    if (state.range(0) > 0) {
        state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
    }
    xpc_connection_cancel(connection);
    xpc_release(connection);
    xpc_connection_cancel(listener);
    xpc_release(listener);
    xpc_release(endpoint);
}

}  // namespace

BENCHMARK(MessageLayer)->Arg(0)->Arg(4096)->Arg(1 << 20)->UseRealTime();
BENCHMARK(BareTransport)->Arg(0)->Arg(4096)->Arg(1 << 20)->UseRealTime();
