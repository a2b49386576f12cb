#include <plexa/znr-data-sender.h>

#include <plexa/znr-byte-buffer.h>
#include <plexa/znr-error.h>
#include <plexa/znr-pack.h>
#include <plexa/znr-string.h>
#include <plexa/znr-trans-message.h>

#include <string>

ZNRDataSender::ZNRDataSender(bool bigendian, int max_size)
    : pack_(new ZNRPack(8, max_size < 0 ? 0u : static_cast<unsigned int>(max_size), bigendian)) {}

ZNRDataSender::ZNRDataSender(ZNRDataSender const& other) : pack_(new ZNRPack(0, 65535, false)) {
    *pack_ = *other.pack_;
}

ZNRDataSender& ZNRDataSender::operator=(ZNRDataSender const& other) {
    if (this != &other) *pack_ = *other.pack_;
    return *this;
}

ZNRDataSender::~ZNRDataSender() { delete pack_; }

ZNRByteBuffer const* ZNRDataSender::GetBuffer() const { return pack_->GetBuffer(); }

std::uint64_t ZNRDataSender::CreateByEntityProtocol(unsigned int uri, ZNRMarshallable& entity,
                                                    unsigned short compress_flag) {
    ZNRPack body(4, pack_->GetMaxCapacity(), pack_->Bigendian());
    std::uint64_t error = body.Push(uri);
    if (error != 0) return error;
    error = entity.Marshal(&body);
    if (error != 0) return error;
    ZNRByteBuffer const* bytes = body.GetBuffer();
    return CreateByTransMessageProtocol(bytes->GetData(), static_cast<int>(bytes->GetDataCount()),
                                        compress_flag);
}

std::uint64_t ZNRDataSender::CreateByCompatEntityProtocol(unsigned int uri,
                                                          ZNRMarshallable& entity,
                                                          unsigned short res_code) {
    std::uint64_t error = pack_->Push(0u);
    if (error == 0) error = pack_->Push(uri);
    if (error == 0) error = pack_->Push(res_code);
    if (error == 0) error = entity.Marshal(pack_);
    if (error != 0) return error;
    return pack_->Replace(0, pack_->GetBuffer()->GetDataCount());
}

std::uint64_t ZNRDataSender::CreateByTransMessageProtocol(unsigned char const* data, int length,
                                                          unsigned short compress_flag) {
    ZNRTransMessage::Header header;
    header.bigendian = pack_->Bigendian();
    header.reserved = 0;
    header.compress_flag = compress_flag;
    header.length = static_cast<unsigned int>(length);
    ZNRTransMessage message;
    std::uint64_t error = message.SetHeader(header);
    if (error != 0) return error;
    error = message.SetData(data, nullptr);
    if (error != 0) return error;
    // A frame past the output's limit is dropped and still reported as sent.
    ZNRByteBuffer const& frame = message.GetBytes();
    pack_->Concatenate(frame.GetData(), frame.GetDataCount());
    return 0;
}

std::uint64_t ZNRDataSender::CreateByDoslineProtocol(ZNRString const& line) {
    return CreateByLineProtocol(line, true);
}

std::uint64_t ZNRDataSender::CreateByUnixlineProtocol(ZNRString const& line) {
    return CreateByLineProtocol(line, false);
}

std::uint64_t ZNRDataSender::CreateByLineProtocol(ZNRString const& line, bool dos) {
    ZNRString ended(line);
    if (dos) ended.push_back('\r');
    ended.push_back('\n');
    std::string utf8;
    if (!ended.ToUtf8Str(&utf8)) return ZNR_ERROR_LINE_TEXT;
    // Like frames, a line past the output's limit is dropped silently.
    pack_->Concatenate(reinterpret_cast<unsigned char const*>(utf8.data()),
                       static_cast<unsigned int>(utf8.size()));
    return 0;
}
