// entity-protocol.h: what plexa-entity-server speaks, shared with the
// clients that talk to it.
//
// Framing. Every request and every reply is one trans-message frame:
//
//   byte 0      0x00
//   byte 1      0x02 when the body is raw-deflated (compress flag 1), else 0x00
//               (0x80 is added for a big-endian body; these services use
//               little-endian bodies only)
//   bytes 2-4   body length as it is on the wire, 24-bit little-endian
//   bytes 5..   body; once inflated: the u32 uri, little-endian, then the
//               entity as its Marshal wrote it (integers little-endian,
//               a std::string as u16 length + bytes, a ZNRByteBuffer as
//               u32 length + bytes)
//
// ZNRDataSender::CreateByEntityProtocol builds exactly this, and the
// dispatcher cuts it in ZNRDataDispatcher::MODE_ENTITY. Frames may be
// pipelined: replies come back in request order on each connection.
//
// Services. Echo (uri 0x00010001) takes any bytes after the uri and answers
// with the same frame body (uri and bytes), compressed when the request was
// and not otherwise. Key-value (service 2) keeps one in-memory map shared by
// all connections: put stores the value under the key (replacing any) and
// answers {STATUS_OK, empty}; get answers {STATUS_OK, value} or
// {STATUS_NOT_FOUND, empty}; delete answers {STATUS_OK, empty} when the key
// was there, else {STATUS_NOT_FOUND, empty}. A key-value reply carries the
// uri of its request and is compressed when the request was. A frame the
// dispatcher cannot cut (bad header, bad deflate data), a body shorter than
// a uri, an unknown uri or a key-value body that does not unmarshal is not
// answered: the server logs it and closes that connection.
#ifndef PLEXA_EXAMPLES_ENTITY_PROTOCOL_H
#define PLEXA_EXAMPLES_ENTITY_PROTOCOL_H

#include <plexa/plexa.h>

#include <string>

namespace entity_protocol {

unsigned short const kEchoService = 1;
unsigned short const kKvService = 2;

unsigned int const kEchoUri = ZNRMakeEntityUri(kEchoService, 1);  // 0x00010001
unsigned int const kKvPutUri = ZNRMakeEntityUri(kKvService, 1);   // 0x00020001
unsigned int const kKvGetUri = ZNRMakeEntityUri(kKvService, 2);   // 0x00020002
unsigned int const kKvDeleteUri = ZNRMakeEntityUri(kKvService, 3);  // 0x00020003

enum Status_t : unsigned int {
    STATUS_OK = 0,
    STATUS_NOT_FOUND = 1,
};

// put: u16 key length, key, u32 value length, value.
struct KvPutRequest : public ZNRMarshallable {
    std::string key;
    ZNRByteBuffer value;

    std::uint64_t Marshal(ZNRPack* pack) const override {
        std::uint64_t error = pack->Push(key);
        return error != 0 ? error : pack->Push(value);
    }
    std::uint64_t Unmarshal(ZNRUnpack* unpack) override {
        std::uint64_t error = unpack->Pop(&key);
        return error != 0 ? error : unpack->Pop(&value);
    }
};

// get and delete: u16 key length, key.
struct KvKeyRequest : public ZNRMarshallable {
    std::string key;

    std::uint64_t Marshal(ZNRPack* pack) const override { return pack->Push(key); }
    std::uint64_t Unmarshal(ZNRUnpack* unpack) override { return unpack->Pop(&key); }
};

// Every key-value reply: u32 status, u32 value length, value.
struct KvReply : public ZNRMarshallable {
    unsigned int status = STATUS_OK;
    ZNRByteBuffer value;

    std::uint64_t Marshal(ZNRPack* pack) const override {
        std::uint64_t error = pack->Push(status);
        return error != 0 ? error : pack->Push(value);
    }
    std::uint64_t Unmarshal(ZNRUnpack* unpack) override {
        std::uint64_t error = unpack->Pop(&status);
        return error != 0 ? error : unpack->Pop(&value);
    }
};

}  // namespace entity_protocol

#endif
