#include <plexa/znr-process.h>

#include "log-capture.h"
#include "reactor-test-util.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fs-test-util.h"

#ifdef _WIN32
#include <fcntl.h>
#include <io.h>
#include <windows.h>
#else
#include <fcntl.h>
#include <unistd.h>
#endif

using namespace reactortest;

namespace {

std::uint64_t const kNotReady = ZNRUserError(11);
std::uint64_t const kTimedOut = ZNRUserError(17);

ZNRProcessParam Param(std::string const& program, std::vector<std::string> const& args = {},
                      std::vector<std::string> const& env = {}) {
    ZNRProcessParam param;
    param.program = ZNRString(program);
    for (std::string const& a : args) param.args->push_back(ZNRString(a));
    for (std::string const& e : env) param.env->push_back(ZNRString(e));
    return param;
}

// The children the tests start: POSIX tools on Linux; on Windows this
// program itself, which plays the tool named after "--plexa-child" and exits
// before any test runs.
#ifdef _WIN32
int const kKilled = 9;  // what a killed child reports, as SIGKILL on Linux
std::string const kChildFlag = "--plexa-child";

// Found by its bare name, in this program's own directory.
ZNRProcessParam Child(std::vector<std::string> args, std::vector<std::string> const& env = {}) {
    args.insert(args.begin(), kChildFlag);
    return Param("test-process", args, env);
}

// Each piece goes on as it comes, as cat passes it: fread would wait for
// a full buffer.
void CopyInput() {
    char buf[512];
    for (int n; (n = _read(0, buf, sizeof buf)) > 0;) _write(1, buf, static_cast<unsigned int>(n));
}

int PlayChild(int argc, char** argv) {
    _setmode(0, _O_BINARY), _setmode(1, _O_BINARY), _setmode(2, _O_BINARY);
    std::string const role = argv[0];
    if (role == "cat") CopyInput();
    if (role == "err-cat") std::fputs("err", stderr), std::fflush(stderr), CopyInput();
    if (role == "exit") return std::atoi(argv[1]);
    if (role == "sleep") Sleep(60000);
    for (int i = 1; role == "args" && i < argc; ++i) std::printf("[%s]\n", argv[i]);
    for (int i = 1; role == "getenv" && i < argc; ++i)
        std::printf("%s%s", std::getenv(argv[i]), i + 1 < argc ? " " : "\n");
    // Wine's loader adds its own entries to every environment.
    auto const added = [](std::string const& e) {
        return e.rfind("WINE", 0) == 0 || e.rfind("SystemDrive=", 0) == 0 || e.rfind("SystemRoot=", 0) == 0;
    };
    if (role == "env")
        for (char* e = GetEnvironmentStringsA(); *e != '\0'; e += std::strlen(e) + 1)
            if (!added(e)) std::printf("%s\n", e);
    if (role == "mixed") {
        for (char const* part : {"1", "2", "3"})
            std::fputs(part, part[0] == '2' ? stderr : stdout), std::fflush(part[0] == '2' ? stderr : stdout);
    }
    return 0;
}

struct ChildRole {
    ChildRole() {
        if (__argc >= 3 && __argv[1] == kChildFlag) std::exit(PlayChild(__argc - 2, __argv + 2));
    }
} const g_child_role;

ZNRProcessParam Cat() { return Child({"cat"}); }
ZNRProcessParam ErrThenCat() { return Child({"err-cat"}); }
ZNRProcessParam Exit(int code) { return Child({"exit", std::to_string(code)}); }
ZNRProcessParam Sleeper() { return Child({"sleep"}); }
ZNRProcessParam PrintArgs(std::vector<std::string> const& args) {
    std::vector<std::string> all = {"args"};
    all.insert(all.end(), args.begin(), args.end());
    return Child(all);
}
ZNRProcessParam PrintEnv(std::vector<std::string> const& env) { return Child({"env"}, env); }
ZNRProcessParam PrintVars(std::vector<std::string> const& names, std::vector<std::string> const& env) {
    std::vector<std::string> all = {"getenv"};
    all.insert(all.end(), names.begin(), names.end());
    return Child(all, env);
}
ZNRProcessParam Mixed() { return Child({"mixed"}); }
#else
int const kKilled = SIGKILL;
ZNRProcessParam Cat() { return Param("/bin/cat"); }
ZNRProcessParam ErrThenCat() { return Param("/bin/sh", {"-c", "printf err >&2; cat"}); }
ZNRProcessParam Exit(int code) { return Param("/bin/sh", {"-c", "exit " + std::to_string(code)}); }
ZNRProcessParam Sleeper() { return Param("sleep", {"60"}); }  // found through PATH
ZNRProcessParam PrintArgs(std::vector<std::string> const& args) {
    std::vector<std::string> all = {"[%s]\\n"};
    all.insert(all.end(), args.begin(), args.end());
    return Param("/usr/bin/printf", all);
}
ZNRProcessParam PrintEnv(std::vector<std::string> const& env) { return Param("/usr/bin/env", {}, env); }
ZNRProcessParam PrintVars(std::vector<std::string> const& names, std::vector<std::string> const& env) {
    std::string line = "echo \"";
    for (std::string const& name : names) line += (&name == &names[0] ? "$" : " $") + name;
    return Param("/bin/sh", {"-c", line + "\""}, env);
}
ZNRProcessParam Mixed() { return Param("/bin/sh", {"-c", "printf 1; printf 2 >&2; printf 3"}); }
#endif

// Everything standard output (or error) carries, up to its end.
std::string ReadAll(ZNRProcess* p, bool error_output = false) {
    std::string out;
    char buf[7];  // small: several reads per test
    for (;;) {
        unsigned int got = 0;
        std::uint64_t const err = error_output ? p->ReadErrorOutput(buf, sizeof buf, &got)
                                               : p->ReadOutput(buf, sizeof buf, &got);
        EXPECT_EQ(0u, err);
        if (err != 0 || got == 0) return out;
        out.append(buf, got);
    }
}

// "exit code/signal"
std::string Status(ZNRProcess const& p) { return std::to_string(p.GetExitCode()) + "/" + std::to_string(p.GetExitSignal()); }

std::string Output(ZNRProcessParam const& param) {
    ZNRProcessWin32 p;
    EXPECT_EQ(0u, p.Start(param));
    std::string const out = ReadAll(&p);
    EXPECT_EQ(0u, p.Wait(-1));
    return out;
}

// Journals what a reactor delivers from one output stream.
class OutputHandler : public ZNRDeviceHandler {
public:
    OutputHandler(Journal* j, std::string name) : j_(j), name_(std::move(name)) {}
    bool OnData(ZNRByteBuffer const* b, int* offset) override {
        j_->Add(name_ + ":" + std::string(reinterpret_cast<char const*>(b->GetData()), b->GetDataCount()));
        *offset = static_cast<int>(b->GetDataCount());
        return true;
    }
    void OnClose() override { j_->Add(name_ + " closed"); }

private:
    Journal* j_;
    std::string name_;
};

class Process : public LogCaptureTest {};

#ifdef _WIN32
int const kBusy = ERROR_BUSY;
#else
int const kBusy = EBUSY;
#endif

}  // namespace

