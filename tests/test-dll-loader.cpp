#include <plexa/znr-dll-loader.h>
#include <plexa/znr-error.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <string>

#ifdef _WIN32
#include <windows.h>
#else
#include <dlfcn.h>
#endif

namespace {

std::uint64_t const kNotLoaded = ZNRUserError(11);
std::uint64_t const kLoaderFailed = ZNRUserError(52);
char const kPlugin[] = PLEXA_TEST_PLUGIN;

std::string Text(ZNRString const& s) { return s.ToStdCStr(); }

// Whether the process still holds the library, without loading it; and the
// loader's words for a failure.
#ifdef _WIN32
bool Resident(char const* path) { return GetModuleHandleA(path) != nullptr; }

// The system's text, on one line.
std::string LoaderText(DWORD error) {
    wchar_t* text = nullptr;
    DWORD const n = FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM |
                                       FORMAT_MESSAGE_IGNORE_INSERTS,
                                   nullptr, error, 0, reinterpret_cast<wchar_t*>(&text), 0, nullptr);
    std::wstring wide(text, n);
    LocalFree(text);
    while (!wide.empty() && (wide.back() == L'\n' || wide.back() == L'\r')) wide.pop_back();
    return ZNRString(ZNRStdWString(wide.begin(), wide.end()), "").ToStdCStr();
}

std::string const kMissingSymbol = "plexa_no_such_symbol: " + LoaderText(ERROR_PROC_NOT_FOUND);
std::string const kMissingPath = "C:\\nonexistent\\plexa-missing.dll";
std::string const kMissingText = kMissingPath + ": " + LoaderText(ERROR_MOD_NOT_FOUND);
#else
bool Resident(char const* path) {
    void* const h = ::dlopen(path, RTLD_NOW | RTLD_NOLOAD);
    if (h != nullptr) ::dlclose(h);
    return h != nullptr;
}

std::string const kMissingSymbol = "undefined symbol: plexa_no_such_symbol";
std::string const kMissingPath = "/nonexistent/plexa-missing.so";
std::string const kMissingText = kMissingPath + ": cannot open shared object file";
#endif

}  // namespace

TEST(DllLoader, LoadLookUpUnload) {
    ASSERT_FALSE(Resident(kPlugin));
    ZNRDllLoader dll;
    void* sym = nullptr;
    EXPECT_EQ(kNotLoaded, dll.GetSymbol("plexa_test_plugin_add", &sym));
    EXPECT_EQ(0u, dll.Unload());  // nothing to unload

    ASSERT_EQ(0u, dll.Load(ZNRString(kPlugin))) << Text(dll.GetErrorText());
    EXPECT_EQ(kPlugin, Text(dll.GetPath()));
    EXPECT_TRUE(Resident(kPlugin));
    EXPECT_EQ(ZNRSysError(EBUSY), dll.Load(ZNRString(kPlugin)));
    ASSERT_EQ(0u, dll.GetSymbol("plexa_test_plugin_add", &sym));
    EXPECT_EQ(42, reinterpret_cast<int (*)(int, int)>(sym)(40, 2));
    ASSERT_EQ(0u, dll.GetSymbol("plexa_test_plugin_name", &sym));
    EXPECT_STREQ("test plugin", static_cast<char const*>(sym));
    EXPECT_EQ(ZNRSysError(EINVAL), dll.GetSymbol(nullptr, &sym));

    // A failed lookup leaves the library loaded and says why; a success clears the text.
    EXPECT_EQ(kLoaderFailed, dll.GetSymbol("plexa_no_such_symbol", &sym));
    EXPECT_NE(std::string::npos, Text(dll.GetErrorText()).find(kMissingSymbol))
        << Text(dll.GetErrorText());
    ASSERT_EQ(0u, dll.GetSymbol("plexa_test_plugin_add", &sym));
    EXPECT_EQ("", Text(dll.GetErrorText()));

    EXPECT_EQ(0u, dll.Unload());
    EXPECT_FALSE(dll.IsLoaded());
    EXPECT_EQ("", Text(dll.GetPath()));
    EXPECT_FALSE(Resident(kPlugin));
    EXPECT_EQ(kNotLoaded, dll.GetSymbol("plexa_test_plugin_add", &sym));

    // Reusable, and the destructor unloads.
    {
        ZNRDllLoader again;
        ASSERT_EQ(0u, again.Load(ZNRString(kPlugin)));
        EXPECT_TRUE(Resident(kPlugin));
    }
    EXPECT_FALSE(Resident(kPlugin));
}

TEST(DllLoader, FailuresCarryTheLoaderText) {
    std::string const not_elf = ::testing::TempDir() + "plexa-not-a-library.so";
    std::FILE* f = std::fopen(not_elf.c_str(), "w");
    ASSERT_NE(nullptr, f);
    std::fputs("plain text, not an object file\n", f);
    std::fclose(f);
    std::string const rows[][2] = {  // path, start of the error text (the loader's own words)
        {kMissingPath, kMissingText},
        {not_elf, not_elf + ": "},
    };
    for (auto const& row : rows) {
        ZNRDllLoader dll;
        EXPECT_EQ(kLoaderFailed, dll.Load(ZNRString(row[0]))) << row[0];
        EXPECT_FALSE(dll.IsLoaded());
        EXPECT_EQ(0u, Text(dll.GetErrorText()).find(row[1])) << Text(dll.GetErrorText());
        EXPECT_EQ(0u, dll.Unload());
    }
    // Not the program itself, as the loader would take an empty name.
    EXPECT_EQ(ZNRSysError(EINVAL), ZNRDllLoader().Load(ZNRString("")));
    std::remove(not_elf.c_str());
}
