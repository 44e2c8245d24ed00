#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <memory>
#include <set>
#include <thread>
#include <unordered_map>
#include <vector>

#include "src/data/packet_buffer.h"
#include "src/data/ui_data_buffer.h"

namespace evcam {
namespace {

using Clock = std::chrono::steady_clock;

// Every node obtained from GetAFreeNode, until the pool hands out nothing more.
std::vector<DVSPacket*> Drain(PacketBuffer& pool) {
    std::vector<DVSPacket*> nodes;
    while (DVSPacket* p = pool.GetAFreeNode()) {
        nodes.push_back(p);
    }
    return nodes;
}

std::vector<DVSOutputData*> Drain(UIDataBuffer& pool) {
    std::vector<DVSOutputData*> nodes;
    while (DVSOutputData* n = pool.GetAFreeNode()) {
        nodes.push_back(n);
    }
    return nodes;
}

// ---------------------------------------------------------------------------------------------
// PacketBuffer, one thread

TEST(PacketBuffer, builds_distinct_nodes_of_the_requested_size) {
    PacketBuffer pool(4, 32);
    EXPECT_EQ(pool.GetNodeCount(), 4);
    EXPECT_EQ(pool.GetNodeSize(), 32);
    const auto nodes = Drain(pool);
    ASSERT_EQ(nodes.size(), 4u);
    EXPECT_EQ(std::set<DVSPacket*>(nodes.begin(), nodes.end()).size(), 4u);
    for (DVSPacket* p : nodes) {
        EXPECT_EQ(p->mBufferSize, 32);
        ASSERT_NE(p->mPack, nullptr);
        EXPECT_EQ(&p->mPack->mPacket, p);
    }
    EXPECT_EQ(pool.Initialize(nullptr, 0), ERR_SUCCESS);
}

TEST(PacketBuffer, without_consumers_an_appended_node_is_recycled_at_once) {
    PacketBuffer pool(1, 8);
    DVSPacket* p = pool.GetAFreeNode();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(pool.GetAFreeNode(), nullptr);
    EXPECT_EQ(pool.PutANodeToDataList(p), ERR_SUCCESS);
    EXPECT_EQ(pool.GetADataNode(), nullptr);
    EXPECT_EQ(pool.GetAFreeNode(), p);
}

TEST(PacketBuffer, a_node_held_by_one_consumer_blocks_every_later_node) {
    PacketBuffer pool(3, 8);
    pool.SetProcessStatus(true);
    pool.SetSaveStatus(true);
    const auto nodes = Drain(pool);
    for (DVSPacket* p : nodes) {
        pool.PutANodeToDataList(p);
    }
    for (DVSPacket* p : nodes) {
        ASSERT_EQ(pool.GetADataNode(), p);
        pool.PutANodeToFreeList(p);
        ASSERT_EQ(pool.GetASaveNode(), p);
    }
    // The recorder releases the later nodes but keeps the first.
    pool.PutANodeToFreeList(nodes[1]);
    pool.PutANodeToFreeList(nodes[2]);
    EXPECT_EQ(pool.GetAFreeNode(), nullptr);

    pool.PutANodeToFreeList(nodes[0]);
    const auto again = Drain(pool);
    EXPECT_EQ(std::set<DVSPacket*>(again.begin(), again.end()),
              std::set<DVSPacket*>(nodes.begin(), nodes.end()));
}

TEST(PacketBuffer, full_pool_drops_or_grows_by_one) {
    PacketBuffer pool(2, 16);
    pool.SetProcessStatus(true);
    for (DVSPacket* p : Drain(pool)) {
        pool.PutANodeToDataList(p);
    }
    EXPECT_EQ(pool.GetAFreeNode(), nullptr);
    EXPECT_EQ(pool.GetNodeCount(), 2);

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
}

TEST(PacketBuffer, pool_of_zero_sized_nodes_never_grows) {
    PacketBuffer pool(1, 0);
    pool.EnableDropData(false);
    pool.SetProcessStatus(true);
    DVSPacket* p = pool.GetAFreeNode();
    ASSERT_NE(p, nullptr);
    pool.PutANodeToDataList(p);
    EXPECT_EQ(pool.GetAFreeNode(), nullptr);
    EXPECT_EQ(pool.GetNodeCount(), 1);
}

TEST(PacketBuffer, switching_a_consumer_off_releases_what_it_had_not_read) {
    PacketBuffer pool(3, 8);
    pool.SetProcessStatus(true);
    pool.SetSaveStatus(true);
    const auto nodes = Drain(pool);
    for (DVSPacket* p : nodes) {
        pool.PutANodeToDataList(p);
    }
    // The recorder has read and released the first node; the parser has read nothing.
    ASSERT_EQ(pool.GetASaveNode(), nodes[0]);
    pool.PutANodeToFreeList(nodes[0]);
    pool.SetSaveStatus(false);
    EXPECT_FALSE(pool.GetSaveStatus());
    EXPECT_EQ(pool.GetASaveNode(), nullptr);
    EXPECT_EQ(pool.GetAFreeNode(), nullptr);
    for (DVSPacket* p : nodes) {
        EXPECT_EQ(p->mPack->GetRefCount(), 1u);
    }

    pool.SetProcessStatus(false);
    EXPECT_EQ(pool.GetADataNode(), nullptr);
    EXPECT_EQ(Drain(pool).size(), 3u);
}

TEST(PacketBuffer, consumer_switched_on_sees_only_later_nodes) {
    PacketBuffer pool(2, 8);
    DVSPacket* early = pool.GetAFreeNode();
    pool.PutANodeToDataList(early);
    pool.SetProcessStatus(true);
    EXPECT_EQ(pool.GetADataNode(), nullptr);
    DVSPacket* late = pool.GetAFreeNode();
    ASSERT_NE(late, nullptr);
    pool.PutANodeToDataList(late);
    EXPECT_EQ(pool.GetADataNode(), late);
    EXPECT_EQ(pool.GetADataNode(), nullptr);
}

TEST(PacketBuffer, null_nodes_and_empty_pool) {
    PacketBuffer pool(1, 8);
    EXPECT_EQ(pool.PutANodeToDataList(nullptr), ERR_NULL_NODE);
    EXPECT_EQ(pool.PutANodeToFreeList(nullptr), ERR_PARA_ERROR);

    PacketBuffer none(0, 8);
    EXPECT_EQ(none.InitBuffer(), ERR_BUFFER_INIT);
    EXPECT_EQ(none.GetNodeCount(), 0);
    EXPECT_EQ(none.GetAFreeNode(), nullptr);
    // With dropping off even an empty pool makes its first node on demand.
    none.EnableDropData(false);
    DVSPacket* p = none.GetAFreeNode();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->mBufferSize, 8);
    EXPECT_EQ(none.GetNodeCount(), 1);
}

TEST(PacketBuffer, init_buffer_returns_every_node_and_empties_the_lists) {
    PacketBuffer pool(3, 8);
    pool.SetProcessStatus(true);
    const auto nodes = Drain(pool);
    for (DVSPacket* p : nodes) {
        pool.PutANodeToDataList(p);
    }
    EXPECT_EQ(pool.InitBuffer(), ERR_SUCCESS);
    EXPECT_EQ(pool.GetADataNode(), nullptr);
    for (DVSPacket* p : nodes) {
        EXPECT_EQ(p->mPack->GetRefCount(), 0u);
    }
    const auto again = Drain(pool);
    EXPECT_EQ(again, nodes);
}

// ---------------------------------------------------------------------------------------------
// UIDataBuffer, one thread

TEST(UIDataBuffer, builds_initialised_slots_mono_and_stereo) {
    UIDataBuffer mono(3, MVT94QX, OUT_POLARITY, 4, 2);
    EXPECT_EQ(mono.GetSlotNodes(), 1);
    EXPECT_EQ(mono.GetNodeCount(), 3);
    const auto slots = Drain(mono);
    ASSERT_EQ(slots.size(), 3u);
    for (DVSOutputData* n : slots) {
        ASSERT_NE(n->mUIData, nullptr);
        EXPECT_TRUE(n->mUIData->mInitialized);
        EXPECT_EQ(n->mUIData->mBinSize, 8);
    }

    UIDataBuffer stereo(2, MVT94QX_STEREO, OUT_POLARITY, 4, 2);
    EXPECT_EQ(stereo.GetSlotNodes(), 2);
    const auto pairs = Drain(stereo);
    ASSERT_EQ(pairs.size(), 2u);
    for (DVSOutputData* n : pairs) {
        DVSOutputData* second = n + 1;
        ASSERT_NE(second->mUIData, nullptr);
        EXPECT_NE(second->mUIData, n->mUIData);
        EXPECT_EQ(second->mUIData->mVersion, MVT94QX_STEREO);
        EXPECT_EQ(second->mUIData->mBinSize, 8);
        // Only the first record of a slot is ever handed out.
        EXPECT_EQ(std::count(pairs.begin(), pairs.end(), second), 0);
    }

    UIDataBuffer none(0, MVT94QX, OUT_POLARITY, 4, 2);
    EXPECT_EQ(none.GetNodeCount(), 0);
    EXPECT_EQ(none.GetAFreeNode(), nullptr);
}

TEST(UIDataBuffer, frame_with_no_consumer_is_recycled_at_once) {
    UIDataBuffer pool(1, MVT94QX, OUT_POLARITY, 4, 2);
    DVSOutputData* n = pool.GetAFreeNode();
    ASSERT_NE(n, nullptr);
    EXPECT_EQ(pool.GetAFreeNode(), nullptr);
    pool.PutANodeToDataList(n);
    EXPECT_EQ(pool.GetAFreeNode(), n);
}

TEST(UIDataBuffer, frame_is_recycled_only_after_every_consumer_released_it) {
    UIDataBuffer pool(1, MVT94QX, OUT_POLARITY, 4, 2);
    void* a = nullptr;
    void* b = nullptr;
    ASSERT_EQ(pool.RegisterDataHandle(a), ERR_SUCCESS);
    ASSERT_EQ(pool.RegisterDataHandle(b), ERR_SUCCESS);
    EXPECT_NE(a, b);
    EXPECT_EQ(pool.GetHandleCount(), 2);

    DVSOutputData* n = pool.GetAFreeNode();
    pool.PutANodeToDataList(n);
    EXPECT_EQ(n->GetRefCount(), 2u);
    EXPECT_EQ(pool.GetADataNode(a), n);
    EXPECT_EQ(pool.GetADataNode(a), nullptr);
    pool.PutANodeToFreeList(n);
    EXPECT_EQ(pool.GetAFreeNode(), nullptr);

    EXPECT_EQ(pool.GetADataNode(b), n);
    pool.PutANodeToFreeList(n);
    EXPECT_EQ(pool.GetAFreeNode(), n);

    pool.UnregisterDataHandle(a);
    pool.UnregisterDataHandle(b);
}

TEST(UIDataBuffer, unregistering_releases_unread_frames) {
    UIDataBuffer pool(2, MVT94QX, OUT_POLARITY, 4, 2);
    void* reader = nullptr;
    void* idle = nullptr;
    pool.RegisterDataHandle(reader);
    pool.RegisterDataHandle(idle);
    const auto frames = Drain(pool);
    for (DVSOutputData* n : frames) {
        pool.PutANodeToDataList(n);
    }
    for (DVSOutputData* n : frames) {
        ASSERT_EQ(pool.GetADataNode(reader), n);
        pool.PutANodeToFreeList(n);
    }
    EXPECT_EQ(pool.GetAFreeNode(), nullptr);

    EXPECT_EQ(pool.UnregisterDataHandle(idle), ERR_SUCCESS);
    EXPECT_EQ(pool.GetHandleCount(), 1);
    EXPECT_EQ(Drain(pool).size(), 2u);
    // A handle already given back is refused instead of being freed twice.
    EXPECT_EQ(pool.UnregisterDataHandle(idle), ERR_PARA_ERROR);
    EXPECT_EQ(pool.UnregisterDataHandle(reader), ERR_SUCCESS);
    EXPECT_EQ(pool.GetHandleCount(), 0);
}

TEST(UIDataBuffer, new_consumer_sees_only_later_frames_and_blocks_when_all_are_held) {
    UIDataBuffer pool(2, MVT94QX, OUT_POLARITY, 4, 2);
    void* early = nullptr;
    pool.RegisterDataHandle(early);
    DVSOutputData* first = pool.GetAFreeNode();
    pool.PutANodeToDataList(first);
    void* late = nullptr;
    pool.RegisterDataHandle(late);
    EXPECT_EQ(pool.GetADataNode(late), nullptr);
    DVSOutputData* second = pool.GetAFreeNode();
    pool.PutANodeToDataList(second);
    EXPECT_EQ(pool.GetAFreeNode(), nullptr);

    EXPECT_EQ(pool.GetADataNode(late), second);
    EXPECT_EQ(pool.GetADataNode(early), first);
    EXPECT_EQ(pool.GetADataNode(early), second);
    EXPECT_EQ(first->GetRefCount(), 1u);
    EXPECT_EQ(second->GetRefCount(), 2u);
    // A consumer still registered when the pool goes away is freed with it.
}

TEST(UIDataBuffer, null_arguments_and_external_nodes) {
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
    EXPECT_EQ(pool.GetAFreeNode(), &a);
    EXPECT_EQ(pool.GetAFreeNode(), &b);
    EXPECT_EQ(pool.GetAFreeNode(), nullptr);
}

// ---------------------------------------------------------------------------------------------
// Threads

constexpr auto kRunLimit = std::chrono::seconds(60);

// Per-node record of which consumers still hold it: the producer sets one bit per consumer
// when it appends, each consumer clears its bit before releasing. A node handed out by
// GetAFreeNode with a bit still set was given away while in use. Node indexes are assigned
// by the producer alone and travel inside the node.
class HolderTable {
  public:
    explicit HolderTable(size_t capacity) : mBits(new std::atomic<uint32_t>[capacity]) {
        for (size_t i = 0; i < capacity; ++i) {
            mBits[i] = 0;
        }
    }
    // Producer only.
    uint32_t IndexOf(const void* node) {
        const auto it = mIndex.find(node);
        if (it != mIndex.end()) {
            return it->second;
        }
        const auto index = static_cast<uint32_t>(mIndex.size());
        mIndex.emplace(node, index);
        return index;
    }
    std::atomic<uint32_t>& Bits(uint32_t index) { return mBits[index]; }

