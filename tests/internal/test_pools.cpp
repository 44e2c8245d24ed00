#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
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

// ---------------------------------------------------------------------------------------------
// One thread

TEST(PacketBuffer, node_appended_before_a_consumer_is_switched_on_is_recycled_unseen) {
    PacketBuffer pool(1, 8);
    DVSPacket* p = pool.GetAFreeNode();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(pool.GetAFreeNode(), nullptr);
    EXPECT_EQ(pool.PutANodeToDataList(p), ERR_SUCCESS);
    pool.SetProcessStatus(true);
    EXPECT_EQ(pool.GetADataNode(), nullptr);
    ASSERT_EQ(pool.GetAFreeNode(), p);
    pool.PutANodeToDataList(p);
    EXPECT_EQ(pool.GetADataNode(), p);
    EXPECT_EQ(pool.GetADataNode(), nullptr);
}

TEST(PacketBuffer, a_node_held_by_one_consumer_blocks_every_later_node) {
    PacketBuffer pool(3, 8);
    pool.SetProcessStatus(true);
    pool.SetSaveStatus(true);
    const auto nodes = AppendAll(pool);
    // The parser releases the first node and is switched off, which releases the others.
    ASSERT_EQ(pool.GetADataNode(), nodes[0]);
    pool.PutANodeToFreeList(nodes[0]);
    pool.SetProcessStatus(false);
    for (DVSPacket* p : nodes) {
        ASSERT_EQ(pool.GetASaveNode(), p);
        EXPECT_EQ(p->mPack->GetRefCount(), 1u);
    }
    // The recorder releases the later nodes but keeps the first.
    pool.PutANodeToFreeList(nodes[1]);
    pool.PutANodeToFreeList(nodes[2]);
    EXPECT_EQ(pool.GetAFreeNode(), nullptr);
    pool.PutANodeToFreeList(nodes[0]);
    EXPECT_EQ(Drain(pool).size(), 3u);
}

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

    // Nodes of size 0 are never grown; a pool without nodes grows its first on demand.
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

TEST(PacketBuffer, switching_a_consumer_off_releases_what_it_had_not_read) {
    PacketBuffer pool(3, 8);
    pool.SetProcessStatus(true);
    pool.SetSaveStatus(true);
    const auto nodes = AppendAll(pool);
    // The recorder has read and released the first node; the parser has read nothing.
    ASSERT_EQ(pool.GetASaveNode(), nodes[0]);
    pool.PutANodeToFreeList(nodes[0]);
    pool.SetSaveStatus(false);
    EXPECT_EQ(pool.GetASaveNode(), nullptr);
    EXPECT_EQ(pool.GetAFreeNode(), nullptr);
    for (DVSPacket* p : nodes) {
        EXPECT_EQ(p->mPack->GetRefCount(), 1u);
    }
    pool.SetProcessStatus(false);
    EXPECT_EQ(pool.GetADataNode(), nullptr);
    EXPECT_EQ(Drain(pool).size(), 3u);
}

TEST(PacketBuffer, init_buffer_returns_every_node_unreferenced_in_creation_order) {
    PacketBuffer pool(3, 32);
    EXPECT_EQ(pool.GetNodeCount(), 3);
    pool.SetProcessStatus(true);
    const auto nodes = AppendAll(pool);
    EXPECT_EQ(std::set<DVSPacket*>(nodes.begin(), nodes.end()).size(), 3u);
    for (DVSPacket* p : nodes) {
        EXPECT_EQ(p->mBufferSize, 32);
        EXPECT_EQ(&p->mPack->mPacket, p);
    }
    EXPECT_EQ(pool.InitBuffer(), ERR_SUCCESS);
    EXPECT_EQ(pool.GetADataNode(), nullptr);
    for (DVSPacket* p : nodes) {
        EXPECT_EQ(p->mPack->GetRefCount(), 0u);
    }
    EXPECT_EQ(Drain(pool), nodes);
    EXPECT_EQ(pool.Initialize(nullptr, 0), ERR_SUCCESS);
}

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
            // Only the first record of a slot is ever handed out.
            EXPECT_EQ(std::count(slots.begin(), slots.end(), n + 1), 0);
        }
    }
}

TEST(UIDataBuffer, consumer_sees_only_frames_appended_after_it_registered) {
    UIDataBuffer pool(2, MVT94QX, OUT_POLARITY, 4, 2);
    DVSOutputData* a = pool.GetAFreeNode();
    pool.PutANodeToDataList(a);  // nobody registered: recyclable at once
    void* early = nullptr;
    ASSERT_EQ(pool.RegisterDataHandle(early), ERR_SUCCESS);
    DVSOutputData* b = pool.GetAFreeNode();
    pool.PutANodeToDataList(b);
    ASSERT_EQ(pool.GetAFreeNode(), a);
    pool.PutANodeToDataList(a);
    void* late = nullptr;
    ASSERT_EQ(pool.RegisterDataHandle(late), ERR_SUCCESS);
    EXPECT_EQ(pool.GetADataNode(late), nullptr);
    EXPECT_EQ(pool.GetAFreeNode(), nullptr);

    ASSERT_EQ(pool.GetADataNode(early), b);
    pool.PutANodeToFreeList(b);
    ASSERT_EQ(pool.GetAFreeNode(), b);
    pool.PutANodeToDataList(b);
    EXPECT_EQ(pool.GetADataNode(late), b);
    EXPECT_EQ(pool.GetADataNode(late), nullptr);
    EXPECT_EQ(pool.GetADataNode(early), a);
    EXPECT_EQ(pool.GetADataNode(early), b);
    EXPECT_EQ(a->GetRefCount(), 1u);
    EXPECT_EQ(b->GetRefCount(), 2u);
    // Both stay registered: the pool frees their handles with it.
}

