#include <plexa/plexa.h>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

namespace {

class RecHandler : public ZNRMessageHandler {
public:
    void OnMessage(ZNRMessage* message) override { seen.push_back(message->id); }
    std::vector<unsigned int> seen;
};

class Payload : public ZNRMessageData {
public:
    explicit Payload(int v) : value(v) {}
    int value;
};

struct QueueDeleter {
    void operator()(ZNRMessageQueue* queue) const { queue->Release(); }
};
typedef std::unique_ptr<ZNRMessageQueue, QueueDeleter> QueuePtr;

std::vector<std::pair<ZNRMessageHandler*, unsigned int>> Keys(std::list<ZNRMessage> const& l) {
    std::vector<std::pair<ZNRMessageHandler*, unsigned int>> out;
    for (ZNRMessage const& m : l) out.emplace_back(m.handler, m.id);
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
    Payload p(7);
    q->Post(&h, 1, &p);
    q->Post(&h, 2, nullptr);
    q->Post(nullptr, 3, nullptr);
    EXPECT_EQ(q->Size(), 3u);
    EXPECT_FALSE(q->Empty());

    ASSERT_EQ(q->Get(&m, 0), &m);
    EXPECT_EQ(m.handler, &h);
    EXPECT_EQ(m.id, 1u);
    EXPECT_EQ(m.data, &p);
    q->Dispatch(&m);
    ASSERT_EQ(q->Get(&m, -1), &m);
    EXPECT_EQ(m.id, 2u);
    EXPECT_EQ(m.data, nullptr);
    q->Dispatch(&m);
    ASSERT_EQ(q->Get(&m, 1), &m);
    EXPECT_EQ(m.handler, nullptr);
    q->Dispatch(&m);  // no handler: ignored
    EXPECT_EQ(h.seen, (std::vector<unsigned int>{1, 2}));
    EXPECT_TRUE(q->Empty());
    EXPECT_EQ(q->Get(&m, 0), nullptr);
}

TEST(MessageQueue, ClearOperationsHandBackRemovedMessagesInOrder) {
    QueuePtr q(new ZNRMessageQueue());
    RecHandler h1, h2;
    Payload p(5);
    q->Post(&h1, 1, &p);
    q->Post(&h2, 1, nullptr);
    q->Post(&h1, 2, nullptr);
    q->Post(&h2, 2, nullptr);
    q->Post(&h1, 1, nullptr);
    q->Post(&h2, 3, nullptr);
    q->Post(&h1, 3, nullptr);

    std::list<ZNRMessage> removed;
    q->ClearByHandlerId(&h1, 1, &removed);
    ASSERT_EQ(removed.size(), 2u);
    EXPECT_EQ(removed.front().data, &p);
    EXPECT_EQ(Keys(removed), (decltype(Keys(removed)){{&h1, 1}, {&h1, 1}}));
    EXPECT_EQ(q->Size(), 5u);

    removed.clear();
    q->ClearById(2, &removed);
    EXPECT_EQ(Keys(removed), (decltype(Keys(removed)){{&h1, 2}, {&h2, 2}}));
    EXPECT_EQ(q->Size(), 3u);

    // Appends to what the list already holds.
    q->ClearByHandler(&h2, &removed);
    EXPECT_EQ(Keys(removed),
              (decltype(Keys(removed)){{&h1, 2}, {&h2, 2}, {&h2, 1}, {&h2, 3}}));
    EXPECT_EQ(q->Size(), 1u);

    q->ClearByHandler(&h2, nullptr);  // nothing left of h2
    ZNRMessage m;
    ASSERT_EQ(q->Get(&m, 0), &m);
    EXPECT_EQ(m.handler, &h1);
    EXPECT_EQ(m.id, 3u);

    q->Post(&h1, 4, nullptr);
    q->Post(&h2, 5, nullptr);
    removed.clear();
    q->ClearAll(&removed);
    EXPECT_EQ(Keys(removed), (decltype(Keys(removed)){{&h1, 4}, {&h2, 5}}));
    EXPECT_TRUE(q->Empty());
    q->Post(&h1, 6, nullptr);
    q->ClearAll(nullptr);
    EXPECT_EQ(q->Size(), 0u);
    EXPECT_EQ(q->Get(&m, 0), nullptr);
}

TEST(MessageQueue, SeveralPostersKeepEachOnesOrder) {
    constexpr int kPosters = 4;
    constexpr unsigned int kEach = 5000;
    QueuePtr q(new ZNRMessageQueue());
    RecHandler handlers[kPosters];
    std::vector<std::thread> posters;
    for (int i = 0; i < kPosters; ++i) {
        posters.emplace_back([&q, &handlers, i] {
            for (unsigned int n = 0; n < kEach; ++n) q->Post(&handlers[i], n, nullptr);
        });
    }
    // The getter blocks without limit while posters are still at work.
    unsigned int next[kPosters] = {};
    ZNRMessage m;
    for (unsigned int got = 0; got < kPosters * kEach; ++got) {
        ASSERT_EQ(q->Get(&m, -1), &m);
        int const who = static_cast<int>(static_cast<RecHandler*>(m.handler) - handlers);
        ASSERT_TRUE(who >= 0 && who < kPosters);
        ASSERT_EQ(m.id, next[who]) << "poster " << who;
        ++next[who];
    }
    for (std::thread& t : posters) t.join();
    EXPECT_TRUE(q->Empty());
    EXPECT_EQ(q->Get(&m, 0), nullptr);
}

TEST(MessageQueueMgr, ClearReachesEveryRegisteredQueue) {
    ZNRMessageQueueMgr* mgr = ZNRMessageQueueMgr::Instance();
    EXPECT_EQ(mgr, ZNRMessageQueueMgr::Instance());
    ZNRMessageQueue* a = new ZNRMessageQueue();
    ZNRMessageQueue* b = new ZNRMessageQueue();
    QueuePtr unregistered(new ZNRMessageQueue());
    mgr->Add(a);
    mgr->Add(a);
    mgr->Add(b);
    RecHandler h, other;
    a->Post(&h, 1, nullptr);
    a->Post(&other, 2, nullptr);
    b->Post(&h, 3, nullptr);
    unregistered->Post(&h, 4, nullptr);

    std::list<ZNRMessage> removed;
    mgr->Clear(&h, &removed);
    EXPECT_EQ(Keys(removed), (decltype(Keys(removed)){{&h, 1}, {&h, 3}}));
    EXPECT_EQ(a->Size(), 1u);
    EXPECT_EQ(b->Size(), 0u);
    EXPECT_EQ(unregistered->Size(), 1u);

    // A released queue leaves the manager: later clears must not reach it.
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