TEST_F(Process, EchoThroughPipesExactBytes) {
    ZNRProcessWin32 p;
    EXPECT_EQ(kNotReady, p.WriteInput("x", 1));
    ASSERT_EQ(0u, p.Start(Cat()));
    EXPECT_GT(p.GetPid(), 0);
    EXPECT_TRUE(p.IsRunning());
    EXPECT_EQ(ZNRSysError(kBusy), p.Start(Cat()));
    std::string const data("line one\n\0\xff tail without newline", 32);
    ASSERT_EQ(0u, p.WriteInput(data.data(), 10));
    ASSERT_EQ(0u, p.WriteInput(data.data() + 10, static_cast<unsigned int>(data.size() - 10)));
    ASSERT_EQ(0u, p.CloseInput());
    EXPECT_EQ(kNotReady, p.WriteInput("x", 1));
    EXPECT_EQ(data, ReadAll(&p));
    EXPECT_EQ("", ReadAll(&p, true));
    EXPECT_EQ(0u, p.Wait(-1));
    EXPECT_FALSE(p.IsRunning());
}

TEST_F(Process, OutputThroughReactor) {
    ASSERT_EQ(0u, ZNRInit());
    ZNRReactorMgr* const mgr = ZNRSingleton<ZNRReactorMgr>::Instance();
    std::uint64_t err = 0;
    std::uint64_t const id = mgr->New(&err);
    ASSERT_EQ(0u, err) << ZNRGetErrorText(err);
    ASSERT_EQ(0u, mgr->StartThread(id, ZNRString("process-loop"), nullptr));
    Journal j;
    ZNRProcessParam param = ErrThenCat();
    param.reactor_id = id;
    param.output_handler = new OutputHandler(&j, "out");
    param.error_handler = new OutputHandler(&j, "err");
    {
        ZNRProcessWin32 p;
        ASSERT_EQ(0u, p.Start(param));
        unsigned int got = 0;
        char buf[4];
        EXPECT_EQ(kNotReady, p.ReadOutput(buf, sizeof buf, &got));
        EXPECT_EQ(kNotReady, p.ReadErrorOutput(buf, sizeof buf, &got));
        ASSERT_EQ(0u, p.WriteInput("ping", 4));
        EXPECT_TRUE(j.WaitFor("out:ping"));
        EXPECT_TRUE(j.WaitFor("err:err"));
        ASSERT_EQ(0u, p.CloseInput());
        EXPECT_TRUE(j.WaitFor("out closed"));
        EXPECT_TRUE(j.WaitFor("err closed"));
        EXPECT_EQ(0u, p.Wait(-1));
    }
    EXPECT_EQ(4u, j.Get().size());

    // An unknown reactor fails the start and leaves the handlers with us.
    ZNRProcessWin32 p;
    param.reactor_id = id + 100;
    param.output_handler = new OutputHandler(&j, "stray");
    param.error_handler = nullptr;
    EXPECT_EQ(ZNRUserError(30), p.Start(param));
    EXPECT_FALSE(p.IsRunning());
    EXPECT_EQ(std::vector<std::string>{"Can not register task to reactor, reactor not found, reactor id=" +
                                       std::to_string(id + 100)},
              Messages(ZNRLogger::LOGL_ERROR));
    param.output_handler->Destroy();
    mgr->RemoveAll();
    ZNRSingleton<ZNRReactorMgr>::Destroy();
}