TEST(UIDataBuffer, frame_is_recycled_once_every_consumer_released_it_or_left) {
    UIDataBuffer pool(3, MVT94QX, OUT_POLARITY, 4, 2);
    void* reader = nullptr;
    void* idle = nullptr;
    ASSERT_EQ(pool.RegisterDataHandle(reader), ERR_SUCCESS);
    ASSERT_EQ(pool.RegisterDataHandle(idle), ERR_SUCCESS);
    EXPECT_NE(reader, idle);
    EXPECT_EQ(pool.GetHandleCount(), 2);
    const auto frames = AppendAll(pool);
    for (DVSOutputData* n : frames) {
        ASSERT_EQ(pool.GetADataNode(reader), n);
        pool.PutANodeToFreeList(n);
    }
    EXPECT_EQ(pool.GetAFreeNode(), nullptr);

    // idle reads and releases the first frame and leaves the other two unread.
    ASSERT_EQ(pool.GetADataNode(idle), frames[0]);
    pool.PutANodeToFreeList(frames[0]);
    EXPECT_EQ(pool.GetAFreeNode(), frames[0]);
    EXPECT_EQ(pool.GetAFreeNode(), nullptr);
    EXPECT_EQ(pool.UnregisterDataHandle(idle), ERR_SUCCESS);
    EXPECT_EQ(pool.GetHandleCount(), 1);
    EXPECT_EQ(Drain(pool).size(), 2u);
    // A handle already given back is refused instead of being freed twice.
    EXPECT_EQ(pool.UnregisterDataHandle(idle), ERR_PARA_ERROR);
    EXPECT_EQ(pool.UnregisterDataHandle(reader), ERR_SUCCESS);
}

