#include <plexa/znr-data-dispatcher.h>

#include <plexa/znr-byte-buffer.h>
#include <plexa/znr-error.h>
#include <plexa/znr-logger.h>
#include <plexa/znr-string.h>
#include <plexa/znr-trans-message.h>

#include <climits>
#include <cstring>
#include <string>

namespace {

std::uint32_t ReadLE32(unsigned char const* p) {
    return static_cast<std::uint32_t>(p[0]) | (static_cast<std::uint32_t>(p[1]) << 8) |
           (static_cast<std::uint32_t>(p[2]) << 16) | (static_cast<std::uint32_t>(p[3]) << 24);
}

}  // namespace

ZNRDataDispatcher::ZNRDataDispatcher() {}

ZNRDataDispatcher::ZNRDataDispatcher(ZNRDataDispatcher const&) {}

ZNRDataDispatcher& ZNRDataDispatcher::operator=(ZNRDataDispatcher const&) { return *this; }

ZNRDataDispatcher::~ZNRDataDispatcher() {}

bool ZNRDataDispatcher::DispatchData(unsigned char const* data, int size, int* consumed,
                                     Mode_t mode) {
    if (size < 0) size = 0;
    int done = 0;
    std::uint64_t error = 0;
    Failure_t failure = FAILURE_NONE;
    switch (mode) {
    case MODE_ENTITY:
    case MODE_TRANS_MESSAGE:
        failure = DispatchTransMessages(data, size, &done, mode, &error);
        break;
    case MODE_COMPAT_ENTITY:
        failure = DispatchCompatEntities(data, size, &done);
        break;
    case MODE_ORIGINAL:
        if (!OnOriginalDataDispatch(data, size)) return false;
        done = size;
        break;
    case MODE_UNIXLINE:
        failure = DispatchLines(data, size, &done, false);
        if (failure == FAILURE_CONVERT) {
            ZNR_LOG(WARNING,
                    "Dispatch unixline error, can not convert unixline(utf8) to locale string");
        }
        break;
    case MODE_DOSLINE:
        failure = DispatchLines(data, size, &done, true);
        if (failure == FAILURE_CONVERT) {
            ZNR_LOG(WARNING,
                    "Dispatch dosline data error, can not convert dosline(utf8) to locale string");
        }
        break;
    default:
        ZNR_LOG(WARNING, "Can not dispatch data, mode is not support!");
        return false;
    }

    switch (failure) {
    case FAILURE_NONE:
        if (consumed != nullptr) *consumed = done;
        return true;
    case FAILURE_HEADER:
        ZNR_LOG(WARNING, "Parse trans message header error, error=\"%s\"",
                ZNRGetErrorText(error).c_str());
        return false;
    case FAILURE_GZIP_BODY:
        ZNR_LOG(WARNING, "Parse trans message body error, invalid gzip data, error=\"%s\"",
                ZNRGetErrorText(error).c_str());
        return false;
    case FAILURE_COMPRESS_TYPE:
        ZNR_LOG(WARNING, "Parse trans message body error, not support compress type");
        return false;
    default:
        return false;
    }
}

bool ZNRDataDispatcher::DispatchData(ZNRByteBuffer const* buffer, int* offset, Mode_t mode) {
    if (buffer == nullptr || offset == nullptr || *offset < 0 ||
        static_cast<unsigned int>(*offset) > buffer->GetDataCount()) {
        return false;
    }
    unsigned int available = buffer->GetDataCount() - static_cast<unsigned int>(*offset);
    if (available > static_cast<unsigned int>(INT_MAX)) available = INT_MAX;
    int consumed = 0;
    if (!DispatchData(buffer->GetData() + *offset, static_cast<int>(available), &consumed, mode)) {
        return false;
    }
    *offset += consumed;
    return true;
}

bool ZNRDataDispatcher::OnEntityDataDispatch(unsigned char const*, int, bool) { return true; }

bool ZNRDataDispatcher::OnCompatEntityDataDispatch(unsigned char const*, int, bool) { return true; }

bool ZNRDataDispatcher::OnTransMessageDataDispatch(unsigned char const*, int, bool) { return true; }

bool ZNRDataDispatcher::OnOriginalDataDispatch(unsigned char const*, int) { return true; }

bool ZNRDataDispatcher::OnUnixlineDataDispatch(ZNRString const&) { return true; }

