#include <plexa/znr-error.h>
#include <plexa/znr-logger.h>
#include <plexa/znr-message-queue.h>
#include <plexa/znr-string.h>

#include <algorithm>
#include <string>

template class ZNRSingleton<ZNRMessageQueueMgr>;

ZNRMessageHandler::~ZNRMessageHandler() {}

ZNRMessageData::~ZNRMessageData() {}

ZNRMessageQueue::ZNRMessageQueue() : count_(0), registered_(false) {
    std::uint64_t const error = Open(&lock_, false);
    if (error != 0) {
        ZNR_LOG(ERROR, "Open thread condition error, errmsg=%s", ZNRGetErrorText(error).c_str());
    }
}

ZNRMessageQueue::~ZNRMessageQueue() {}

void ZNRMessageQueue::Release() {
    if (registered_) ZNRMessageQueueMgr::Instance()->Remove(this);
    delete this;
}

bool ZNRMessageQueue::OnCheckCond(void*) { return count_ > 0; }

void* ZNRMessageQueue::OnSignalHandle(void* arg) {
    // Runs under lock_, called by Wait only once the count is above zero.
    ZNRMessage* message = static_cast<ZNRMessage*>(arg);
    *message = messages_->front();
    messages_->pop_front();
    --count_;
    return message;
}

ZNRMessage* ZNRMessageQueue::Get(ZNRMessage* message, int timeout_seconds) {
    if (message == nullptr) return nullptr;
    std::uint64_t error = 0;
    int const result = Wait(timeout_seconds, nullptr, message, nullptr, &error);
    if (result == 1) return message;
    if (result < 0) {
        ZNR_LOG(ERROR, "Open message error, errmsg=%s", ZNRGetErrorText(error).c_str());
    }
    return nullptr;
}

void ZNRMessageQueue::Post(ZNRMessageHandler* handler, unsigned int id, ZNRMessageData* data) {
    {
        ZNRGuardLock guard(&lock_);
        messages_->push_back(ZNRMessage{handler, id, data});
        ++count_;
    }
    std::uint64_t const error = Signal();
    if (error != 0) {
        ZNR_LOG(ERROR, "Signal message error, errmsg=%s", ZNRGetErrorText(error).c_str());
    }
}

template <class Pred>
void ZNRMessageQueue::ClearIf(Pred pred, std::list<ZNRMessage>* removed) {
    ZNRGuardLock guard(&lock_);
    for (auto it = messages_->begin(); it != messages_->end();) {
        if (!pred(*it)) {
            ++it;
            continue;
        }
        if (removed != nullptr) removed->push_back(*it);
        it = messages_->erase(it);
        --count_;
    }
}

void ZNRMessageQueue::ClearByHandler(ZNRMessageHandler* handler,
                                     std::list<ZNRMessage>* removed) {
    ClearIf([handler](ZNRMessage const& m) { return m.handler == handler; }, removed);
}

void ZNRMessageQueue::ClearById(unsigned int id, std::list<ZNRMessage>* removed) {
    ClearIf([id](ZNRMessage const& m) { return m.id == id; }, removed);
}

void ZNRMessageQueue::ClearByHandlerId(ZNRMessageHandler* handler, unsigned int id,
                                       std::list<ZNRMessage>* removed) {
    ClearIf([handler, id](ZNRMessage const& m) { return m.handler == handler && m.id == id; },
            removed);
}

void ZNRMessageQueue::ClearAll(std::list<ZNRMessage>* removed) {
    ClearIf([](ZNRMessage const&) { return true; }, removed);
}

void ZNRMessageQueue::Dispatch(ZNRMessage* message) {
    if (message != nullptr && message->handler != nullptr) message->handler->OnMessage(message);
}

bool ZNRMessageQueue::Empty() { return Size() == 0; }

unsigned int ZNRMessageQueue::Size() {
    ZNRGuardLock guard(&lock_);
    return count_;
}

ZNRMessageQueueMgr* ZNRMessageQueueMgr::Instance() {
    return ZNRSingleton<ZNRMessageQueueMgr>::Instance();
}

void ZNRMessageQueueMgr::Destroy() { ZNRSingleton<ZNRMessageQueueMgr>::Destroy(); }

ZNRMessageQueueMgr::ZNRMessageQueueMgr() {}

ZNRMessageQueueMgr::~ZNRMessageQueueMgr() {
    // Queues outliving the manager must not reach back into it.
    for (ZNRMessageQueue* queue : *queues_) queue->registered_ = false;
}

void ZNRMessageQueueMgr::Add(ZNRMessageQueue* queue) {
    if (queue == nullptr) return;
    ZNRGuardLock guard(&lock_);
    if (std::find(queues_->begin(), queues_->end(), queue) != queues_->end()) return;
    queues_->push_back(queue);
    queue->registered_ = true;
}

void ZNRMessageQueueMgr::Remove(ZNRMessageQueue* queue) {
    ZNRGuardLock guard(&lock_);
    auto it = std::find(queues_->begin(), queues_->end(), queue);
    if (it == queues_->end()) return;
    queues_->erase(it);
    queue->registered_ = false;
}

void ZNRMessageQueueMgr::Clear(ZNRMessageHandler* handler, std::list<ZNRMessage>* removed) {
    ZNRGuardLock guard(&lock_);
    for (ZNRMessageQueue* queue : *queues_) queue->ClearByHandler(handler, removed);
}
