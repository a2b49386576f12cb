#include "znr-completion-engine.h"

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
