#include <plexa/znr-process.h>

#include "log-capture.h"
#include "reactor-test-util.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

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

}  // namespace

TEST_F(Process, EchoThroughPipesExactBytes) {
    ZNRProcessWin32 p;
    EXPECT_EQ(kNotReady, p.WriteInput("x", 1));
    ASSERT_EQ(0u, p.Start(Param("/bin/cat")));
    EXPECT_GT(p.GetPid(), 0);
    EXPECT_TRUE(p.IsRunning());
    EXPECT_EQ(ZNRSysError(EBUSY), p.Start(Param("/bin/cat")));
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
    ZNRReactorMgr* const mgr = ZNRSingleton<ZNRReactorMgr>::Instance();
    std::uint64_t err = 0;
    std::uint64_t const id = mgr->New(&err);
    ASSERT_EQ(0u, mgr->StartThread(id, ZNRString("process-loop"), nullptr));
    Journal j;
    ZNRProcessParam param = Param("/bin/sh", {"-c", "printf err >&2; cat"});
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
    std::string const rows[][2] = {{"exit 3", "3/0"}, {"kill -TERM $$", "-1/" + std::to_string(SIGTERM)}};
    for (auto const& row : rows) {
        ZNRProcessWin32 p;
        ASSERT_EQ(0u, p.Start(Param("/bin/sh", {"-c", row[0]})));
        EXPECT_EQ(0u, p.Wait(-1));
        EXPECT_EQ(row[1], Status(p));
        EXPECT_EQ(0u, p.Wait(0));  // already reaped
    }

    ZNRProcessWin32 p;
    ASSERT_EQ(0u, p.Start(Param("sleep", {"60"})));  // found through PATH
    EXPECT_EQ(kTimedOut, p.Wait(0));
    EXPECT_EQ(kTimedOut, p.Wait(20));
    EXPECT_TRUE(p.IsRunning());
    EXPECT_EQ(0u, p.Kill());
    EXPECT_EQ(0u, p.Wait(-1));
    EXPECT_EQ("-1/" + std::to_string(SIGKILL), Status(p));
    EXPECT_EQ(0u, p.Kill());  // ended already
    EXPECT_EQ("", ReadAll(&p));
    // Reusable once ended, with the last status forgotten.
    ASSERT_EQ(0u, p.Start(Param("/bin/true")));
    EXPECT_EQ(0u, p.Wait(-1));
    EXPECT_EQ("0/0", Status(p));
}

TEST_F(Process, StartFailuresAreErrors) {
    struct {
        ZNRProcessParam param;
        int err;
    } const rows[] = {
        {Param("/nonexistent/plexa-program"), ENOENT},
        {Param("plexa-no-such-program"), ENOENT},
        {Param("/etc/passwd"), EACCES},
        {Param(""), EINVAL},
        {Param("/usr/bin/env", {}, {"NO_EQUALS_SIGN"}), EINVAL},
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
    std::vector<std::string> const args = {"[%s]\\n", "a b", "it's", "\"q\"", "$HOME", "*", "", "back\\slash", "\t;|&"};
    std::string expected;
    for (std::size_t i = 1; i < args.size(); ++i) expected += "[" + args[i] + "]\n";
    EXPECT_EQ(expected, Output(Param("/usr/bin/printf", args)));

    ZNRProcessParam env = Param("/usr/bin/env", {}, {"A=1", "B=two words"});
    env.inherit_env = false;
    EXPECT_EQ("A=1\nB=two words\n", Output(env));
    ::setenv("PLEXA_PROCESS_KEPT", "kept", 1);
    ::setenv("PLEXA_PROCESS_OVERRIDDEN", "old", 1);
    EXPECT_EQ("kept new\n", Output(Param("/bin/sh", {"-c", "echo \"$PLEXA_PROCESS_KEPT $PLEXA_PROCESS_OVERRIDDEN\""},
                                         {"PLEXA_PROCESS_OVERRIDDEN=new"})));

    ZNRProcessParam merged = Param("/bin/sh", {"-c", "printf 1; printf 2 >&2; printf 3"});
    merged.error_to_output = true;
    EXPECT_EQ("123", Output(merged));

    // Only 0-2 reach the child, even a descriptor left inheritable here;
    // 3 is the directory ls itself opens.
    int const open_here = ::open("/dev/null", O_RDONLY);
    ASSERT_GE(open_here, 0);
    EXPECT_EQ("0\n1\n2\n3\n", Output(Param("/bin/ls", {"-1", "/proc/self/fd"})));
    ::close(open_here);
}
