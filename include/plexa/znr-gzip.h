#ifndef PLEXA_ZNR_GZIP_H
#define PLEXA_ZNR_GZIP_H

#include <plexa/znr-export.h>

class ZNRByteBuffer;
struct z_stream_s;

// A deflate stream and an inflate stream, raw deflate or gzip-wrapped.
class ZNR_API ZNRGzip {
public:
    ZNRGzip();
    ~ZNRGzip();
    ZNRGzip(ZNRGzip const&) = delete;
    ZNRGzip& operator=(ZNRGzip const&) = delete;

    // Raw deflate (no wrapper) when raw_deflate, else the gzip wrapper.
    // Opening again replaces both streams.
    bool Open(bool raw_deflate);
    // Appends the deflated bytes to out, growing it as needed. With finish
    // true succeeds only once the stream is complete.
    bool Compress(unsigned char const* in, int size, ZNRByteBuffer* out, bool finish);
    // Appends the inflated bytes to out, growing it as needed; *finished
    // tells whether the stream reached its end. Fails, rather than produce
    // more than max_output bytes, when the data would inflate past it.
    bool Decompress(unsigned char const* in, int size, ZNRByteBuffer* out, bool* finished,
                    unsigned int max_output = 0xFFFFFFFFu);
    bool ResetCompress();
    bool ResetDecompress();

    unsigned int GetCompressTotalInputLen() const;
    unsigned int GetCompressTotalOutputLen() const;
    unsigned int GetDecompressTotalInputLen() const;
    unsigned int GetDecompressTotalOutputLen() const;

private:
    void Close();

    z_stream_s* deflate_;
    z_stream_s* inflate_;
};

#endif
