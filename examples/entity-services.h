// entity-services.h: the services of plexa-entity-server (echo and
// key-value, see entity-protocol.h) and the acceptor that gives each
// connection an entity handler over them. Shared with tests/soak, so that
// what the soak loads is the server's own code.
#ifndef PLEXA_EXAMPLES_ENTITY_SERVICES_H
#define PLEXA_EXAMPLES_ENTITY_SERVICES_H

#include "entity-protocol.h"

#include <plexa/plexa.h>

#include <map>
#include <mutex>
#include <string>

namespace entity_services {

using namespace entity_protocol;

int const kRecvMax = 16 * 1024 * 1024 + 64;  // one whole frame of the largest size
int const kRecvGrow = 16 * 1024;
int const kSendMax = 32 * 1024 * 1024;  // a peer that never reads is closed here

// Opaque bytes after the uri, for the echo service.
struct RawBody : public ZNRMarshallable {
    unsigned char const* data = nullptr;
    int size = 0;
    std::uint64_t Marshal(ZNRPack* pack) const override {
        return pack->Concatenate(data, static_cast<unsigned int>(size));
    }
    std::uint64_t Unmarshal(ZNRUnpack*) override { return 0; }
};

class EchoProxy : public ZNREntityTargetProxyBase {
public:
    bool Dispatch(unsigned char const* body, int length, bool, void* context) override {
        ZNREntityRequest const* const request = static_cast<ZNREntityRequest*>(context);
        RawBody raw;
        raw.data = body;
        raw.size = length;
        return ZNRReplySender(*request).SendEntity(kEchoUri, raw, request->compress_flag) == 0;
    }
    void Destroy() override { delete this; }
};

// One map for all connections, whichever reactor they are on.
class KvService {
public:
    bool Put(KvPutRequest const& request, void* context) {
        {
            std::lock_guard<std::mutex> guard(mutex_);
            ZNRByteBuffer const& v = request.value;
            store_[request.key].assign(reinterpret_cast<char const*>(v.GetData()), v.GetDataCount());
        }
        KvReply reply;
        return Answer(kKvPutUri, &reply, context);
    }
    bool Get(KvKeyRequest const& request, void* context) {
        KvReply reply;
        {
            std::lock_guard<std::mutex> guard(mutex_);
            auto const found = store_.find(request.key);
            if (found == store_.end()) {
                reply.status = STATUS_NOT_FOUND;
            } else {
                std::string const& v = found->second;
                reply.value.SetCapacity(static_cast<unsigned int>(v.size()));
                reply.value.AppendData(reinterpret_cast<unsigned char const*>(v.data()),
                                       static_cast<unsigned int>(v.size()));
            }
        }
        return Answer(kKvGetUri, &reply, context);
    }
    bool Delete(KvKeyRequest const& request, void* context) {
        KvReply reply;
        {
            std::lock_guard<std::mutex> guard(mutex_);
            if (store_.erase(request.key) == 0) reply.status = STATUS_NOT_FOUND;
        }
        return Answer(kKvDeleteUri, &reply, context);
    }

private:
    static bool Answer(unsigned int uri, KvReply* reply, void* context) {
        ZNREntityRequest const* const request = static_cast<ZNREntityRequest*>(context);
        return ZNRReplySender(*request).SendEntity(uri, *reply, request->compress_flag) == 0;
    }

    std::mutex mutex_;
    std::map<std::string, std::string> store_;
};

// Routes the echo uri and the key-value uris of kv into map.
inline void AddServices(ZNREntityMap* map, KvService* kv) {
    map->AddEntityMap(kEchoUri, new EchoProxy());
    map->AddEntityTarget(kKvPutUri, kv, &KvService::Put);
    map->AddEntityTarget(kKvGetUri, kv, &KvService::Get);
    map->AddEntityTarget(kKvDeleteUri, kv, &KvService::Delete);
}

// Ends what a server made: the reactors with their connections (before
// the map their handlers copied), the map's targets, the logger and the
// thread manager.
inline void StopServer(ZNREntityMap* map) {
    ZNRSingleton<ZNRReactorMgr>::Instance()->RemoveAll();
    ZNRSingleton<ZNRReactorMgr>::Destroy();
    map->RemoveAllEntityMap();
    ZNRSingleton<ZNRLogger>::Instance()->UnregisterAllWriters();
    ZNRSingleton<ZNRLogger>::Destroy();
    ZNRThreadMgr::Destroy();
}

// Gives each accepted connection an entity handler over map, which must
// outlive the reactors.
class EntityAcceptor : public ZNRTcpAcceptor {
public:
    explicit EntityAcceptor(ZNREntityMap const* map, int recv_max = kRecvMax, int recv_grow = kRecvGrow,
                            int send_max = kSendMax)
        : ZNRTcpAcceptor(recv_max, recv_grow, send_max), map_(map) {}

protected:
    ZNRDeviceHandler* OnCreateHandler(std::uint64_t reactor) override {
        return new ZNREntityDeviceHandler(*map_, reactor);
    }

    ZNREntityMap const* map_;
};

}  // namespace entity_services

#endif
