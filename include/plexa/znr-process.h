#ifndef PLEXA_ZNR_PROCESS_H
#define PLEXA_ZNR_PROCESS_H

#include <plexa/znr-export.h>
#include <plexa/znr-native-handle.h>
#include <plexa/znr-stl-adapter.h>
#include <plexa/znr-string.h>

#include <cstdint>
#include <vector>

class ZNRDeviceHandler;

/// What a child process is started with. Arguments reach the program one
/// by one as given: no shell reads them.
class ZNR_API ZNRProcessParam {
public:
    /// No program, no arguments, inherit_env true, no reactor.
    ZNRProcessParam();
    /// Copies every field (the handler pointers as they are).
    ZNRProcessParam(ZNRProcessParam const&) = default;
    /// Copies every field (the handler pointers as they are).
    ZNRProcessParam& operator=(ZNRProcessParam const&) = default;

    /// A path; a name without "/" is looked up in this process's PATH.
    ZNRString program;
    /// The arguments after the program's own name.
    ZNRStlAdapter<std::vector<ZNRString>> args;
    /// "NAME=value" entries, on top of this process's environment when
    /// inherit_env, else the whole environment.
    ZNRStlAdapter<std::vector<ZNRString>> env;
    /// Whether env adds to this process's environment (true) or replaces it.
    bool inherit_env;
    /// Standard error goes to the standard output's pipe.
    bool error_to_output;
    /// With a reactor id of the reactor manager (ZNRSingleton<ZNRReactorMgr>)
    /// and a handler, standard output (and standard error) arrive through
    /// the handler's OnData on that reactor's thread instead of ReadOutput
    /// (ReadErrorOutput). The handlers become the library's once Start
    /// succeeded. All ones: no reactor.
    std::uint64_t reactor_id;
    /// Receives standard output on the reactor; null: read with ReadOutput.
    ZNRDeviceHandler* output_handler;
    /// Receives standard error on the reactor; null: read with ReadErrorOutput.
    ZNRDeviceHandler* error_handler;
};

/// A child process with its standard input, output and error on pipes.
/// Calls that need a started child give library error 11 without one (or
/// for a stream handed to a reactor). One object belongs to one thread at
/// a time. Destroying it with the child still running kills the child.
class ZNR_API ZNRProcess {
public:
    /// Kills a child still running.
    virtual ~ZNRProcess();

    /// A start that the system refuses (missing program, not executable) is
    /// its error code; no child is left behind. EBUSY while a child runs.
    virtual std::uint64_t Start(ZNRProcessParam const& param) = 0;
    /// Writes all size bytes to the child's standard input, blocking. EINVAL
    /// for null data with a non-zero size.
    /// A child that no longer reads gives EPIPE (never a signal).
    virtual std::uint64_t WriteInput(void const* data, unsigned int size) = 0;
    /// Ends the child's standard input: it reads end of file.
    virtual std::uint64_t CloseInput() = 0;
    /// Waits for bytes of standard output (error); *got is 0 at its end.
    /// EINVAL for a null got, or a null buf with a non-zero size.
    virtual std::uint64_t ReadOutput(void* buf, unsigned int size, unsigned int* got) = 0;
    /// As ReadOutput(), for standard error (library error 11 when it goes
    /// to the output's pipe).
    virtual std::uint64_t ReadErrorOutput(void* buf, unsigned int size, unsigned int* got) = 0;
    /// Waits up to timeout_ms (negative: without limit) for the child to
    /// end: 0 once it has, library error 17 while it runs on.
    virtual std::uint64_t Wait(int timeout_ms) = 0;
    /// Ends the child at once (0 also when it had already ended).
    virtual std::uint64_t Kill() = 0;
    /// True from Start until the child is known to have ended.
    virtual bool IsRunning() = 0;
    /// 0 before Start.
    virtual int GetPid() const = 0;
    /// The exit status once the child exited by itself, else -1.
    virtual int GetExitCode() const = 0;
    /// The signal that ended the child, else 0.
    virtual int GetExitSignal() const = 0;
};

/// The platform's child processes, under the name host code knows them by.
/// The members behave as ZNRProcess says.
class ZNR_API ZNRProcessWin32 : public ZNRProcess {
public:
    /// No child.
    ZNRProcessWin32();
    ~ZNRProcessWin32() override;
    ZNRProcessWin32(ZNRProcessWin32 const&) = delete;
    ZNRProcessWin32& operator=(ZNRProcessWin32 const&) = delete;

    std::uint64_t Start(ZNRProcessParam const& param) override;
    std::uint64_t WriteInput(void const* data, unsigned int size) override;
    std::uint64_t CloseInput() override;
    std::uint64_t ReadOutput(void* buf, unsigned int size, unsigned int* got) override;
    std::uint64_t ReadErrorOutput(void* buf, unsigned int size, unsigned int* got) override;
    std::uint64_t Wait(int timeout_ms) override;
    std::uint64_t Kill() override;
    bool IsRunning() override;
    int GetPid() const override { return pid_; }
    int GetExitCode() const override { return exit_code_; }
    int GetExitSignal() const override { return exit_signal_; }

private:
    void ClosePipes();
    std::uint64_t Reap(bool block);
    std::uint64_t AttachOutput(ZNRProcessParam const& param);

    int pid_;
    ZNRNativeHandle pidfd_;  // none where the system has none: Wait then polls
    bool reaped_;
    int exit_code_;
    int exit_signal_;
    ZNRNativeHandle in_fd_;
    ZNRNativeHandle out_fd_;
    ZNRNativeHandle err_fd_;
};

#endif
