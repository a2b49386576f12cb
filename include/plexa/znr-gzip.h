#ifndef PLEXA_ZNR_GZIP_H
#define PLEXA_ZNR_GZIP_H

#include <plexa/znr-export.h>

class ZNRByteBuffer;
struct z_stream_s;

/// A deflate stream and an inflate stream, raw deflate or gzip-wrapped.
/// No lock: one thread uses an object at a time. Failures are false results
/// with no reason given.
class ZNR_API ZNRGzip {
public:
    /// Not open: every operation fails until Open().
    ZNRGzip();
    /// Ends and frees both streams.
    ~ZNRGzip();
    ZNRGzip(ZNRGzip const&) = delete;
    ZNRGzip& operator=(ZNRGzip const&) = delete;

    /// Raw deflate (no wrapper) when raw_deflate, else the gzip wrapper.
    /// Opening again replaces both streams. False when zlib cannot set up
    /// either stream (out of memory); the object is then not open.
    bool Open(bool raw_deflate);
    /// Appends the deflated bytes to out (borrowed), growing it as needed.
    /// With finish true succeeds only once the stream is complete. False
    /// when not open, out is null, size is negative, out cannot grow or
    /// zlib refuses.
    bool Compress(unsigned char const* in, int size, ZNRByteBuffer* out, bool finish);
    /// Appends the inflated bytes to out (borrowed), growing it as needed;
    /// *finished tells whether the stream reached its end. Fails, rather than
    /// produce more than max_output bytes, when the data would inflate past
    /// it. Also false when not open, out or finished is null, size is
    /// negative, or the data is not a valid stream; out may then hold part
    /// of the output.
    bool Decompress(unsigned char const* in, int size, ZNRByteBuffer* out, bool* finished,
                    unsigned int max_output = 0xFFFFFFFFu);
    /// Starts a new deflate stream with the same settings; false when not open.
    bool ResetCompress();
    /// Starts a new inflate stream with the same settings; false when not open.
    bool ResetDecompress();

    /// Bytes fed to deflate so far (since Open or the last reset); 0 when not open.
    unsigned int GetCompressTotalInputLen() const;
    /// Bytes deflate produced so far; 0 when not open.
    unsigned int GetCompressTotalOutputLen() const;
    /// Bytes fed to inflate so far; 0 when not open.
    unsigned int GetDecompressTotalInputLen() const;
    /// Bytes inflate produced so far; 0 when not open.
    unsigned int GetDecompressTotalOutputLen() const;

private:
    void Close();

    z_stream_s* deflate_;
    z_stream_s* inflate_;
};

#endif
