#include "znr-completion-engine.h"

#include <plexa/znr-error.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

// The first of the platform's engines that starts, unless one is named:
// containers often forbid io_uring (seccomp, kernel.io_uring_disabled),
// and then epoll serves, saying why.
ZNRCompletionEngine* ZNRCompletionEngine::Create(char const* name, std::uint64_t* error,
                                                 std::string* choice) {
    char const* source = "the host";
    if (name == nullptr || *name == '\0') {
        name = std::getenv("PLEXA_ENGINE");
        source = "PLEXA_ENGINE";
    }
    std::uint64_t rc = 0;
    ZNRCompletionEngine* engine = nullptr;
    std::string why;
    if (name == nullptr || *name == '\0') {
        why = "the best the system offers";
        for (int i = 0; i < kZNREngineCount && engine == nullptr; ++i) {
            rc = 0;
            engine = kZNREngines[i].make(&rc);
            if (engine == nullptr && i + 1 < kZNREngineCount) {
                why = std::string(kZNREngines[i].name) + " is unavailable, error=\"" + ZNRGetErrorText(rc) + "\"";
            }
        }
    } else {
        ZNREngineMaker const* const end = kZNREngines + kZNREngineCount;
        ZNREngineMaker const* const maker = std::find_if(
            kZNREngines, end, [name](ZNREngineMaker const& m) { return std::strcmp(m.name, name) == 0; });
        if (maker != end) {
            engine = maker->make(&rc);
            why = engine != nullptr ? std::string("chosen by ") + source : std::string(name) + " chosen by " + source;
        } else {
            rc = kZNRNoSuchEngine;
            why = std::string("unknown engine \"") + name + "\" chosen by " + source;
        }
    }
    if (error != nullptr) *error = rc;
    if (choice != nullptr) *choice = why;
    return engine;
}

std::uint64_t ZNRCompletionBinding::Lend(ZNRAsyncIOCB* cb, int size) {
    if (cb->status != ZNRAsyncIOCB::STATUS_IDLE) return ZNRSysError(EBUSY);
    if (cb->binding_ == nullptr || !cb->binding_->engine->LendsReceives()) return ZNR_ERROR_NOT_SUPPORTED;
    if (size <= 0) return ZNRSysError(EINVAL);
    cb->Run(ZNRAsyncIOCB::OP_READ, ZNRAsyncIOCB::METHOD_RECV, nullptr, size);
    return 0;
}

namespace {

// A burst's worth: 1 MiB idle at most.
std::size_t const kSpareChunksMax = 16;

} // namespace

unsigned char* ZNRLendChunks::Take() {
    if (spare_.empty()) return new unsigned char[kSize];
    unsigned char* const chunk = spare_.back().release();
    spare_.pop_back();
    return chunk;
}

void ZNRLendChunks::Give(unsigned char* chunk) {
    if (chunk == nullptr) return;
    if (spare_.size() < kSpareChunksMax) {
        spare_.emplace_back(chunk);
    } else {
        delete[] chunk;
    }
}

void ZNRCompletionList::Push(ZNRCompletionLink* link) {
    link->prev = tail_;
    link->next = nullptr;
    if (tail_ != nullptr) {
        tail_->next = link;
    } else {
        head_ = link;
    }
    tail_ = link;
    link->queued = true;
}

void ZNRCompletionList::Remove(ZNRCompletionLink* link) {
    if (link->prev != nullptr) {
        link->prev->next = link->next;
    } else {
        head_ = link->next;
    }
    if (link->next != nullptr) {
        link->next->prev = link->prev;
    } else {
        tail_ = link->prev;
    }
    link->prev = link->next = nullptr;
    link->queued = false;
}
