#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <numeric>
#include <set>
#include <thread>
#include <vector>

#include "src/data/packet_buffer.h"
#include "src/data/ui_data_buffer.h"

namespace evcam {
namespace {

using Clock = std::chrono::steady_clock;

// Every node obtained from GetAFreeNode, until the pool hands out nothing more.
template <typename Pool>
auto Drain(Pool& pool) {
    std::vector<decltype(pool.GetAFreeNode())> nodes;
    while (auto* n = pool.GetAFreeNode()) {
        nodes.push_back(n);
    }
    return nodes;
}

// Drains the pool and appends every node to the data list, in order.
template <typename Pool>
auto AppendAll(Pool& pool) {
    const auto nodes = Drain(pool);
    for (auto* n : nodes) {
        pool.PutANodeToDataList(n);
    }
    return nodes;
}

// A node appended while no consumer is active is recycled unseen; InitBuffer hands every node
// back unreferenced, in creation order.
TEST(PacketBuffer, unread_nodes_are_recycled_and_init_buffer_returns_all_in_creation_order) {
    PacketBuffer one(1, 8);
    EXPECT_EQ(one.PutANodeToDataList(nullptr), ERR_NULL_NODE);
    EXPECT_EQ(one.PutANodeToFreeList(nullptr), ERR_PARA_ERROR);
    DVSPacket* p = one.GetAFreeNode();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(one.GetAFreeNode(), nullptr);
    EXPECT_EQ(one.PutANodeToDataList(p), ERR_SUCCESS);
    one.SetProcessStatus(true);
    EXPECT_EQ(one.GetADataNode(), nullptr);
    ASSERT_EQ(one.GetAFreeNode(), p);
    one.PutANodeToDataList(p);
    EXPECT_EQ(one.GetADataNode(), p);
    EXPECT_EQ(one.GetADataNode(), nullptr);

    PacketBuffer pool(3, 32);
    EXPECT_EQ(pool.GetNodeCount(), 3);
    pool.SetProcessStatus(true);
    const auto nodes = AppendAll(pool);
    EXPECT_EQ(std::set<DVSPacket*>(nodes.begin(), nodes.end()).size(), 3u);
    for (DVSPacket* n : nodes) {
        EXPECT_EQ(n->mBufferSize, 32);
        EXPECT_EQ(&n->mPack->mPacket, n);
    }
    EXPECT_EQ(pool.InitBuffer(), ERR_SUCCESS);
    EXPECT_EQ(pool.GetADataNode(), nullptr);
    for (DVSPacket* n : nodes) {
        EXPECT_EQ(n->mPack->GetRefCount(), 0u);
    }
    EXPECT_EQ(Drain(pool), nodes);
    EXPECT_EQ(pool.Initialize(nullptr, 0), ERR_SUCCESS);
}

// A node still held by one consumer blocks every later node, even released ones; switching a
// consumer off releases what it had not read.
TEST(PacketBuffer, recycling_waits_for_the_oldest_held_node_and_a_switched_off_consumer) {
    PacketBuffer pool(3, 8);
    pool.SetProcessStatus(true);
    pool.SetSaveStatus(true);
    const auto nodes = AppendAll(pool);
    ASSERT_EQ(pool.GetASaveNode(), nodes[0]);
    pool.PutANodeToFreeList(nodes[0]);
    ASSERT_EQ(pool.GetADataNode(), nodes[0]);
    pool.SetSaveStatus(false);
    EXPECT_EQ(pool.GetASaveNode(), nullptr);
    for (DVSPacket* p : nodes) {
        EXPECT_EQ(p->mPack->GetRefCount(), 1u);
    }
    // The parser releases the later nodes but keeps the first.
    for (DVSPacket* p : {nodes[1], nodes[2]}) {
        ASSERT_EQ(pool.GetADataNode(), p);
        pool.PutANodeToFreeList(p);
    }
    EXPECT_EQ(pool.GetAFreeNode(), nullptr);
    pool.PutANodeToFreeList(nodes[0]);
    const auto freed = Drain(pool);
    EXPECT_EQ(freed.size(), 3u);
    for (DVSPacket* p : freed) {
        pool.PutANodeToDataList(p);
    }
    EXPECT_EQ(pool.GetAFreeNode(), nullptr);
    pool.SetProcessStatus(false);
    EXPECT_EQ(pool.GetADataNode(), nullptr);
    EXPECT_EQ(Drain(pool).size(), 3u);
}

// Nodes of size 0 are never grown; a pool without nodes grows its first on demand.
TEST(PacketBuffer, full_pool_drops_or_grows_by_one_node_of_its_size) {
    PacketBuffer pool(2, 16);
    pool.SetProcessStatus(true);
    AppendAll(pool);
    EXPECT_EQ(pool.GetAFreeNode(), nullptr);
    EXPECT_EQ(pool.EnableDropData(false), ERR_SUCCESS);
    DVSPacket* grown = pool.GetAFreeNode();
    ASSERT_NE(grown, nullptr);
    EXPECT_EQ(grown->mBufferSize, 16);
    EXPECT_EQ(pool.GetNodeCount(), 3);
    // The grown node joins the pool like the others.
    pool.PutANodeToDataList(grown);
    pool.SetProcessStatus(false);
    pool.EnableDropData(true);
    EXPECT_EQ(Drain(pool).size(), 3u);

    PacketBuffer zeroSized(1, 0);
    PacketBuffer empty(0, 8);
    EXPECT_EQ(empty.InitBuffer(), ERR_BUFFER_INIT);
    EXPECT_EQ(empty.GetNodeCount(), 0);
    for (PacketBuffer* p : {&zeroSized, &empty}) {
        p->EnableDropData(false);
        ASSERT_NE(p->GetAFreeNode(), nullptr);
        EXPECT_EQ(p->GetNodeCount(), 1);
    }
    EXPECT_EQ(zeroSized.GetAFreeNode(), nullptr);
}

// Only the first record of a slot is ever handed out; given nodes join the free list in order.
TEST(UIDataBuffer, builds_initialised_slots_of_one_record_or_a_stereo_pair) {
    for (DVS_VERSION version : {MVT94QX, MVT94QX_STEREO}) {
        SCOPED_TRACE(version);
        const int perSlot = version == MVT94QX_STEREO ? 2 : 1;
        UIDataBuffer pool(3, version, OUT_POLARITY, 4, 2);
        EXPECT_EQ(pool.GetSlotNodes(), perSlot);
        EXPECT_EQ(pool.GetNodeCount(), 3);
        const auto slots = Drain(pool);
        ASSERT_EQ(slots.size(), 3u);
        for (DVSOutputData* n : slots) {
            for (int j = 0; j < perSlot; ++j) {
                ASSERT_NE(n[j].mUIData, nullptr);
                EXPECT_TRUE(n[j].mUIData->mInitialized);
                EXPECT_EQ(n[j].mUIData->mVersion, version);
                EXPECT_EQ(n[j].mUIData->mBinSize, 8);
            }
            EXPECT_EQ(std::count(slots.begin(), slots.end(), n + 1), 0);
        }
    }
    UIDataBuffer pool(0, MVT94QX, OUT_POLARITY, 4, 2);
    EXPECT_EQ(pool.PutANodeToDataList(nullptr), ERR_NULL_NODE);
    EXPECT_EQ(pool.PutANodeToFreeList(nullptr), ERR_PARA_ERROR);
    EXPECT_EQ(pool.GetADataNode(nullptr), nullptr);
    EXPECT_EQ(pool.GetADataNode(), nullptr);
    EXPECT_EQ(pool.UnregisterDataHandle(nullptr), ERR_SUCCESS);
    EXPECT_EQ(pool.ResetBuffer(), ERR_SUCCESS);
    DVSOutputData a;
    DVSOutputData b;
    DVSOutputData* nodes[] = {&a, &b};
    EXPECT_EQ(pool.Initialize(nullptr, 2), ERR_BUFFER_INIT);
    EXPECT_EQ(pool.Initialize(nodes, 0), ERR_BUFFER_INIT);
    EXPECT_EQ(pool.Initialize(nodes, 2), ERR_SUCCESS);
    EXPECT_EQ(Drain(pool), (std::vector<DVSOutputData*>{&a, &b}));
}

// A consumer sees only frames appended after it registered; a frame is recycled once every
// consumer released it or left, leaving releases what it had not read.
TEST(UIDataBuffer, frames_are_recycled_once_every_registered_consumer_released_them) {
    UIDataBuffer pool(3, MVT94QX, OUT_POLARITY, 4, 2);
    DVSOutputData* a = pool.GetAFreeNode();
    pool.PutANodeToDataList(a);  // nobody registered: recyclable at once
    void* early = nullptr;
    void* late = nullptr;
    ASSERT_EQ(pool.RegisterDataHandle(early), ERR_SUCCESS);
    const auto frames = AppendAll(pool);
    ASSERT_EQ(frames.size(), 3u);
    EXPECT_EQ(frames[2], a);
    ASSERT_EQ(pool.RegisterDataHandle(late), ERR_SUCCESS);
    EXPECT_NE(early, late);
    EXPECT_EQ(pool.GetHandleCount(), 2);
    EXPECT_EQ(pool.GetADataNode(late), nullptr);
    ASSERT_EQ(pool.GetADataNode(early), frames[0]);
    pool.PutANodeToFreeList(frames[0]);
    ASSERT_EQ(pool.GetAFreeNode(), frames[0]);
    pool.PutANodeToDataList(frames[0]);
    EXPECT_EQ(frames[0]->GetRefCount(), 2u);
    EXPECT_EQ(frames[1]->GetRefCount(), 1u);
    EXPECT_EQ(pool.GetADataNode(late), frames[0]);
    EXPECT_EQ(pool.GetADataNode(late), nullptr);
    pool.PutANodeToFreeList(frames[0]);
    EXPECT_EQ(pool.GetAFreeNode(), nullptr);

    // early leaves with three frames unread; a handle given back is refused instead of being
    // freed twice.
    EXPECT_EQ(pool.UnregisterDataHandle(early), ERR_SUCCESS);
    EXPECT_EQ(pool.GetHandleCount(), 1);
    EXPECT_EQ(Drain(pool).size(), 3u);
    EXPECT_EQ(pool.UnregisterDataHandle(early), ERR_PARA_ERROR);
    EXPECT_EQ(pool.UnregisterDataHandle(late), ERR_SUCCESS);
}

// ---------------------------------------------------------------------------------------------
// Threads: one producer stamps nodes with a sequence number and appends them; each consumer
// takes them on a thread of its own and checks, when it releases a node, that the stamp is
// still the one it read (a node handed out again while held would have been restamped). A
// consumer may quit after some nodes and leave once its unread nodes fill the pool.

uint8_t* StampBytes(DVSPacket* p) {
    return p->mData;
}
uint8_t* StampBytes(DVSOutputData* n) {
    return n->mUIData->mImgData;
}
template <typename Node>
uint64_t StampOf(Node* n) {
    uint64_t seq = 0;
    memcpy(&seq, StampBytes(n), sizeof seq);
    return seq;
}

template <typename Node>
struct Consumer {
    std::function<Node*()> take;
    size_t quitAfter = SIZE_MAX;
    std::function<void()> leave;
};

// The producer waits for free nodes, as file playback does, and appends total nodes; each
// consumer must see every one of them in order, up to where it quit.
template <typename Pool, typename Node>
void RunPipeline(Pool& pool, const std::vector<Consumer<Node>>& consumers, uint64_t total) {
    const auto end = Clock::now() + std::chrono::seconds(60);
    std::atomic<uint64_t> appended{0};
    std::vector<std::vector<uint64_t>> seen(consumers.size());
    std::vector<int> restamped(consumers.size(), 0);
    std::vector<std::thread> threads;
    for (size_t c = 0; c < consumers.size(); ++c) {
        threads.emplace_back([&, c] {
            const Consumer<Node>& me = consumers[c];
            while (seen[c].size() < std::min<uint64_t>(me.quitAfter, total) && Clock::now() < end) {
                Node* n = me.take();
                if (n == nullptr) {
                    std::this_thread::yield();
                    continue;
                }
                seen[c].push_back(StampOf(n));
                // Staggered pauses let each consumer fall behind the others in turn.
                if (seen[c].size() % (700 + 300 * c) == 0) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(1));
                }
                restamped[c] += StampOf(n) != seen[c].back() ? 1 : 0;
                pool.PutANodeToFreeList(n);
            }
            if (me.leave) {
                while (appended < me.quitAfter + pool.GetNodeCount() && Clock::now() < end) {
                    std::this_thread::yield();
                }
                me.leave();
            }
        });
    }
    for (uint64_t seq = 0; seq < total && Clock::now() < end; ++seq) {
        Node* n = nullptr;
        while ((n = pool.GetAFreeNode()) == nullptr && Clock::now() < end) {
            std::this_thread::yield();
        }
        if (n == nullptr) {
            break;
        }
        memcpy(StampBytes(n), &seq, sizeof seq);
        pool.PutANodeToDataList(n);
        ++appended;
    }
    for (std::thread& t : threads) {
        t.join();
    }
    EXPECT_EQ(appended.load(), total) << "the producer timed out";
    for (size_t c = 0; c < consumers.size(); ++c) {
        std::vector<uint64_t> want(std::min<uint64_t>(consumers[c].quitAfter, total));
        std::iota(want.begin(), want.end(), 0);
        EXPECT_TRUE(seen[c] == want) << "consumer " << c << " saw " << seen[c].size() << " nodes";
        EXPECT_EQ(restamped[c], 0) << "consumer " << c;
    }
}

