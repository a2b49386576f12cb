#include <plexa/znr-async-io.h>
#include <plexa/znr-error.h>

#include "znr-async-perform.h"
#include "znr-completion-engine.h"
#include "znr-fd-io.h"

#include <cerrno>
#include <chrono>

// ---------------------------------------------------------------- control block

ZNRAsyncIOCB::ZNRAsyncIOCB()
    : operation(OP_NONE), fd(ZNRNoHandle()), method(METHOD_NONE), buf(nullptr), len(0), addr(nullptr),
      addr_len(0), accept_into(nullptr), accept_type(0), status(STATUS_IDLE), transferred(0),
      error(0), read_side_(false), peer_(nullptr), binding_(nullptr) {}

ZNRAsyncIOCB::~ZNRAsyncIOCB() {
    if (binding_ != nullptr) binding_->engine->Dissociate(this);
}

std::uint64_t ZNRAsyncIOCB::Begin(int op, Method_t how, unsigned char* data, int size) {
    if (status != STATUS_IDLE) return ZNRSysError(EBUSY);
    if (!ZNRIsHandle(fd)) return ZNRSysError(EBADF);
    if (size < 0 || (data == nullptr && size > 0)) return ZNRSysError(EINVAL);
    Run(op, how, data, size);
    return 0;
}

void ZNRAsyncIOCB::Run(int op, Method_t how, unsigned char* data, int size) {
    operation = op;
    method = how;
    buf = data;
    len = size;
    transferred = 0;
    error = 0;
    status = STATUS_RUNNING;
    if (binding_ != nullptr) {
        binding_->engine->Start(this);
    } else {
        ZNRAsyncPerform(this, false);
    }
}

void ZNRAsyncIOCB::Complete(int bytes, std::uint64_t err) {
    transferred = bytes;
    error = err;
    status = STATUS_DONE;
}

std::uint64_t ZNRAsyncIOCB::SwitchFd(ZNRNativeHandle new_fd) {
    if (binding_ != nullptr) {
        std::uint64_t const rc = binding_->engine->Rebind(this, new_fd);
        if (rc != 0) {
            ZNRFdClose(new_fd);
            return rc;
        }
    }
    ZNRNativeHandle const old_fd = fd;
    fd = new_fd;
    if (peer_ != nullptr) peer_->fd = new_fd;
    if (ZNRIsHandle(old_fd)) ZNRFdClose(old_fd);
    return 0;
}

std::uint64_t ZNRAsyncIOCB::Reset() {
    if (status == STATUS_RUNNING) return ZNRSysError(EBUSY);
    if (binding_ != nullptr && status == STATUS_DONE) binding_->engine->Release(this);
    status = STATUS_IDLE;
    transferred = 0;
    error = 0;
    return 0;
}

std::uint64_t ZNRAsyncIOCB::Check(int timeout_ms, int* bytes) {
    if (status == STATUS_IDLE) return ZNR_ERROR_TIMED_OUT;
    // A watched side finishes only through its engine, which hands the
    // completion out: here it can only be reported.
    if (binding_ != nullptr && status == STATUS_RUNNING) return ZNR_ERROR_TIMED_OUT;
    using Clock = std::chrono::steady_clock;
    Clock::time_point const deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
    bool ready = false;
    while (status == STATUS_RUNNING && ZNRAsyncPerform(this, ready) == ZNR_PERFORM_AGAIN) {
        int wait_ms = -1;
        if (timeout_ms >= 0) {
            auto const left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - Clock::now());
            if (left.count() <= 0) return ZNR_ERROR_TIMED_OUT;
            wait_ms = static_cast<int>(left.count());
        }
        ready = ZNRAsyncWaitReady(this, wait_ms);
    }
    if (bytes != nullptr) *bytes = transferred;
    return error;
}

// ---------------------------------------------------------------- pair

ZNRAsyncIO::~ZNRAsyncIO() = default;

struct ZNRAsyncIOWin32::Pair {
    ZNRAsyncIOCB read;
    ZNRAsyncIOCB write;
};

ZNRAsyncIOWin32::ZNRAsyncIOWin32() = default;

ZNRAsyncIOWin32::~ZNRAsyncIOWin32() { Detach(); }

ZNRAsyncIOWin32::Pair* ZNRAsyncIOWin32::Blocks() {
    if (pair_ == nullptr) {
        pair_.reset(new Pair());
        pair_->read.read_side_ = true;
        pair_->read.peer_ = &pair_->write;
        pair_->write.peer_ = &pair_->read;
    }
    return pair_.get();
}

ZNRAsyncIOCB* ZNRAsyncIOWin32::GetReadIOCB() { return &Blocks()->read; }

ZNRAsyncIOCB* ZNRAsyncIOWin32::GetWriteIOCB() { return &Blocks()->write; }

std::uint64_t ZNRAsyncIOWin32::ResetReadIOStatus() { return GetReadIOCB()->Reset(); }

std::uint64_t ZNRAsyncIOWin32::ResetWriteIOStatus() { return GetWriteIOCB()->Reset(); }

std::uint64_t ZNRAsyncIOWin32::CheckReadIOStatus(int timeout_ms, int* transferred) {
    return GetReadIOCB()->Check(timeout_ms, transferred);
}

std::uint64_t ZNRAsyncIOWin32::CheckWriteIOStatus(int timeout_ms, int* transferred) {
    return GetWriteIOCB()->Check(timeout_ms, transferred);
}

void ZNRAsyncIOWin32::SetIOFd(ZNRNativeHandle fd) {
    Blocks()->read.fd = fd;
    pair_->write.fd = fd;
}

void ZNRAsyncIOWin32::Detach() {
    if (pair_ == nullptr) return;
    ZNRAsyncIOCB& read = pair_->read;
    if (read.binding_ != nullptr) read.binding_->engine->Dissociate(&read);
    // Whatever was under way on the descriptor goes with it.
    for (ZNRAsyncIOCB* cb : {&read, &pair_->write}) {
        cb->status = ZNRAsyncIOCB::STATUS_IDLE;
        cb->fd = ZNRNoHandle();
    }
}
