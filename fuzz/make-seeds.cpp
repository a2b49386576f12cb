// Writes the seed corpus of every fuzz target, built with the library's
// own senders and packs, into OUTDIR/<target>/.
//   fuzz-make-seeds OUTDIR
#include "fuzz-common.h"

#include <filesystem>
#include <fstream>

namespace {

std::string g_out;

class Seeds {
public:
    explicit Seeds(char const* target) : dir_(g_out + "/" + target) {
        std::filesystem::create_directories(dir_);
    }
    void Add(FuzzBytes const& bytes) {
        std::ofstream(dir_ + "/seed-" + std::to_string(++count_), std::ios::binary)
            .write(reinterpret_cast<char const*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    }
    void Add(std::string const& text) { Add(FuzzBytes(text.begin(), text.end())); }

private:
    std::string dir_;
    int count_ = 0;
};

FuzzBytes Cat(std::initializer_list<FuzzBytes> parts) {
    FuzzBytes out;
    for (FuzzBytes const& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

FuzzAllFields Sample(int k) {
    FuzzAllFields f;
    f.c = static_cast<char>('a' + k);
    f.uc = 0xFE;
    f.s = -2;
    f.us = 0xABCD;
    f.i = -100000 * k;
    f.ui = 0xDEADBEEF;
    f.i64 = -1;
    f.u64 = 0x0102030405060708ull;
    f.text = k % 2 ? ZNRString(u"caf\u00e9 \u4e2d") : ZNRString();
    f.bytes = std::string(static_cast<std::size_t>(k * 3), 'b');
    unsigned char const raw[] = {0, 1, 2, 0xFF};
    f.buffer = ZNRByteBuffer(raw, static_cast<unsigned int>(k % 5));
    f.leaf.u64 = 42;
    f.leaf.text = ZNRString(u"leaf");
    return f;
}

FuzzBytes Packed(ZNRMarshallable const& m, bool bigendian) {
    ZNRPack pack(64, 1u << 20, bigendian);
    pack.Push(m);
    return BufferBytes(pack.GetBuffer());
}

FuzzBytes Entity(unsigned int uri, int k, unsigned short compress, bool bigendian = false) {
    ZNRDataSender sender(bigendian, 1 << 20);
    FuzzAllFields f = Sample(k);
    sender.CreateByEntityProtocol(uri, f, compress);
    return BufferBytes(sender.GetBuffer());
}

FuzzBytes Compat(unsigned int uri, int k, unsigned short res_code) {
    ZNRDataSender sender(false, 1 << 20);
    FuzzAllFields f = Sample(k);
    sender.CreateByCompatEntityProtocol(uri, f, res_code);
    return BufferBytes(sender.GetBuffer());
}

FuzzBytes Trans(std::string const& body, unsigned short compress) {
    ZNRDataSender sender(false, 1 << 20);
    sender.CreateByTransMessageProtocol(reinterpret_cast<unsigned char const*>(body.data()),
                                        static_cast<int>(body.size()), compress);
    return BufferBytes(sender.GetBuffer());
}

FuzzBytes Lines(bool dos) {
    ZNRDataSender sender(false, 1 << 20);
    for (char16_t const* line : {u"hello", u"", u"caf\u00e9 \u4e2d\u6587", u"a\rb"}) {
        dos ? sender.CreateByDoslineProtocol(ZNRString(line))
            : sender.CreateByUnixlineProtocol(ZNRString(line));
    }
    return BufferBytes(sender.GetBuffer());
}

void DispatcherSeeds() {
    Seeds seeds("dispatcher");
    // mode, refusing call, piece count, piece sizes, stream
    auto add = [&](unsigned char mode, FuzzBytes const& stream, FuzzBytes pieces = {}) {
        FuzzBytes head = {mode, 0xFF, static_cast<unsigned char>(pieces.size())};
        seeds.Add(Cat({head, pieces, stream}));
    };
    FuzzBytes const frames = Cat({Entity(kFuzzEntityTyped, 1, 0), Entity(kFuzzEntityRaw, 2, 1, true),
                                  Trans("", 0), Trans(std::string(300, 'z'), 1)});
    add(ZNRDataDispatcher::MODE_ENTITY, frames, {3, 7, 1});
    add(ZNRDataDispatcher::MODE_TRANS_MESSAGE, frames);
    add(ZNRDataDispatcher::MODE_TRANS_MESSAGE, Trans("plain body", 0), {5});
    add(ZNRDataDispatcher::MODE_COMPAT_ENTITY, Cat({Compat(kFuzzCompatTyped, 1, 0), Compat(kFuzzCompatRaw, 3, 7)}),
        {2, 9});
    add(ZNRDataDispatcher::MODE_ORIGINAL, FuzzBytes{'r', 'a', 'w'}, {1});
    add(ZNRDataDispatcher::MODE_UNIXLINE, Lines(false), {4, 0, 6});
    add(ZNRDataDispatcher::MODE_DOSLINE, Lines(true), {6, 1});
}

void TransMessageSeeds() {
    Seeds seeds("trans-message");
    seeds.Add(Trans("", 1));
    seeds.Add(Trans("hello hello hello hello", 1));
    seeds.Add(Trans(std::string(2000, 'q'), 1));
    seeds.Add(Trans("plain", 0));
    seeds.Add(Entity(kFuzzEntityTyped, 3, 1, true));
}

void UnpackSeeds() {
    Seeds seeds("unpack");
    for (int k = 0; k < 4; ++k) {
        // flags: byte order, copy, fields read before the copy
        unsigned char const flags = static_cast<unsigned char>((k & 3) | ((k * 3) << 3));
        seeds.Add(Cat({{flags}, Packed(Sample(k), false)}));
    }
    seeds.Add(Cat({{1}, Packed(Sample(1), true)}));
}

void EntityMapSeeds() {
    Seeds seeds("entity-map");
    auto body = [](FuzzBytes frame) { return FuzzBytes(frame.begin() + 5, frame.end()); };
    seeds.Add(Cat({{0}, body(Entity(kFuzzEntityTyped, 1, 0))}));
    seeds.Add(Cat({{1}, body(Entity(kFuzzEntityRaw, 2, 0))}));
    seeds.Add(Cat({{0}, Compat(kFuzzCompatTyped, 1, 5)}));
    seeds.Add(Cat({{0}, Compat(kFuzzCompatRaw, 2, 0)}));
    seeds.Add(Cat({{2}, Entity(kFuzzEntityTyped, 3, 1), Entity(ZNRMakeEntityUri(9, 9), 0, 0)}));
    seeds.Add(Cat({{2}, Compat(kFuzzCompatTyped, 2, 1)}));
}

void StringSeeds() {
    Seeds seeds("string");
    // locale choice, then text
    seeds.Add(std::string("\x00", 1) + "\xD6\xD0\xCE\xC4 GBK %s=%5.2f %ls %c%%");
    seeds.Add(std::string("\x03") + "caf\xC3\xA9 \xE4\xB8\xAD\xF0\x9F\x98\x80 %-8d|%08.3e|%#x|%n");
    ZNRStdWString const units = ZNRString(u"W\u00e9de %s %lld %hhn %5.1Lf %S \xD83D\xDE00 end").ToStdWStr();
    std::string wide(reinterpret_cast<char const*>(units.data()), units.size() * 2);
    seeds.Add("\x06" + wide);
    seeds.Add("\x01" + std::string("  ;a;;b; ") + std::string(4200, 'x'));
    seeds.Add("\x05\x1B$B\x30\x21\x1B(B%p%u");
}

void StrToSeeds() {
    Seeds seeds("str-to");
    for (char const* text : {" +42", "0x1F", "-2147483648", "4294967295", "18446744073709551615", "-1",
                             "010", "true", "08"}) {
        seeds.Add(std::string(1, '\x00') + text);
    }
    char const* const dates[] = {"2024-02-29 23:59:58", "12/31/1999 01:02:03", "2023-06-07 08:09",
                                 "20230607080910", "2000-02-29", "01/02/2024", "20240102", "202401020304"};
    for (int k = 0; k < 8; ++k) seeds.Add(std::string(1, static_cast<char>(k)) + dates[k]);
    seeds.Add(std::string("\x08") + "01/02/2024 03:04:05");
    seeds.Add(std::string("\x09") + "YYYY-DD-MM\n2024-31-12");
}

void XmlSeeds() {
    Seeds seeds("xml-config");
    // main.xml, a.xml, b.xml, sub/c.xml, sub/d.txt, sub/deep/e.xml
    auto files = [](std::initializer_list<std::string> parts) {
        std::string out;
        for (std::string const& p : parts) out += (out.empty() ? "" : std::string(1, '\0')) + p;
        return out;
    };
    seeds.Add(files({"<r n=\"1\">\n  <a k=\"v\">text</a>\n  <n>42</n>\n  <#include a.xml>\n</r>",
                     "<a><c>1</c><#INCLUDE B.XML></a>", "<b x=\"&amp;\"/>"}));
    seeds.Add(files({"<r>\n<#include sub>\n<#include b.xml>\n</r>", "<a/>", "<b><#include a.xml></b>",
                     "<c>3</c>", "<d>not loaded</d>", "<e><#include b.xml></e>"}));
    seeds.Add(files({"<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<r>caf\xC3\xA9<#include main.xml></r>"}));
    seeds.Add(files({"<?xml version=\"1.0\" encoding=\"GBK\"?><r v=\"\xD6\xD0\"><#include a.xml><#include a.xml>"
                     "</r>",
                     "<a><#include b.xml><#include b.xml></a>", "<b><#define x></b>"}));
    seeds.Add(files({"<r><!-- c --><![CDATA[x]]><a>1</a><a>2</a><n>0x10</n></r>"}));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s OUTDIR\n", argv[0]);
        return 2;
    }
    g_out = argv[1];
    DispatcherSeeds();
    TransMessageSeeds();
    UnpackSeeds();
    EntityMapSeeds();
    StringSeeds();
    StrToSeeds();
    XmlSeeds();
    return 0;
}
