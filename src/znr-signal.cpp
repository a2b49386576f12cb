#include <plexa/znr-signal.h>

#include <algorithm>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

namespace {

struct Connection;
typedef std::shared_ptr<Connection> ConnectionPtr;
typedef std::vector<ConnectionPtr> Items;

// One side's connections (a signal's or a host's). The vector is replaced,
// never changed in place, so an emit holds a snapshot without a lock.
struct Side {
    std::mutex mutex;
    std::shared_ptr<Items const> items = std::make_shared<Items const>();

    std::shared_ptr<Items const> Snapshot() {
        std::lock_guard<std::mutex> lock(mutex);
        return items;
    }
};

struct Connection {
    std::uint64_t id = 0;
    ZNRSlotHost const* host = nullptr;
    std::unique_ptr<ZNRSignalBase::Slot> slot;
    // Weak: the sides own their connections, not the other way round, and a
    // side whose owner is gone needs no removal.
    std::weak_ptr<Side> signal_side;
    std::weak_ptr<Side> host_side;

    std::mutex mutex;
    std::condition_variable idle;
    bool connected = true;
    std::uint32_t running = 0;  // calls under way, on all threads
};

// The connections whose slots this thread is running, innermost last: a
// thread never waits for its own calls.
thread_local std::vector<Connection const*> t_running;

// Adds c unless it was already cut; taking c's lock inside the side's keeps
// a cut that lands between the two sides of a connect from leaving it behind.
void Insert(Side* side, ConnectionPtr const& c) {
    std::lock_guard<std::mutex> lock(side->mutex);
    std::lock_guard<std::mutex> state(c->mutex);
    if (!c->connected) return;
    auto next = std::make_shared<Items>(*side->items);
    next->push_back(c);
    side->items = std::move(next);
}

void Remove(std::shared_ptr<Side> const& side, Connection const* c) {
    if (!side) return;
    std::lock_guard<std::mutex> lock(side->mutex);
    Items const& now = *side->items;
    auto const it = std::find_if(now.begin(), now.end(),
                                 [c](ConnectionPtr const& p) { return p.get() == c; });
    if (it == now.end()) return;
    auto next = std::make_shared<Items>(now.begin(), it);
    next->insert(next->end(), it + 1, now.end());
    side->items = std::move(next);
}

void MarkCut(Connection* c) {
    std::lock_guard<std::mutex> lock(c->mutex);
    c->connected = false;
}

// Waits until no other thread runs c's slot, then drops c from both sides.
// Every cutter waits, not only the first: a host's destructor must not
// return while a cut started elsewhere is still waiting.
void FinishCut(ConnectionPtr const& c) {
    {
        std::unique_lock<std::mutex> lock(c->mutex);
        auto const own = static_cast<std::uint32_t>(
            std::count(t_running.begin(), t_running.end(), c.get()));
        c->idle.wait(lock, [&] { return c->running <= own; });
    }
    Remove(c->signal_side.lock(), c.get());
    Remove(c->host_side.lock(), c.get());
}

// All are marked before any wait, so that no slot of the set starts while
// the cutter waits for another one.
void Cut(Items const& items) {
    for (ConnectionPtr const& c : items) MarkCut(c.get());
    for (ConnectionPtr const& c : items) FinishCut(c);
}

// Leaves the running state even when the slot throws.
class Running {
public:
    explicit Running(Connection* c) : c_(c) { t_running.push_back(c); }
    ~Running() {
        t_running.pop_back();
        bool wake;
        {
            std::lock_guard<std::mutex> lock(c_->mutex);
            --c_->running;
            wake = !c_->connected;
        }
        if (wake) c_->idle.notify_all();
    }
    Running(Running const&) = delete;
    Running& operator=(Running const&) = delete;

private:
    Connection* c_;
};

}  // namespace

struct ZNRSignalBase::Core {
    std::shared_ptr<Side> side = std::make_shared<Side>();
    std::uint64_t next_id = 1;  // under side->mutex
};

struct ZNRSlotHost::Core {
    std::shared_ptr<Side> side = std::make_shared<Side>();
};

ZNRSignalBase::Slot::~Slot() {}

ZNRSignalBase::ZNRSignalBase() : core_(new Core()) {}

ZNRSignalBase::~ZNRSignalBase() {
    DisconnectAll();
    delete core_;
}

std::uint32_t ZNRSignalBase::GetSlotCount() const {
    return static_cast<std::uint32_t>(core_->side->Snapshot()->size());
}

bool ZNRSignalBase::Disconnect(std::uint64_t id) {
    std::shared_ptr<Items const> const items = core_->side->Snapshot();
    for (ConnectionPtr const& c : *items) {
        if (c->id != id) continue;
        Cut(Items{c});
        return true;
    }
    return false;
}

std::uint32_t ZNRSignalBase::DisconnectHost(ZNRSlotHost const* host) {
    if (host == nullptr) return 0;
    std::shared_ptr<Items const> const items = core_->side->Snapshot();
    Items mine;
    for (ConnectionPtr const& c : *items) {
        if (c->host == host) mine.push_back(c);
    }
    Cut(mine);
    return static_cast<std::uint32_t>(mine.size());
}

void ZNRSignalBase::DisconnectAll() { Cut(*core_->side->Snapshot()); }

std::uint64_t ZNRSignalBase::Attach(ZNRSlotHost* host, Slot* slot) {
    auto c = std::make_shared<Connection>();
    c->host = host;
    c->slot.reset(slot);
    c->signal_side = core_->side;
    if (host != nullptr) c->host_side = host->core_->side;
    {
        std::lock_guard<std::mutex> lock(core_->side->mutex);
        c->id = core_->next_id++;
    }
    // Host side first: a slot must never be callable while its host cannot
    // find it to disconnect it.
    if (host != nullptr) Insert(host->core_->side.get(), c);
    Insert(core_->side.get(), c);
    return c->id;
}

void ZNRSignalBase::Call(Invoke_t invoke, void* args) const {
    // From here on nothing of *this is touched: a slot may destroy the signal.
    std::shared_ptr<Items const> const items = core_->side->Snapshot();
    for (ConnectionPtr const& c : *items) {
        {
            std::lock_guard<std::mutex> lock(c->mutex);
            if (!c->connected) continue;
            ++c->running;
        }
        Running running(c.get());
        invoke(c->slot.get(), args);
    }
}

std::uint64_t ZNRSignalBase::Refuse(std::uint64_t* error) {
    if (error != nullptr) *error = ZNR_ERROR_INVALID_PARAM;
    return ZNR_ERROR_FAILED_ID;
}

ZNRSlotHost::ZNRSlotHost() : core_(new Core()) {}

ZNRSlotHost::~ZNRSlotHost() {
    DisconnectAll();
    delete core_;
}

std::uint32_t ZNRSlotHost::GetConnectionCount() const {
    return static_cast<std::uint32_t>(core_->side->Snapshot()->size());
}

void ZNRSlotHost::DisconnectAll() { Cut(*core_->side->Snapshot()); }
