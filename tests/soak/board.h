// The soak's shared board: a file every process of one run maps, where the
// coordinator writes the run's configuration and phase, the publisher what it
// wrote, and each subscriber and reader what it received and when. Plain
// lock-free atomics, so that no process can block another through it.
#ifndef QZCAP_TESTS_SOAK_BOARD_H
#define QZCAP_TESTS_SOAK_BOARD_H

#include <atomic>
#include <cstdint>
#include <string>

namespace soak {

inline constexpr uint32_t kMaxKeys = 4096;
inline constexpr uint32_t kMaxSubcards = 64;
// Items: the capability keys, then one per subcard, then the device-wide
// readiness record.
inline constexpr uint32_t kMaxItems = kMaxKeys + kMaxSubcards + 1;
inline constexpr uint32_t kMaxSubscribers = 16;
inline constexpr uint32_t kMaxReaders = 16;

static_assert(std::atomic<int64_t>::is_always_lock_free, "the board is shared between processes");

// Faults the soak injects into its own children, to prove that it notices them.
enum Inject : uint32_t {
    kInjectNone = 0,
    kInjectIgnoreAfterRestart = 1u << 0,  // subscriber 0 stops counting key 0 after a reconnect
    kInjectReaderExit = 1u << 1,          // reader 0 exits with status 3 after a reconnect
    kInjectFdPerReconnect = 1u << 2,      // subscriber 0 opens a descriptor per reconnect
};

struct Config {
    uint32_t subscribers = 4;
    uint32_t readers = 2;
    uint32_t keys = 256;  // even keys are boolean capabilities, odd ones int32
    uint32_t subcards = 4;
    uint32_t cycle_ms = 1000;  // the publisher writes every item once per cycle
    uint64_t seed = 0;
    uint32_t inject = kInjectNone;

    uint32_t items() const { return keys + subcards + 1; }
    uint32_t state_item() const { return keys + subcards; }
};

enum Phase : int32_t { kRunning = 0, kFinalRound = 1, kStopping = 2 };

// What one subscription last delivered.
struct Slot {
    std::atomic<int64_t> seen_ns{0};  // CLOCK_MONOTONIC of the last delivery
    std::atomic<int64_t> value{0};    // its sequence number (readiness: its value)
    std::atomic<uint64_t> count{0};
};

struct ChildBlock {
    std::atomic<int32_t> ready{0};        // set up: initialised and subscribed
    std::atomic<uint64_t> faults{0};      // wrong data it saw (each told in its log)
    std::atomic<int64_t> progress_ns{0};  // reader: last read that reached the store
    std::atomic<uint64_t> ops{0};         // reader: reads done
    std::atomic<uint64_t> reconnects{0};  // subscriber: reconnect callbacks run
    std::atomic<uint64_t> confirmations{0};
    std::atomic<int64_t> bus_subscriptions{-1};  // subscriber: what its bus handle holds, sampled
    Slot slots[kMaxItems];
};

struct PublisherBlock {
    std::atomic<int32_t> ready{0};
    std::atomic<int64_t> progress_ns{0};  // last write the store accepted
    std::atomic<uint64_t> bus_writes{0}, raw_writes{0}, failed_writes{0};
    std::atomic<int64_t> issued[kMaxItems];     // highest sequence handed to a write
    std::atomic<int64_t> final_seq[kMaxItems];  // last written, once final_done
    std::atomic<int32_t> final_done{0};
};

struct Board {
    uint64_t magic = kMagic;
    Config config;
    std::atomic<int32_t> phase{kRunning};
    PublisherBlock publisher;
    ChildBlock subscribers[kMaxSubscribers];
    ChildBlock readers[kMaxReaders];

    static constexpr uint64_t kMagic = 0x71637a736f616b31;  // "qczsoak1"
};

// Creates the board file at path (the coordinator) or maps an existing one
// (a child). Null with *why on failure. The mapping lives until the process ends.
Board *create_board(const std::string &path, const Config &config, std::string *why);
Board *open_board(const std::string &path, std::string *why);

// CLOCK_MONOTONIC in nanoseconds: one clock for every process of the run.
int64_t now_ns();

}  // namespace soak

#endif  // QZCAP_TESTS_SOAK_BOARD_H
