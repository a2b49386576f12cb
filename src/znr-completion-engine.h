#ifndef PLEXA_SRC_ZNR_COMPLETION_ENGINE_H
#define PLEXA_SRC_ZNR_COMPLETION_ENGINE_H

#include <plexa/znr-async-io.h>
#include <plexa/znr-export.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

class ZNRCompletionEngine;

// One finished operation, as a reactor's wait hands it out. An operation
// cancelled before it finished is failed with the system error ECANCELED.
struct ZNRCompletion {
    std::uint32_t key;
    int bytes;
    ZNRAsyncIOCB* iocb;
    bool failed;
    std::uint64_t error;
};

// An engine's record of one watched descriptor; each engine derives its
// own from it. Control blocks hold it opaquely and reach their engine
// through it.
struct ZNR_API ZNRCompletionBinding {
    ZNRCompletionEngine* engine = nullptr;
    std::uint32_t slot = 0;
    // Changes whenever the slot's descriptor does, so that a result the
    // system reports for an earlier one is recognised and dropped.
    std::uint32_t generation = 0;

    static ZNRCompletionBinding* Of(ZNRAsyncIOCB const* cb) { return cb->binding_; }
    static void Bind(ZNRAsyncIOCB* cb, ZNRCompletionBinding* binding) { cb->binding_ = binding; }
    // Starts a receive of up to size bytes on a stream socket's read side
    // without a buffer: the engine lends one when data is there (see
    // ZNRCompletionEngine::LendsReceives). EBUSY while the side runs one;
    // library error 37 when its engine does not lend.
    static std::uint64_t Lend(ZNRAsyncIOCB* cb, int size);
};

// A place in an engine's list of finished operations, kept in the engine's
// own records so that queueing allocates nothing and a descriptor that
// goes away takes its queued completions with it.
struct ZNRCompletionLink {
    ZNRCompletionLink* prev = nullptr;
    ZNRCompletionLink* next = nullptr;
    bool queued = false;
};

// Finished operations in the order they finished.
class ZNRCompletionList {
public:
    bool Empty() const { return head_ == nullptr; }
    ZNRCompletionLink* Front() const { return head_; }
    void Push(ZNRCompletionLink* link);
    void Remove(ZNRCompletionLink* link);

private:
    ZNRCompletionLink* head_ = nullptr;
    ZNRCompletionLink* tail_ = nullptr;
};

// An engine's records of watched descriptors by slot, kept once made so
// that bindings and list links pointing into them stay valid while slots
// come and go; the slot and generation name one in what the system reports.
template <class Record>
class ZNRBindingTable {
public:
    Record* Acquire(ZNRCompletionEngine* engine) {
        if (free_.empty()) {
            records_.emplace_back(new Record());
            Record* const record = records_.back().get();
            record->slot = static_cast<std::uint32_t>(records_.size() - 1);
            record->engine = engine;
            return record;
        }
        Record* const record = records_[free_.back()].get();
        free_.pop_back();
        return record;
    }
    void Free(Record* record) {
        ++record->generation;
        free_.push_back(record->slot);
    }
    // The record the system's report names, or null when it is stale.
    Record* Find(std::uint32_t slot, std::uint32_t generation, std::uint32_t generation_mask) const {
        if (slot >= records_.size()) return nullptr;
        Record* const record = records_[slot].get();
        return (record->generation & generation_mask) == generation ? record : nullptr;
    }
    Record* At(std::uint32_t slot) const { return records_[slot].get(); }
    std::size_t Size() const { return records_.size(); }

private:
    std::vector<std::unique_ptr<Record>> records_;
    std::vector<std::uint32_t> free_;
};

// The platform's engines, best first: a name and a maker that gives null
// with *error set when the system refuses that engine.
struct ZNREngineMaker {
    char const* name;
    ZNRCompletionEngine* (*make)(std::uint64_t* error);
};
extern ZNREngineMaker const kZNREngines[];
extern int const kZNREngineCount;
// The system's error for a name no engine has.
extern std::uint64_t const kZNRNoSuchEngine;

// Receive memory a lending engine hands to connections when data is there,
// kept for reuse up to a bound. A chunk is as much as one read takes, the
// same as libuv's and Boost.Asio's usual read size.
class ZNRLendChunks {
public:
    static constexpr int kSize = 65536;

    ZNRLendChunks() = default;
    ZNRLendChunks(ZNRLendChunks const&) = delete;
    ZNRLendChunks& operator=(ZNRLendChunks const&) = delete;

    // kSize bytes.
    unsigned char* Take();
    // Kept for the next Take, or freed past the bound; null is nothing.
    void Give(unsigned char* chunk);

private:
    std::vector<std::unique_ptr<unsigned char[]>> spare_;
};

// Turns operations started on control blocks into completions handed out
// in batches through Wait, the way a completion port or io_uring does. An
// operation holds its buffer from its start until its completion has been
// handed out; stopping one is itself an operation that completes. A
// reactor owns one engine and drives it from its loop thread; the control
// blocks of the descriptors it watches call into it from that same thread.
class ZNR_API ZNRCompletionEngine {
public:
    // The engine named ("epoll", "io_uring"); null or empty: the one
    // PLEXA_ENGINE names, else the best the system allows. A named engine
    // that cannot start, or an unknown name, gives null with *error set;
    // *choice (when given) says which engine was made and why.
    static ZNRCompletionEngine* Create(char const* name, std::uint64_t* error,
                                       std::string* choice);
    static ZNRCompletionEngine* Create(std::uint64_t* error) { return Create(nullptr, error, nullptr); }

    ZNRCompletionEngine() = default;
    ZNRCompletionEngine(ZNRCompletionEngine const&) = delete;
    ZNRCompletionEngine& operator=(ZNRCompletionEngine const&) = delete;
    virtual ~ZNRCompletionEngine() = default;

    // "epoll" or "io_uring".
    virtual char const* GetName() const = 0;

    // Watches handle under key; io's control blocks run their operations
    // through this engine until they are dissociated. An operation started
    // before completes through it too.
    virtual std::uint64_t Associate(ZNRNativeHandle handle, std::uint32_t key, ZNRAsyncIO* io) = 0;
    // Up to max completions, in the order they finished, into out, their
    // number in *count: 0. Nothing within timeout_ms (negative: without
    // limit; 0: only what is there): library error 17. Else the system's
    // error.
    virtual std::uint64_t Wait(int timeout_ms, ZNRCompletion* out, int max, int* count) = 0;
    // Aborts what is under way on io's descriptor: every pending operation
    // completes, failed with ECANCELED. Gives how many completions for io
    // later waits will still hand out (aborted ones and ones that had
    // finished before); their buffers stay the engine's until then.
    virtual int Cancel(ZNRAsyncIO* io) = 0;

    // Whether a stream receive may start without a buffer (Lend): the
    // completion's cb->buf then points into memory of the engine's, which
    // stays the owner's until it releases the operation. Connections then
    // hold receive memory only while data waits for them.
    virtual bool LendsReceives() const { return false; }

    // For the control blocks bound to this engine.
    virtual void Start(ZNRAsyncIOCB* cb) = 0;
    // The owner is done with a finished operation: a completion of it not
    // handed out yet is dropped.
    virtual void Release(ZNRAsyncIOCB* cb) = 0;
    // The connection accepted on a listening descriptor takes its place.
    virtual std::uint64_t Rebind(ZNRAsyncIOCB* cb, ZNRNativeHandle handle) = 0;
    virtual void Dissociate(ZNRAsyncIOCB* cb) = 0;
};

#endif
