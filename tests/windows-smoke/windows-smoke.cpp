// What the Windows platform layer will lean on, checked on the target:
// Winsock, system error texts, the GBK code page, and zlib and TinyXML as
// linked here.
#include <winsock2.h>
#include <windows.h>

#include <gtest/gtest.h>
#include <tinyxml.h>
#include <zlib.h>

#include <string>

TEST(WindowsSmoke, WinsockStartsAndBindsLoopback) {
  WSADATA data;
  ASSERT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
  EXPECT_EQ(data.wVersion, MAKEWORD(2, 2));

  SOCKET s = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  ASSERT_NE(s, INVALID_SOCKET) << WSAGetLastError();
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  EXPECT_EQ(bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0) << WSAGetLastError();
  int len = sizeof addr;
  EXPECT_EQ(getsockname(s, reinterpret_cast<sockaddr*>(&addr), &len), 0) << WSAGetLastError();
  EXPECT_NE(ntohs(addr.sin_port), 0) << "no port assigned";
  closesocket(s);
  EXPECT_EQ(WSACleanup(), 0);
}

// Error texts come from the system, one line each with its CRLF.
TEST(WindowsSmoke, FormatMessageKnowsConnectionRefused) {
  wchar_t text[512];
  DWORD n = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                           WSAECONNREFUSED, 0, text, 512, nullptr);
  ASSERT_GT(n, 2u) << GetLastError();
  EXPECT_EQ(text[n - 1], L'\n');
}

// GBK is the library's default text encoding; on Windows it is code page 936.
TEST(WindowsSmoke, CodePage936DecodesGbk) {
  char const gbk[] = "\xc4\xe3\xba\xc3";  // "ni hao"
  wchar_t wide[4] = {};
  ASSERT_EQ(MultiByteToWideChar(936, MB_ERR_INVALID_CHARS, gbk, 4, wide, 4), 2) << GetLastError();
  EXPECT_EQ(wide[0], L'\x4f60');
  EXPECT_EQ(wide[1], L'\x597d');
}

TEST(WindowsSmoke, ZlibRoundTrips) {
  std::string const text(1000, 'z');
  Bytef packed[256];
  uLongf packed_size = sizeof packed;
  ASSERT_EQ(compress(packed, &packed_size, reinterpret_cast<Bytef const*>(text.data()), text.size()),
            Z_OK);
  std::string back(text.size(), '\0');
  uLongf back_size = back.size();
  ASSERT_EQ(uncompress(reinterpret_cast<Bytef*>(&back[0]), &back_size, packed, packed_size), Z_OK);
  EXPECT_EQ(back, text);
}

TEST(WindowsSmoke, TinyXmlParses) {
  TiXmlDocument doc;
  doc.Parse("<?xml version=\"1.0\"?>\n<config><server port=\"7000\">main</server></config>");
  ASSERT_FALSE(doc.Error()) << doc.ErrorDesc();
  TiXmlElement const* server = doc.RootElement()->FirstChildElement("server");
  ASSERT_NE(server, nullptr);
  int port = 0;
  EXPECT_NE(server->Attribute(std::string("port"), &port), nullptr);
  EXPECT_EQ(port, 7000);
  EXPECT_STREQ(server->GetText(), "main");

  TiXmlDocument bad;
  bad.Parse("<config>\n<server></config>");
  EXPECT_TRUE(bad.Error());
  EXPECT_EQ(bad.ErrorRow(), 2);
}