TEST_F(Process, ExitCodesSignalsAndKill) {
    std::vector<std::pair<ZNRProcessParam, std::string>> rows;
    rows.emplace_back(Exit(3), "3/0");
#ifdef __linux__
    rows.emplace_back(Param("/bin/sh", {"-c", "kill -TERM $$"}), "-1/" + std::to_string(SIGTERM));
#endif
    for (auto const& row : rows) {
        ZNRProcessWin32 p;
        ASSERT_EQ(0u, p.Start(row.first));
        EXPECT_EQ(0u, p.Wait(-1));
        EXPECT_EQ(row.second, Status(p));
        EXPECT_EQ(0u, p.Wait(0));  // already reaped
    }

    ZNRProcessWin32 p;
    ASSERT_EQ(0u, p.Start(Sleeper()));
    EXPECT_EQ(kTimedOut, p.Wait(0));
    EXPECT_EQ(kTimedOut, p.Wait(20));
    EXPECT_TRUE(p.IsRunning());
    EXPECT_EQ(0u, p.Kill());
    EXPECT_EQ(0u, p.Wait(-1));
    EXPECT_EQ("-1/" + std::to_string(kKilled), Status(p));
    EXPECT_EQ(0u, p.Kill());  // ended already
    EXPECT_EQ("", ReadAll(&p));
    // Reusable once ended, with the last status forgotten.
    ASSERT_EQ(0u, p.Start(Exit(0)));
    EXPECT_EQ(0u, p.Wait(-1));
    EXPECT_EQ("0/0", Status(p));
}

