#ifndef PLEXA_ZNR_MESSAGE_QUEUE_H
#define PLEXA_ZNR_MESSAGE_QUEUE_H

#include <plexa/znr-export.h>
#include <plexa/znr-singleton.h>
#include <plexa/znr-stl-adapter.h>
#include <plexa/znr-thread-cond.h>
#include <plexa/znr-thread-mutex.h>

#include <list>
#include <vector>

class ZNRMessageHandler;
class ZNRMessageData;

struct ZNR_API ZNRMessage {
    ZNRMessageHandler* handler;
    unsigned int id;
    ZNRMessageData* data;
};

class ZNR_API ZNRMessageHandler {
public:
    virtual void OnMessage(ZNRMessage* message) = 0;
    virtual ~ZNRMessageHandler();
};

// Base of message payloads. The library never deletes a payload: whoever
// handles (or clears) the message decides its fate.
class ZNR_API ZNRMessageData {
public:
    virtual ~ZNRMessageData();
};

// FIFO of messages from any thread to the one thread that gets them.
// Create with new, end with Release().
class ZNR_API ZNRMessageQueue : public ZNRThreadCond {
public:
    ZNRMessageQueue();
    ZNRMessageQueue(ZNRMessageQueue const&) = delete;
    ZNRMessageQueue& operator=(ZNRMessageQueue const&) = delete;

    // Takes the head message into *message and returns message; null when
    // nothing came within timeout_seconds (each wait; negative: no limit)
    // or the wait failed.
    virtual ZNRMessage* Get(ZNRMessage* message, int timeout_seconds);
    virtual void Post(ZNRMessageHandler* handler, unsigned int id, ZNRMessageData* data);
    // The clear operations append the removed messages, in queue order, to
    // *removed when it is not null.
    virtual void ClearByHandler(ZNRMessageHandler* handler, std::list<ZNRMessage>* removed);
    virtual void ClearById(unsigned int id, std::list<ZNRMessage>* removed);
    virtual void ClearByHandlerId(ZNRMessageHandler* handler, unsigned int id,
                                  std::list<ZNRMessage>* removed);
    virtual void ClearAll(std::list<ZNRMessage>* removed);
    // Calls the message's handler; a message without one is ignored.
    virtual void Dispatch(ZNRMessage* message);
    virtual bool Empty();
    virtual unsigned int Size();
    // Deletes the queue, unregistering it from ZNRMessageQueueMgr first
    // when it is registered there.
    virtual void Release();

protected:
    ~ZNRMessageQueue() override;

    bool OnCheckCond(void* arg) override;
    void* OnSignalHandle(void* arg) override;

private:
    friend class ZNRMessageQueueMgr;

    template <class Pred>
    void ClearIf(Pred pred, std::list<ZNRMessage>* removed);

    ZNRStlAdapter<std::list<ZNRMessage>> messages_;
    ZNRThreadMutex lock_;
    unsigned int count_;
    bool registered_;
};

// Registry of queues, so that a handler about to be destroyed can take its
// pending messages out of every queue at once.
class ZNR_API ZNRMessageQueueMgr {
public:
    static ZNRMessageQueueMgr* Instance();
    static void Destroy();

    ZNRMessageQueueMgr();
    ~ZNRMessageQueueMgr();
    ZNRMessageQueueMgr(ZNRMessageQueueMgr const&) = delete;
    ZNRMessageQueueMgr& operator=(ZNRMessageQueueMgr const&) = delete;

    // Adding a queue twice keeps one entry.
    void Add(ZNRMessageQueue* queue);
    void Remove(ZNRMessageQueue* queue);
    // Removes every message aimed at handler from every registered queue,
    // appending them to *removed when it is not null.
    void Clear(ZNRMessageHandler* handler, std::list<ZNRMessage>* removed = nullptr);

private:
    ZNRStlAdapter<std::vector<ZNRMessageQueue*>> queues_;
    ZNRThreadMutex lock_;
};

extern template class ZNRSingleton<ZNRMessageQueueMgr>;

#endif