bool ZNRDataDispatcher::OnDoslineDataDispatch(ZNRString const&) { return true; }

ZNRDataDispatcher::Failure_t ZNRDataDispatcher::DispatchTransMessages(
    unsigned char const* data, int size, int* consumed, Mode_t mode, std::uint64_t* error) {
    // One message object serves every frame of the call: parsing a header
    // rewrites all of it, so a frame never sees what the previous one left,
    // and the hot path allocates nothing per frame.
    ZNRTransMessage message;
    ZNRByteBuffer inflated;
    int p = 0;
    for (;;) {
        unsigned int header_length = 0;
        ZNRTransMessage::ParseResult_t result = message.ParseHeader(
            data + p, static_cast<unsigned int>(size - p), &header_length, error);
        if (result == ZNRTransMessage::PARSE_NEED_MORE) break;
        if (result != ZNRTransMessage::PARSE_OK) return FAILURE_HEADER;

        ZNRTransMessage::Header const& header = message.GetHeader();
        int const frame_size = static_cast<int>(header_length + header.length);
        if (size - p < frame_size) break;

        unsigned char const* body = data + p + header_length;
        unsigned char const* packet = body;
        int packet_size = static_cast<int>(header.length);
        if (header.compress_flag == ZNRTransMessage::COMPRESS_FLAG_GZIP) {
            inflated.ResetDataCount(0);
            *error = 0;
            if (message.ParseGzipBody(body, header.length, &inflated, error) !=
                ZNRTransMessage::PARSE_OK) {
                return FAILURE_GZIP_BODY;
            }
            packet = inflated.GetData();
            packet_size = static_cast<int>(inflated.GetDataCount());
        } else if (header.compress_flag != ZNRTransMessage::COMPRESS_FLAG_NONE) {
            return FAILURE_COMPRESS_TYPE;
        }

        bool const handled = mode == MODE_ENTITY
                                 ? OnEntityDataDispatch(packet, packet_size, header.bigendian)
                                 : OnTransMessageDataDispatch(packet, packet_size, header.bigendian);
        if (!handled) return FAILURE_HANDLER;
        p += frame_size;
    }
    *consumed = p;
    return FAILURE_NONE;
}

ZNRDataDispatcher::Failure_t ZNRDataDispatcher::DispatchCompatEntities(unsigned char const* data,
                                                                       int size, int* consumed) {
    int p = 0;
    while (size - p >= 4) {
        std::uint32_t const length = ReadLE32(data + p);
        // No stream of int-sized data can ever complete such a packet.
        if (length > static_cast<std::uint32_t>(INT_MAX)) return FAILURE_FRAMING;
        if (size - p < static_cast<int>(length)) break;
        if (!OnCompatEntityDataDispatch(data + p, static_cast<int>(length), false)) {
            return FAILURE_HANDLER;
        }
        // A packet of length 0 never moves the stream on; accepting it
        // would spin on the same bytes for ever.
        if (length == 0) return FAILURE_FRAMING;
        p += static_cast<int>(length);
    }
    *consumed = p;
    return FAILURE_NONE;
}

ZNRDataDispatcher::Failure_t ZNRDataDispatcher::DispatchLines(unsigned char const* data, int size,
                                                              int* consumed, bool dos) {
    ZNRString line;
    std::string utf8;
    int start = 0;
    for (int i = 0; i < size; ++i) {
        int next;
        if (dos) {
            if (data[i] != '\r' || i >= size - 1 || data[i + 1] != '\n') continue;
            next = i + 2;
        } else {
            if (data[i] != '\n') continue;
            next = i + 1;
        }
        // The text ends at the line end or at an embedded zero byte.
        unsigned char const* text = data + start;
        std::size_t length = static_cast<std::size_t>(i - start);
        void const* zero = std::memchr(text, 0, length);
        if (zero != nullptr) length = static_cast<unsigned char const*>(zero) - text;
        utf8.assign(reinterpret_cast<char const*>(text), length);
        if (!line.NewFromUtf8Str(utf8)) return FAILURE_CONVERT;
        if (!(dos ? OnDoslineDataDispatch(line) : OnUnixlineDataDispatch(line))) {
            return FAILURE_HANDLER;
        }
        start = next;
        i = next - 1;
    }
    *consumed = start;
    return FAILURE_NONE;
}
