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

/// One message: a plain, copyable record. The queue neither owns nor
/// frees the handler or the data.
struct ZNR_API ZNRMessage {
    /// Who handles it; null ends a thread's default loop (ZNRThread::Stop).
    ZNRMessageHandler* handler;
    /// The sender's message number.
    unsigned int id;
    /// Optional payload, or null; never deleted by the library.
    ZNRMessageData* data;
};

/// Receives messages on the thread that dispatches its queue. A handler that
/// is about to be destroyed takes its pending messages out first
/// (ZNRMessageQueueMgr::Clear).
class ZNR_API ZNRMessageHandler {
public:
    /// Called by ZNRMessageQueue::Dispatch on the getting thread. The
    /// message, and what happens to its data, are the handler's concern.
    virtual void OnMessage(ZNRMessage* message) = 0;
    /// Nothing to release.
    virtual ~ZNRMessageHandler();
};

/// Base of message payloads. The library never deletes a payload: whoever
/// handles (or clears) the message decides its fate.
class ZNR_API ZNRMessageData {
public:
    /// Payloads are deleted through this base.
    virtual ~ZNRMessageData();
};

/// FIFO of messages from any thread to the one thread that gets them.
/// Create with new, end with Release(). Post, the clear operations, Empty
/// and Size are safe from any thread; Get and Dispatch belong to the one
/// getting thread.
class ZNR_API ZNRMessageQueue : public ZNRThreadCond {
public:
    /// Empty and not registered. A condition that cannot be opened is logged
    /// at ERROR as "Open thread condition error, errmsg=%s".
    ZNRMessageQueue();
    ZNRMessageQueue(ZNRMessageQueue const&) = delete;
    ZNRMessageQueue& operator=(ZNRMessageQueue const&) = delete;

    /// Takes the head message into *message and returns message; null when
    /// nothing came within timeout_seconds (each wait; negative: no limit)
    /// or the wait failed (logged at ERROR as "Open message error, errmsg=%s").
    virtual ZNRMessage* Get(ZNRMessage* message, int timeout_seconds);
    /// Appends {handler, id, data} at the tail and wakes the getter. Nothing
    /// is taken over: handler and data must stay valid until the message is
    /// handled or cleared. A signalling failure is logged at ERROR as
    /// "Signal message error, errmsg=%s".
    virtual void Post(ZNRMessageHandler* handler, unsigned int id, ZNRMessageData* data);
    /// Removes the messages aimed at handler. The clear operations append
    /// the removed messages, in queue order, to *removed when it is not
    /// null; their data is then the caller's to dispose of.
    virtual void ClearByHandler(ZNRMessageHandler* handler, std::list<ZNRMessage>* removed);
    /// Removes the messages with this id; see ClearByHandler().
    virtual void ClearById(unsigned int id, std::list<ZNRMessage>* removed);
    /// Removes the messages with this handler and this id; see ClearByHandler().
    virtual void ClearByHandlerId(ZNRMessageHandler* handler, unsigned int id,
                                  std::list<ZNRMessage>* removed);
    /// Removes every message; see ClearByHandler().
    virtual void ClearAll(std::list<ZNRMessage>* removed);
    /// Calls the message's handler; a message without one is ignored.
    virtual void Dispatch(ZNRMessage* message);
    /// True when no message waits (a snapshot: others may post meanwhile).
    virtual bool Empty();
    /// Messages waiting now.
    virtual unsigned int Size();
    /// Deletes the queue, unregistering it from ZNRMessageQueueMgr first
    /// when it is registered there. Messages still queued are dropped
    /// without their data being freed. The owning ZNRThread calls it.
    virtual void Release();

protected:
    /// Queues end through Release().
    ~ZNRMessageQueue() override;

    /// True when a message waits (mutex held).
    bool OnCheckCond(void* arg) override;
    /// Moves the head message into the ZNRMessage that arg points to and
    /// returns arg (mutex held).
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

/// Registry of queues, so that a handler about to be destroyed can take its
/// pending messages out of every queue at once. A process-wide singleton;
/// every member is safe from any thread. It never owns the queues.
class ZNR_API ZNRMessageQueueMgr {
public:
    /// The process-wide registry, created on first use.
    static ZNRMessageQueueMgr* Instance();
    /// Deletes the registry; queues still registered live on, unregistered.
    static void Destroy();

    /// Empty.
    ZNRMessageQueueMgr();
    /// Unregisters the queues still listed; deletes none.
    ~ZNRMessageQueueMgr();
    ZNRMessageQueueMgr(ZNRMessageQueueMgr const&) = delete;
    ZNRMessageQueueMgr& operator=(ZNRMessageQueueMgr const&) = delete;

    /// Registers queue (borrowed; it unregisters itself in Release()).
    /// Adding a queue twice keeps one entry; a null queue is ignored.
    void Add(ZNRMessageQueue* queue);
    /// Unregisters queue; one not registered is ignored.
    void Remove(ZNRMessageQueue* queue);
    /// Removes every message aimed at handler from every registered queue,
    /// appending them to *removed when it is not null.
    void Clear(ZNRMessageHandler* handler, std::list<ZNRMessage>* removed = nullptr);

private:
    ZNRStlAdapter<std::vector<ZNRMessageQueue*>> queues_;
    ZNRThreadMutex lock_;
};

extern template class ZNR_API ZNRSingleton<ZNRMessageQueueMgr>;

#endif
