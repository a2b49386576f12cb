#include "znr-completion-engine.h"

#include <plexa/znr-error.h>

#include <cerrno>

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
