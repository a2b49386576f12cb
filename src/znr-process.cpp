#include <plexa/znr-process.h>

#include <plexa/znr-async-device.h>
#include <plexa/znr-error.h>
#include <plexa/znr-logger.h>
#include <plexa/znr-reactor-mgr.h>
#include <plexa/znr-singleton.h>

#include "znr-fd-io.h"
#include "znr-process-start.h"

#include <algorithm>

namespace {

// Receive limits of an output device; nothing is ever sent to one.
int const kRecvMax = 1 << 20;
int const kRecvGrow = 4096;
int const kSendMax = 4096;
unsigned int const kNoTimeout = 0xFFFFFFFFu;

bool Utf8(ZNRString const& text, std::string* out) { return text.ToUtf8Str(out); }

std::string NameOf(std::string const& entry) { return entry.substr(0, entry.find('=')); }

// Registers the output devices on the reactor's own thread, where device
// registration belongs. Whatever it could not register it releases.
class ZNRProcessOutputTask : public ZNRReactorTask {
public:
    explicit ZNRProcessOutputTask(std::uint64_t reactor_id) : reactor_id_(reactor_id) {}

    void Add(ZNRDevice* device, ZNRDeviceHandler* handler) { pairs_.push_back({device, handler}); }

    bool Run() override {
        ZNRReactorMgr* const mgr = ZNRSingleton<ZNRReactorMgr>::Instance();
        for (Pair& p : pairs_) {
            std::uint64_t err = 0;
            if (mgr->RegisterDevice(reactor_id_, p.device, p.handler, &err, kRecvMax, kRecvGrow,
                                    kSendMax, kNoTimeout) != ZNR_ERROR_FAILED_ID) {
                p = Pair();
                continue;
            }
            ZNR_LOG(ERROR, "Can not register process output, reactor id=%llu error=\"%s\"",
                    static_cast<unsigned long long>(reactor_id_), ZNRGetErrorText(err).c_str());
        }
        return false;
    }
    void Cancel() override {}
    void Destroy() override {
        for (Pair& p : pairs_) {
            if (p.device != nullptr) p.device->Destroy();
            if (p.handler != nullptr) p.handler->Destroy();
        }
        delete this;
    }
    // Leaves the handlers to the caller: the task was refused.
    void Release() {
        for (Pair& p : pairs_) p.handler = nullptr;
        Destroy();
    }

private:
    struct Pair {
        ZNRDevice* device = nullptr;
        ZNRDeviceHandler* handler = nullptr;
    };
    std::uint64_t reactor_id_;
    std::vector<Pair> pairs_;
};

// The device adopts fd, which is then no longer the caller's.
ZNRDevice* OpenDevice(ZNRNativeHandle* fd, std::uint64_t* err) {
    ZNRUnknownDeviceParam param;
    param.fd = *fd;
    *fd = ZNRNoHandle();
    auto* device = new ZNRAsyncUnknownDevice();
    if (device->Open(&param)) return device;
    *err = device->GetError();
    device->Destroy();
    return nullptr;
}

}  // namespace

ZNRProcessParam::ZNRProcessParam()
    : inherit_env(true),
      error_to_output(false),
      reactor_id(ZNR_ERROR_FAILED_ID),
      output_handler(nullptr),
      error_handler(nullptr) {}

ZNRProcess::~ZNRProcess() = default;

bool ZNRProcessArgv(ZNRProcessParam const& param, std::vector<std::string>* argv) {
    argv->assign(1, std::string());
    if (!Utf8(param.program, &argv->front()) || argv->front().empty()) return false;
    for (ZNRString const& arg : *param.args) {
        argv->emplace_back();
        if (!Utf8(arg, &argv->back())) return false;
    }
    return true;
}

bool ZNRProcessEnv(ZNRProcessParam const& param, std::vector<std::string> const& parent,
                   std::vector<std::string>* env) {
    std::vector<std::string> own;
    for (ZNRString const& entry : *param.env) {
        own.emplace_back();
        if (!Utf8(entry, &own.back()) || own.back().find('=') == std::string::npos) return false;
    }
    env->clear();
    if (param.inherit_env) {
        for (std::string const& entry : parent) {
            std::string const name = NameOf(entry);
            bool const replaced = std::any_of(own.begin(), own.end(), [&](std::string const& o) {
                return NameOf(o) == name;
            });
            if (!replaced) env->push_back(entry);
        }
    }
    env->insert(env->end(), own.begin(), own.end());
    return true;
}

std::uint64_t ZNRProcessAttachOutput(ZNRProcessParam const& param, ZNRNativeHandle* out_fd,
                                     ZNRNativeHandle* err_fd) {
    if (param.reactor_id == ZNR_ERROR_FAILED_ID) return 0;
    bool const out = param.output_handler != nullptr && ZNRIsHandle(*out_fd);
    bool const err = param.error_handler != nullptr && ZNRIsHandle(*err_fd);
    if (!out && !err) return 0;

    auto* task = new ZNRProcessOutputTask(param.reactor_id);
    std::uint64_t error = 0;
    ZNRDevice* const out_device = out ? OpenDevice(out_fd, &error) : nullptr;
    ZNRDevice* const err_device = err && error == 0 ? OpenDevice(err_fd, &error) : nullptr;
    if (out_device != nullptr) task->Add(out_device, param.output_handler);
    if (err_device != nullptr) task->Add(err_device, param.error_handler);
    if (error == 0) {
        ZNRReactorMgr* const mgr = ZNRSingleton<ZNRReactorMgr>::Instance();
        if (mgr->IsRunInCurrentThread(param.reactor_id)) {
            task->Run();
            task->Destroy();
            return 0;
        }
        error = mgr->RegisterTask(param.reactor_id, task);
        if (error == 0) return 0;
    }
    task->Release();
    return error;
}

// ---------------------------------------------------------------- process

ZNRProcessWin32::ZNRProcessWin32()
    : pid_(0), pidfd_(ZNRNoHandle()), reaped_(false), exit_code_(-1), exit_signal_(0),
      in_fd_(ZNRNoHandle()), out_fd_(ZNRNoHandle()), err_fd_(ZNRNoHandle()) {}

ZNRProcessWin32::~ZNRProcessWin32() {
    ClosePipes();
    if (pid_ > 0 && !reaped_) {
        Kill();
        Reap(true);
    }
    ZNRFdRelease(&pidfd_);
}

void ZNRProcessWin32::ClosePipes() {
    ZNRFdRelease(&in_fd_);
    ZNRFdRelease(&out_fd_);
    ZNRFdRelease(&err_fd_);
}

// The child's output goes to its handlers from here on; where that cannot
// be, the child is ended, as if it had never started.
std::uint64_t ZNRProcessWin32::AttachOutput(ZNRProcessParam const& param) {
    std::uint64_t const attached = ZNRProcessAttachOutput(param, &out_fd_, &err_fd_);
    if (attached != 0) {
        ClosePipes();
        Kill();
        Reap(true);
    }
    return attached;
}