TEST_F(Process, StartFailuresAreErrors) {
    fstest::TempDir dir("plexa-process");
    std::string const text_file = dir.Path("text.txt");
    std::FILE* f = std::fopen(text_file.c_str(), "w");
    ASSERT_NE(nullptr, f);
    std::fputs("not a program\n", f);
    std::fclose(f);
#ifdef _WIN32
    int const no_file = ERROR_FILE_NOT_FOUND, no_path = ERROR_FILE_NOT_FOUND, not_program = ERROR_BAD_EXE_FORMAT,
              invalid = ERROR_INVALID_PARAMETER;
    char const* const no_dir_program = "C:\\nonexistent\\plexa-program.exe";
#else
    int const no_file = ENOENT, no_path = ENOENT, not_program = EACCES, invalid = EINVAL;
    char const* const no_dir_program = "/nonexistent/plexa-program";
    ASSERT_EQ(0, ::chmod(text_file.c_str(), 0644));  // not executable
#endif
    struct {
        ZNRProcessParam param;
        int err;
    } const rows[] = {
        {Param(no_dir_program), no_path},
        {Param("plexa-no-such-program"), no_file},
        {Param(text_file), not_program},
        {Param(""), invalid},
        {PrintEnv({"NO_EQUALS_SIGN"}), invalid},
    };
    for (auto const& row : rows) {
        ZNRProcessWin32 p;
        EXPECT_EQ(ZNRSysError(row.err), p.Start(row.param)) << row.param.program.ToStdCStr();
        EXPECT_EQ(0, p.GetPid());
        EXPECT_FALSE(p.IsRunning());
        EXPECT_EQ(kNotReady, p.Wait(-1));
        EXPECT_EQ(kNotReady, p.Kill());
    }
}

TEST_F(Process, ArgumentsEnvironmentAndDescriptorsVerbatim) {
    // Windows splits a command line itself: quotes and the backslashes
    // before them must come through too.
    std::vector<std::string> const args = {"a b", "it's", "\"q\"", "$HOME", "*", "", "back\\slash", "\t;|&",
                                           "tail\\", "\\\"", "%PATH%", "a\\\\\"b c"};
    std::string expected;
    for (std::string const& arg : args) expected += "[" + arg + "]\n";
    EXPECT_EQ(expected, Output(PrintArgs(args)));

    ZNRProcessParam env = PrintEnv({"A=1", "B=two words"});
    env.inherit_env = false;
    EXPECT_EQ("A=1\nB=two words\n", Output(env));
    fstest::SetEnv("PLEXA_PROCESS_KEPT", "kept");
    fstest::SetEnv("PLEXA_PROCESS_OVERRIDDEN", "old");
    EXPECT_EQ("kept new\n", Output(PrintVars({"PLEXA_PROCESS_KEPT", "PLEXA_PROCESS_OVERRIDDEN"},
                                             {"PLEXA_PROCESS_OVERRIDDEN=new"})));

    ZNRProcessParam merged = Mixed();
    merged.error_to_output = true;
    EXPECT_EQ("123", Output(merged));

#ifdef __linux__
    // Only 0-2 reach the child, even a descriptor left inheritable here;
    // 3 is the directory ls itself opens.
    int const open_here = ::open("/dev/null", O_RDONLY);
    ASSERT_GE(open_here, 0);
    EXPECT_EQ("0\n1\n2\n3\n", Output(Param("/bin/ls", {"-1", "/proc/self/fd"})));
    ::close(open_here);
#endif
}
