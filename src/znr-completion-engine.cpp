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