// The recorder stops reading and is switched off; the parser must then see every packet.
TEST(PacketBufferThreads, both_consumers_see_every_packet_in_order_until_one_is_switched_off) {
    PacketBuffer pool(4, sizeof(uint64_t));
    pool.SetProcessStatus(true);
    pool.SetSaveStatus(true);
    std::vector<Consumer<DVSPacket>> consumers(2);
    consumers[0].take = [&] { return pool.GetADataNode(); };
    consumers[1].take = [&] { return pool.GetASaveNode(); };
    consumers[1].quitAfter = 3000;
    consumers[1].leave = [&] { pool.SetSaveStatus(false); };
    RunPipeline(pool, consumers, 20000);
    EXPECT_EQ(pool.GetNodeCount(), 4);
}

// The third consumer quits and unregisters; the producer stalls for good unless unregistering
// released the frames the quitter never read.
TEST(UIDataBufferThreads, every_registered_consumer_sees_every_frame_once_in_order) {
    UIDataBuffer pool(4, MVT94QX, OUT_IMAGE, 4, 2);
    std::vector<Consumer<DVSOutputData>> consumers(2);
    for (Consumer<DVSOutputData>& c : consumers) {
        void* handle = nullptr;
        ASSERT_EQ(pool.RegisterDataHandle(handle), ERR_SUCCESS);
        c.take = [&pool, handle] { return pool.GetADataNode(handle); };
    }
    void* quitter = nullptr;
    ASSERT_EQ(pool.RegisterDataHandle(quitter), ERR_SUCCESS);
    consumers.push_back({[&pool, quitter] { return pool.GetADataNode(quitter); }, 3000,
                         [&pool, quitter] { pool.UnregisterDataHandle(quitter); }});
    RunPipeline(pool, consumers, 20000);
    EXPECT_EQ(pool.GetHandleCount(), 2);
}

}  // namespace
}  // namespace evcam