  private:
    std::unique_ptr<std::atomic<uint32_t>[]> mBits;
    std::unordered_map<const void*, uint32_t> mIndex;
};

struct PacketStamp {
    uint64_t seq;
    uint32_t index;
};

void Stamp(DVSPacket* p, uint64_t seq, uint32_t index) {
    const PacketStamp s{seq, index};
    memcpy(p->mData, &s, sizeof s);
    p->mDataLen = sizeof s;
}

PacketStamp ReadStamp(const DVSPacket* p) {
    PacketStamp s{};
    memcpy(&s, p->mData, sizeof s);
    return s;
}

// What one consumer thread saw.
struct Seen {
    std::vector<uint64_t> seqs;
    bool timedOut = false;
};

constexpr uint32_t kParserBit = 1;
constexpr uint32_t kRecorderBit = 2;

// Reads with get() until the producer is done and nothing is left, or until stopAfter nodes.
// progress counts the nodes read so far. A pause every pauseEvery nodes lets the other
// consumer run ahead, so that both orders of the two cursors occur.
template <typename Get>
Seen ConsumePackets(PacketBuffer& pool, Get get, HolderTable& holders, uint32_t bit,
                    const std::atomic<bool>& producerDone, size_t stopAfter,
                    std::atomic<uint64_t>* progress = nullptr, size_t pauseEvery = 0) {
    Seen seen;
    const auto end = Clock::now() + kRunLimit;
    while (seen.seqs.size() < stopAfter) {
        DVSPacket* p = get();
        if (p == nullptr) {
            if (producerDone.load() && (p = get()) == nullptr) {
                break;
            }
            if (p == nullptr) {
                if (Clock::now() > end) {
                    seen.timedOut = true;
                    break;
                }
                std::this_thread::yield();
                continue;
            }
        }
        const PacketStamp s = ReadStamp(p);
        seen.seqs.push_back(s.seq);
        holders.Bits(s.index).fetch_and(~bit);
        pool.PutANodeToFreeList(p);
        if (progress != nullptr) {
            ++*progress;
        }
        if (pauseEvery != 0 && seen.seqs.size() % pauseEvery == 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    return seen;
}

// Checks that seen is strictly increasing and, together with dropped, is exactly 0..total-1.
void ExpectEverySeqOnce(const std::vector<uint64_t>& seen, const std::set<uint64_t>& dropped,
                        uint64_t total) {
    size_t next = 0;
    size_t mismatches = 0;
    for (uint64_t seq = 0; seq < total; ++seq) {
        if (dropped.count(seq) != 0) {
            continue;
        }
        if (next >= seen.size() || seen[next] != seq) {
            ++mismatches;
        }
        ++next;
    }
    EXPECT_EQ(mismatches, 0u);
    EXPECT_EQ(seen.size(), total - dropped.size());
}

// How the producer meets a pool with no free node.
enum class Producer {
    kWaits,  // retries until a node is free, as file playback does
    kDrops,  // gives up on that packet, as a live camera does
    kGrows,  // dropping disabled: the pool grows; the producer stays at most kLead nodes ahead
};

// One producer and two consumer threads (parser and recorder) move total stamped packets
// through a pool of four nodes; every node handed out is checked to be held by no consumer.
void RunPacketPipeline(Producer mode, uint64_t total) {
    constexpr uint64_t kLead = 8;
    PacketBuffer pool(4, sizeof(PacketStamp));
    pool.EnableDropData(mode != Producer::kGrows);
    pool.SetProcessStatus(true);
    pool.SetSaveStatus(true);
    HolderTable holders(kLead + 8);
    std::atomic<bool> done{false};
    std::atomic<uint64_t> parsedCount{0};
    std::atomic<uint64_t> savedCount{0};

    Seen parsed;
    Seen saved;
    std::thread parser([&] {
        parsed = ConsumePackets(
            pool, [&] { return pool.GetADataNode(); }, holders, kParserBit, done, SIZE_MAX,
            &parsedCount, 1500);
    });
    std::thread recorder([&] {
        saved = ConsumePackets(
            pool, [&] { return pool.GetASaveNode(); }, holders, kRecorderBit, done, SIZE_MAX,
            &savedCount, 1000);
    });

    std::set<uint64_t> dropped;
    int handedOutWhileHeld = 0;
    bool producerTimedOut = false;
    const auto end = Clock::now() + kRunLimit;
    for (uint64_t seq = 0; seq < total && !producerTimedOut; ++seq) {
        DVSPacket* p = nullptr;
        while (p == nullptr) {
            if (Clock::now() > end) {
                producerTimedOut = true;
                break;
            }
            if (mode == Producer::kGrows &&
                seq >= std::min(parsedCount.load(), savedCount.load()) + kLead) {
                std::this_thread::yield();
                continue;
            }
            p = pool.GetAFreeNode();
            if (p == nullptr && mode == Producer::kDrops) {
                dropped.insert(seq);
                break;
            }
            if (p == nullptr) {
                std::this_thread::yield();
            }
        }
        if (p == nullptr) {
            continue;
        }
        const uint32_t index = holders.IndexOf(p);
        if (holders.Bits(index).load() != 0) {
            ++handedOutWhileHeld;
        }
        holders.Bits(index).store(kParserBit | kRecorderBit);
        Stamp(p, seq, index);
        pool.PutANodeToDataList(p);
    }
    done = true;
    parser.join();
    recorder.join();

    EXPECT_FALSE(producerTimedOut);
    EXPECT_EQ(handedOutWhileHeld, 0);
    EXPECT_FALSE(parsed.timedOut);
    EXPECT_FALSE(saved.timedOut);
    ExpectEverySeqOnce(parsed.seqs, dropped, total);
    ExpectEverySeqOnce(saved.seqs, dropped, total);
    if (mode == Producer::kGrows) {
        EXPECT_LE(pool.GetNodeCount(), static_cast<int>(kLead + 1));
    } else {
        EXPECT_EQ(pool.GetNodeCount(), 4);
    }
}

TEST(PacketBufferThreads, waiting_producer_delivers_every_packet_to_both_consumers_in_order) {
    RunPacketPipeline(Producer::kWaits, 30000);
}

TEST(PacketBufferThreads, dropping_producer_loses_only_what_it_dropped) {
    RunPacketPipeline(Producer::kDrops, 30000);
}

TEST(PacketBufferThreads, growing_pool_recycles_grown_nodes_like_the_others) {
    RunPacketPipeline(Producer::kGrows, 30000);
}

TEST(PacketBufferThreads, switching_off_a_stalled_recorder_lets_the_producer_refill) {
    constexpr size_t kRecorderReads = 500;
    constexpr uint64_t kAfterSwitchOff = 5000;
    PacketBuffer pool(4, sizeof(PacketStamp));
    pool.SetProcessStatus(true);
    pool.SetSaveStatus(true);
    HolderTable holders(8);
    std::atomic<bool> producerStop{false};
    std::atomic<bool> consumersDone{false};
    // Set before the recorder is switched off: from then on its bit no longer counts.
    std::atomic<bool> recorderGone{false};
    std::atomic<uint64_t> delivered{0};
    std::atomic<uint64_t> drops{0};
    std::atomic<int> handedOutWhileHeld{0};
    std::set<uint64_t> dropped;
    uint64_t total = 0;

    Seen parsed;
    Seen saved;
    std::thread parser([&] {
        parsed = ConsumePackets(
            pool, [&] { return pool.GetADataNode(); }, holders, kParserBit, consumersDone,
            SIZE_MAX);
    });
    std::thread recorder([&] {
        saved = ConsumePackets(
            pool, [&] { return pool.GetASaveNode(); }, holders, kRecorderBit, consumersDone,
            kRecorderReads);
    });
    std::thread producer([&] {
        const auto end = Clock::now() + kRunLimit;
        for (uint64_t seq = 0; !producerStop.load() && Clock::now() < end; ++seq) {
            total = seq + 1;
            DVSPacket* p = pool.GetAFreeNode();
            if (p == nullptr) {
                dropped.insert(seq);
                ++drops;
                std::this_thread::yield();
                continue;
            }
            const uint32_t index = holders.IndexOf(p);
            const uint32_t counted = recorderGone.load() ? kParserBit : kParserBit | kRecorderBit;
            if ((holders.Bits(index).load() & counted) != 0) {
                ++handedOutWhileHeld;
            }
            holders.Bits(index).store(counted);
            Stamp(p, seq, index);
            pool.PutANodeToDataList(p);
            ++delivered;
        }
    });

    auto waitFor = [](auto pred) {
        const auto end = Clock::now() + std::chrono::seconds(30);
        while (!pred() && Clock::now() < end) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return pred();
    };
    recorder.join();
    ASSERT_EQ(saved.seqs.size(), kRecorderReads);
    // With the recorder gone, each node appended from now on stays held by it, so the
    // producer gets at most one pool's worth of nodes and then only drops.
    const uint64_t deliveredAtStall = delivered.load();
    const uint64_t dropsAtStall = drops.load();
    EXPECT_TRUE(waitFor([&] { return drops.load() > dropsAtStall + 2000; }));
    EXPECT_LE(delivered.load(), deliveredAtStall + 4);

    recorderGone = true;
    pool.SetSaveStatus(false);
    EXPECT_TRUE(waitFor([&] { return delivered.load() > deliveredAtStall + kAfterSwitchOff; }));
    producerStop = true;
    producer.join();
    consumersDone = true;
    parser.join();

    EXPECT_EQ(handedOutWhileHeld.load(), 0);
    EXPECT_FALSE(parsed.timedOut);
    ExpectEverySeqOnce(parsed.seqs, dropped, total);
    ASSERT_GE(parsed.seqs.size(), saved.seqs.size());
    for (size_t i = 0; i < saved.seqs.size(); ++i) {
        EXPECT_EQ(saved.seqs[i], parsed.seqs[i]);
    }
}

// Three consumers of a frame pool; the third stops reading after a while, lets its unread
// frames fill the pool and then unregisters. The producer waits for free slots, so frames it
// made are never lost, and it stalls for good unless unregistering released those frames.
TEST(UIDataBufferThreads, every_registered_consumer_sees_every_frame_once_in_order) {
    constexpr uint32_t kTotal = 20000;
    constexpr size_t kQuitterReads = 3000;
    constexpr int kConsumers = 3;
    UIDataBuffer pool(4, MVT94QX, OUT_POLARITY, 4, 2);
    void* handles[kConsumers] = {};
    for (void*& h : handles) {
        ASSERT_EQ(pool.RegisterDataHandle(h), ERR_SUCCESS);
    }
    HolderTable holders(8);
    std::atomic<bool> done{false};
    std::atomic<bool> quitterGone{false};
    std::atomic<int> handedOutWhileHeld{0};
    std::atomic<bool> producerTimedOut{false};
    std::atomic<uint32_t> appended{0};

    Seen seen[kConsumers];
    std::vector<std::thread> consumers;
    for (int c = 0; c < kConsumers; ++c) {
        consumers.emplace_back([&, c] {
            const uint32_t bit = 1u << c;
            const size_t stopAfter = c == kConsumers - 1 ? kQuitterReads : SIZE_MAX;
            const auto end = Clock::now() + kRunLimit;
            Seen& mine = seen[c];
            while (mine.seqs.size() < stopAfter) {
                DVSOutputData* n = pool.GetADataNode(handles[c]);
                if (n == nullptr && done.load()) {
                    n = pool.GetADataNode(handles[c]);
                    if (n == nullptr) {
                        break;
                    }
                }
                if (n == nullptr) {
                    if (Clock::now() > end) {
                        mine.timedOut = true;
                        break;
                    }
                    std::this_thread::yield();
                    continue;
                }
                mine.seqs.push_back(n->mUIData->mFrameIndex);
                holders.Bits(static_cast<uint32_t>(n->mUIData->mDVSID)).fetch_and(~bit);
                pool.PutANodeToFreeList(n);
                // Staggered pauses let each consumer fall behind the others in turn.
                if (mine.seqs.size() % (700 + 300 * c) == 0) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(1));
                }
            }
            if (c == kConsumers - 1) {
                const auto stallEnd = Clock::now() + std::chrono::seconds(30);
                while (appended.load() < kQuitterReads + 4 && Clock::now() < stallEnd) {
                    std::this_thread::yield();
                }
                quitterGone = true;
                pool.UnregisterDataHandle(handles[c]);
            }
        });
    }

    const auto end = Clock::now() + kRunLimit;
    for (uint32_t seq = 0; seq < kTotal && !producerTimedOut.load(); ++seq) {
        DVSOutputData* n;
        while ((n = pool.GetAFreeNode()) == nullptr) {
            if (Clock::now() > end) {
                producerTimedOut = true;
                break;
            }
            std::this_thread::yield();
        }
        if (n == nullptr) {
            break;
        }
        const uint32_t index = holders.IndexOf(n);
        const uint32_t counted = quitterGone.load() ? 3u : 7u;
        if ((holders.Bits(index).load() & counted) != 0) {
            ++handedOutWhileHeld;
        }
        holders.Bits(index).store(counted);
        n->mUIData->mFrameIndex = seq;
        n->mUIData->mDVSID = static_cast<int32_t>(index);
        pool.PutANodeToDataList(n);
        ++appended;
    }
    done = true;
    for (std::thread& t : consumers) {
        t.join();
    }

    EXPECT_FALSE(producerTimedOut.load());
    EXPECT_EQ(handedOutWhileHeld.load(), 0);
    EXPECT_EQ(pool.GetHandleCount(), 2);
    for (int c = 0; c < kConsumers; ++c) {
        EXPECT_FALSE(seen[c].timedOut) << "consumer " << c;
    }
    ExpectEverySeqOnce(seen[0].seqs, {}, kTotal);
    ExpectEverySeqOnce(seen[1].seqs, {}, kTotal);
    ExpectEverySeqOnce(seen[2].seqs, {}, kQuitterReads);
    pool.UnregisterDataHandle(handles[0]);
    pool.UnregisterDataHandle(handles[1]);
}

}  // namespace
}  // namespace evcam
