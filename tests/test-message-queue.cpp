#include <plexa/plexa.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

class RecHandler : public ZNRMessageHandler {
public:
    explicit RecHandler(char n = '?') : name(n) {}
    void OnMessage(ZNRMessage* message) override { seen.push_back(message->id); }
    char name;
    std::vector<unsigned int> seen;
};

class Payload : public ZNRMessageData {};

struct QueueDeleter {
    void operator()(ZNRMessageQueue* queue) const { queue->Release(); }
};
typedef std::unique_ptr<ZNRMessageQueue, QueueDeleter> QueuePtr;

// "a1 b2": the handler's name and the id of each message, in list order.
std::string Keys(std::list<ZNRMessage> const& l) {
    std::string out;
    for (ZNRMessage const& m : l)
        out += (out.empty() ? "" : " ") + std::string(1, static_cast<RecHandler*>(m.handler)->name) +
               std::to_string(m.id);
    return out;
}

}  // namespace

TEST(MessageQueue, FifoGetAndDispatch) {
    QueuePtr q(new ZNRMessageQueue());
    ZNRMessage m{nullptr, 99, nullptr};
    EXPECT_TRUE(q->Empty());
    EXPECT_EQ(q->Get(&m, 0), nullptr);
    EXPECT_EQ(m.id, 99u);  // untouched on time-out
    EXPECT_EQ(q->Get(nullptr, 0), nullptr);

    RecHandler h;
    Payload p;
    q->Post(&h, 1, &p);
    q->Post(&h, 2, nullptr);
    q->Post(nullptr, 3, nullptr);
    EXPECT_EQ(q->Size(), 3u);
    EXPECT_FALSE(q->Empty());
    // Each time-out form takes a waiting message at once.
    unsigned int id = 1;
    for (int timeout : {0, -1, 1}) {
        ASSERT_EQ(q->Get(&m, timeout), &m);
        EXPECT_EQ(m.id, id++);
        EXPECT_EQ(m.handler, m.id == 3 ? nullptr : &h);
        EXPECT_EQ(m.data, m.id == 1 ? &p : nullptr);
        q->Dispatch(&m);  // no handler: ignored
    }
    EXPECT_EQ(h.seen, (std::vector<unsigned int>{1, 2}));
    EXPECT_TRUE(q->Empty());
    EXPECT_EQ(q->Get(&m, 0), nullptr);
}

TEST(MessageQueue, ClearOperationsHandBackRemovedMessagesInOrder) {
    QueuePtr q(new ZNRMessageQueue());
    RecHandler h1('a'), h2('b');
    Payload p;
    q->Post(&h1, 1, &p);
    for (auto [h, id] : {std::pair{&h2, 1}, {&h1, 2}, {&h2, 2}, {&h1, 1}, {&h2, 3}, {&h1, 3}}) q->Post(h, id, nullptr);

    std::list<ZNRMessage> removed;
    q->ClearByHandlerId(&h1, 1, &removed);
    EXPECT_EQ("a1 a1", Keys(removed));
    EXPECT_EQ(removed.front().data, &p);
    EXPECT_EQ(q->Size(), 5u);
    removed.clear();
    q->ClearById(2, &removed);
    EXPECT_EQ("a2 b2", Keys(removed));
    EXPECT_EQ(q->Size(), 3u);
    q->ClearByHandler(&h2, &removed);  // appends to what the list already holds
    EXPECT_EQ("a2 b2 b1 b3", Keys(removed));
    EXPECT_EQ(q->Size(), 1u);
    q->ClearByHandler(&h2, nullptr);  // nothing left of h2
    ZNRMessage m;
    ASSERT_EQ(q->Get(&m, 0), &m);
    EXPECT_EQ("a3", Keys({m}));

    q->Post(&h1, 4, nullptr);
    q->Post(&h2, 5, nullptr);
    removed.clear();
    q->ClearAll(&removed);
    EXPECT_EQ("a4 b5", Keys(removed));
    EXPECT_TRUE(q->Empty());
    q->Post(&h1, 6, nullptr);
    q->ClearAll(nullptr);
    EXPECT_EQ(q->Get(&m, 0), nullptr);
}

TEST(MessageQueue, SeveralPostersKeepEachOnesOrder) {
    constexpr int kPosters = 4;
    constexpr unsigned int kEach = 5000;
    QueuePtr q(new ZNRMessageQueue());
    RecHandler handlers[kPosters];
    std::vector<std::thread> posters;
    for (int i = 0; i < kPosters; ++i)
        posters.emplace_back([&q, &handlers, i] {
            for (unsigned int n = 0; n < kEach; ++n) q->Post(&handlers[i], n, nullptr);
        });
    // The getter blocks without limit while posters are still at work.
    unsigned int next[kPosters] = {};
    ZNRMessage m;
    for (unsigned int got = 0; got < kPosters * kEach; ++got) {
        ASSERT_EQ(q->Get(&m, -1), &m);
        int const who = static_cast<int>(static_cast<RecHandler*>(m.handler) - handlers);
        ASSERT_TRUE(who >= 0 && who < kPosters);
        ASSERT_EQ(m.id, next[who]++) << "poster " << who;
    }
    for (std::thread& t : posters) t.join();
    EXPECT_EQ(q->Get(&m, 0), nullptr);
}

TEST(MessageQueueMgr, ClearReachesEveryRegisteredQueue) {
    ZNRMessageQueueMgr* mgr = ZNRMessageQueueMgr::Instance();
    EXPECT_EQ(mgr, ZNRMessageQueueMgr::Instance());
    ZNRMessageQueue *a = new ZNRMessageQueue(), *b = new ZNRMessageQueue();
    QueuePtr unregistered(new ZNRMessageQueue());
    mgr->Add(a);
    mgr->Add(a);
    mgr->Add(b);
    RecHandler h('h'), other('o');
    a->Post(&h, 1, nullptr);
    a->Post(&other, 2, nullptr);
    b->Post(&h, 3, nullptr);
    unregistered->Post(&h, 4, nullptr);
    std::list<ZNRMessage> removed;
    mgr->Clear(&h, &removed);
    EXPECT_EQ("h1 h3", Keys(removed));
    EXPECT_EQ("1 0 1", std::to_string(a->Size()) + " " + std::to_string(b->Size()) + " " +
                           std::to_string(unregistered->Size()));

    // A released or removed queue leaves the manager: later clears must not reach it.
    b->Release();
    a->Post(&h, 5, nullptr);
    mgr->Clear(&h);
    EXPECT_EQ(a->Size(), 1u);
    mgr->Remove(a);
    a->Post(&h, 6, nullptr);
    mgr->Clear(&h);
    EXPECT_EQ(a->Size(), 2u);
    a->Release();

    // Queues outliving the manager release cleanly.
    ZNRMessageQueue* c = new ZNRMessageQueue();
    ZNRMessageQueueMgr::Instance()->Add(c);
    ZNRMessageQueueMgr::Destroy();
    c->Release();
    ZNRMessageQueueMgr::Destroy();
}