TEST(Pools, null_arguments_and_external_nodes) {
    PacketBuffer packets(1, 8);
    EXPECT_EQ(packets.PutANodeToDataList(nullptr), ERR_NULL_NODE);
    EXPECT_EQ(packets.PutANodeToFreeList(nullptr), ERR_PARA_ERROR);

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

// ---------------------------------------------------------------------------------------------
// Threads: one producer and several consumers move stamped nodes through a small pool. A node
// carries its sequence number and its holder bits, one per consumer that has not released it
// yet; a node handed out with a bit still set was given away while in use.

constexpr auto kRunLimit = std::chrono::seconds(60);
constexpr uint64_t kLead = 8;

struct Stamp {
    uint64_t seq;
    std::atomic<uint32_t>* holders;
};

uint8_t* StampBytes(DVSPacket* p) {
    return p->mData;
}
uint8_t* StampBytes(DVSOutputData* n) {
    return n->mUIData->mImgData;
}

// How the producer meets a pool with no free node.
enum class Producer {
    kWaits,  // retries until a node is free, as file playback does
    kDrops,  // gives up on that node, as a live camera does
    kGrows,  // dropping disabled: the pool grows; the producer stays at most kLead nodes ahead
};

template <typename Node>
struct Consumer {
    std::function<Node*()> take;
    // After quitAfter nodes the consumer stops reading, waits until its unread nodes fill the
    // pool and then calls leave.
    size_t quitAfter = SIZE_MAX;
    std::function<void()> leave;
};

// The producer appends total nodes; each consumer must see, in order, every node appended (up
// to where it quit).
template <typename Pool, typename Node>
void RunPipeline(Pool& pool, const std::vector<Consumer<Node>>& consumers, Producer mode,
                 uint64_t total) {
    const size_t count = consumers.size();
    const size_t poolNodes = static_cast<size_t>(pool.GetNodeCount());
    std::map<const void*, std::atomic<uint32_t>> holders;  // the producer's alone
    std::atomic<bool> done{false};
    std::atomic<uint32_t> gone{0};  // bits of the consumers that left
    std::atomic<uint64_t> appended{0};
    std::vector<std::atomic<uint64_t>> read(count);
    std::vector<std::vector<uint64_t>> seen(count);
    std::vector<std::thread> threads;
    for (size_t c = 0; c < count; ++c) {
        threads.emplace_back([&, c] {
            const Consumer<Node>& me = consumers[c];
            const auto end = Clock::now() + kRunLimit;
            while (seen[c].size() < me.quitAfter && Clock::now() < end) {
                // Once the producer is done, one more look finds the last nodes it appended.
                Node* n = me.take();
                if (n == nullptr && done.load() && (n = me.take()) == nullptr) {
                    break;
                }
                if (n == nullptr) {
                    std::this_thread::yield();
                    continue;
                }
                Stamp s;
                memcpy(&s, StampBytes(n), sizeof s);
                seen[c].push_back(s.seq);
                s.holders->fetch_and(~(1u << c));
                pool.PutANodeToFreeList(n);
                ++read[c];
                // Staggered pauses let each consumer fall behind the others in turn.
                if (seen[c].size() % (700 + 300 * c) == 0) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(1));
                }
            }
            if (me.quitAfter != SIZE_MAX) {
                while (appended.load() < me.quitAfter + poolNodes && Clock::now() < end) {
                    std::this_thread::yield();
                }
                gone |= 1u << c;
                me.leave();
            }
        });
    }

    auto slowest = [&] {
        uint64_t least = UINT64_MAX;
        for (const auto& r : read) {
            least = std::min<uint64_t>(least, r.load());
        }
        return least;
    };
    std::vector<uint64_t> kept;  // sequence numbers appended, the others were dropped
    int handedOutWhileHeld = 0;
    const auto end = Clock::now() + kRunLimit;
    for (uint64_t seq = 0; appended.load() < total && Clock::now() < end; ++seq) {
        while (mode == Producer::kGrows && seq >= slowest() + kLead && Clock::now() < end) {
            std::this_thread::yield();
        }
        Node* n = pool.GetAFreeNode();
        while (n == nullptr && mode == Producer::kWaits && Clock::now() < end) {
            std::this_thread::yield();
            n = pool.GetAFreeNode();
        }
        if (n == nullptr && mode == Producer::kDrops) {
            std::this_thread::yield();
            continue;
        }
        if (n == nullptr) {
            break;  // timed out, or the pool did not grow
        }
        std::atomic<uint32_t>& bits = holders[n];
        const uint32_t counted = ((1u << count) - 1) & ~gone.load();
        if ((bits.load() & counted) != 0) {
            ++handedOutWhileHeld;
        }
        bits.store(counted);
        const Stamp s{seq, &bits};
        memcpy(StampBytes(n), &s, sizeof s);
        pool.PutANodeToDataList(n);
        kept.push_back(seq);
        ++appended;
    }
    done = true;
    for (std::thread& t : threads) {
        t.join();
    }

    EXPECT_EQ(appended.load(), total) << "the producer timed out";
    EXPECT_EQ(handedOutWhileHeld, 0);
    for (size_t c = 0; c < count; ++c) {
        const size_t want = std::min(kept.size(), consumers[c].quitAfter);
        EXPECT_TRUE(seen[c] == std::vector<uint64_t>(kept.begin(), kept.begin() + want))
            << "consumer " << c << " saw " << seen[c].size() << " of " << want << " nodes";
    }
    EXPECT_LE(static_cast<size_t>(pool.GetNodeCount()),
              mode == Producer::kGrows ? kLead + 1 : poolNodes);
}

// Parser and recorder; the recorder may stop reading and then be switched off.
void RunPacketPipeline(Producer mode, size_t recorderQuitsAfter = SIZE_MAX) {
    PacketBuffer pool(4, sizeof(Stamp));
    pool.EnableDropData(mode != Producer::kGrows);
    pool.SetProcessStatus(true);
    pool.SetSaveStatus(true);
    std::vector<Consumer<DVSPacket>> consumers(2);
    consumers[0].take = [&] { return pool.GetADataNode(); };
    consumers[1].take = [&] { return pool.GetASaveNode(); };
    consumers[1].quitAfter = recorderQuitsAfter;
    consumers[1].leave = [&] { pool.SetSaveStatus(false); };
    RunPipeline(pool, consumers, mode, 20000);
}

TEST(PacketBufferThreads, waiting_producer_delivers_every_packet_to_both_consumers_in_order) {
    RunPacketPipeline(Producer::kWaits);
}

TEST(PacketBufferThreads, switching_off_a_stalled_recorder_lets_a_dropping_producer_refill) {
    RunPacketPipeline(Producer::kDrops, 500);
}

TEST(PacketBufferThreads, growing_pool_recycles_grown_nodes_like_the_others) {
    RunPacketPipeline(Producer::kGrows);
}

// The third consumer quits and unregisters; the producer waits for free slots, so it stalls
// for good unless unregistering released the frames the quitter never read.
TEST(UIDataBufferThreads, every_registered_consumer_sees_every_frame_once_in_order) {
    UIDataBuffer pool(4, MVT94QX, OUT_IMAGE, 4, 2);
    std::vector<Consumer<DVSOutputData>> consumers(3);
    for (Consumer<DVSOutputData>& c : consumers) {
        void* handle = nullptr;
        ASSERT_EQ(pool.RegisterDataHandle(handle), ERR_SUCCESS);
        c.take = [&pool, handle] { return pool.GetADataNode(handle); };
        c.leave = [&pool, handle] { pool.UnregisterDataHandle(handle); };
    }
    consumers[2].quitAfter = 3000;
    RunPipeline(pool, consumers, Producer::kWaits, 20000);
    EXPECT_EQ(pool.GetHandleCount(), 2);
}

}  // namespace
}  // namespace evcam
