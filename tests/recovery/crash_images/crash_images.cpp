// Every image that a crash can leave of a recording, and its recovery.
//
// Usage: crash_images [SEEDED-IMAGES [SEED [IMAGE]]]
//
// Records with the component and traces every file call. Then recovers
// the files as they are after each call (prefix), with the last write torn at each sector and at
// odd places (torn), and with unsynced writes missing, in all their subsets where they are few,
// else in seeded ones (missing), and with the journal of an earlier recording (stale). Each result
// is compared with that of a normal stop after the same frame.
#include "tests/recovery/crash_images/disk_image.h"
#include "tests/recovery/crash_images/image_judge.h"
#include "tests/recovery/crash_images/recorded_truth.h"
#include "tests/support/storage_namespace.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <random>

#if defined(TDMBREC_EMULATED) || defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
static constexpr bool kIsSlow = true;
#else
static constexpr bool kIsSlow = false;
#endif

// Where a program is slow, one image of so many is judged.
static constexpr uint64_t kOneImageOf = kIsSlow ? 13 : 1;

static constexpr unsigned kDefaultSeed = 20091005;
static constexpr size_t kMostSubsetBits = 5;
static constexpr int kMostPrintedFaults = 20;

namespace {

enum image_kind { kPrefix, kTorn, kMissing, kOldJournal, kKinds };

struct run_options {
    size_t seeded_images = 1000; // of each recording
    unsigned seed = kDefaultSeed;
    std::string only; // the image to judge
};

// One image, from which its name is made.
struct crash_case {
    image_kind kind;
    std::string name;
    crash how;
};

struct run_state {
    run_options options;
    uint64_t made = 0;
    uint64_t tried[kKinds] = {};
    uint64_t held = 0;
    int faults = 0;
    judge_figures figures = {};
    Bytes stale_media = {};
    Bytes stale_journal = {};
};

} // namespace

static constexpr const char *kKindNames[kKinds] = {"prefix", "torn", "missing", "old-journal"};

// A hash of what identifies a decision of the storage.
static uint32_t decide(uint32_t seed, size_t event, int64_t page)
{
    uint64_t x = (uint64_t{seed} << 32) ^ (event * 0x9E3779B97F4A7C15) ^
                 (static_cast<uint64_t>(page) * 0xC2B2AE3D27D4EB4F);
    x ^= x >> 29;
    x *= 0xBF58476D1CE4E5B9;
    return static_cast<uint32_t>(x >> 32);
}

// A recovery in place, cut at each call, takes as long as ten others. Whose close was cut needs it
// most.
static bool is_judged_in_place(const recorded_truth &truth, const crash_case &image_case,
                               const disk_image &image, const run_state &state)
{
    static constexpr size_t kSizeOffset = 28; // of the media data
    static constexpr uint64_t kOneIn = 48;
    static constexpr uint64_t kOneInOfClosed = 8;
    const std::optional<Bytes> &media = image[truth.media];
    const bool is_closed =
        media && media->size() > kSizeOffset + 4 &&
        std::any_of(media->begin() + kSizeOffset, media->begin() + kSizeOffset + 4,
                    [](uint8_t byte) { return byte != 0; });
    const uint64_t number = state.tried[image_case.kind];
    return image_case.how.stale == nullptr &&
           (number % (is_closed ? kOneInOfClosed : kOneIn) == 0 || !state.options.only.empty());
}

static void judge(const recorded_truth &truth, const crash_case &image_case, run_state *state)
{
    const std::string name = truth.name + "/" + kKindNames[image_case.kind] + "/" + image_case.name;
    const bool is_chosen = state->options.only.empty() ? state->made++ % kOneImageOf == 0
                                                       : state->options.only == name;
    if (!is_chosen) {
        return;
    }
    disk_image image = make_disk_image(truth.trace, image_case.how);
    if (image_case.kind == kOldJournal) {
        image[truth.journal] = state->stale_journal;
    }
    state->tried[image_case.kind]++;
    const bool may_be_stale = image_case.how.stale != nullptr;
    std::string fault = judge_image(truth, image, may_be_stale, &state->figures);
    if (fault.empty() && is_judged_in_place(truth, image_case, image, *state)) {
        fault = judge_in_place(truth, image, &state->figures);
    }
    if (fault.empty()) {
        state->held++;
        return;
    }
    if (++state->faults > kMostPrintedFaults) {
        return;
    }
    std::printf("%s: %s\n  again: crash_images %zu %u %s\n", name.data(), fault.data(),
                state->options.seeded_images, state->options.seed, name.data());
}

static void judge_prefixes(const recorded_truth &truth, run_state *state)
{
    for (size_t events = 0; events <= truth.trace.events.size(); events++) {
        const crash how = {.events = events};
        judge(truth, {kPrefix, std::to_string(events), how}, state);
        judge(truth, {kOldJournal, std::to_string(events), how}, state);
    }
}

// The last write, cut at every sector and at as many odd places.
static void judge_torn_writes(const recorded_truth &truth, run_state *state)
{
    std::minstd_rand random(state->options.seed);
    for (size_t i = 0; i < truth.trace.events.size(); i++) {
        const disk_event &event = truth.trace.events[i];
        const int64_t count = static_cast<int64_t>(event.bytes.size());
        if (event.call != disk_call::write || count < 2) {
            continue;
        }
        for (int64_t at = kSectorBytes - event.offset % kSectorBytes; at < count;
             at += kSectorBytes) {
            judge(truth, {kTorn, std::to_string(i) + "-" + std::to_string(at), {i, at}}, state);
        }
        for (int64_t n = 0; n < 2 + count / kSectorBytes; n++) {
            const int64_t at = 1 + static_cast<int64_t>(random()) % (count - 1);
            judge(truth, {kTorn, std::to_string(i) + "-" + std::to_string(at), {i, at}}, state);
        }
    }
}

// All subsets of the last few unsynced writes, each with both sizes; what was before them is there.
static void judge_subsets(const recorded_truth &truth, size_t events,
                          const std::vector<size_t> &unsynced, run_state *state)
{
    const size_t bits = std::min(unsynced.size(), kMostSubsetBits);
    const size_t first = unsynced.size() - bits;
    for (uint32_t subset = 0; subset < 2u << bits; subset++) {
        crash how = {.events = events};
        how.has_all_sizes = (subset >> bits) != 0;
        how.is_there = [&, subset](size_t event, int64_t) {
            const size_t place = static_cast<size_t>(
                std::lower_bound(unsynced.begin(), unsynced.end(), event) - unsynced.begin());
            return place < first || (subset >> (place - first) & 1) != 0;
        };
        judge(truth, {kMissing, std::to_string(events) + "-" + std::to_string(subset), how}, state);
    }
}

// Pages of unsynced writes missing anywhere.
static void judge_seeded(const recorded_truth &truth, run_state *state)
{
    for (size_t n = 0; n < state->options.seeded_images; n++) {
        const uint32_t seed = decide(state->options.seed, n, 1);
        crash how = {.events = 1 + seed % truth.trace.events.size()};
        how.has_all_sizes = (seed >> 16 & 1) != 0;
        const bool has_whole_writes = (seed >> 17 & 1) != 0;
        const uint32_t missing_share = 1 + (seed >> 18 & 63); // of 64
        how.stale = (seed >> 24 & 3) == 0 ? &state->stale_media : nullptr;
        how.is_there = [=](size_t event, int64_t page) {
            return decide(seed, event, has_whole_writes ? 0 : page) % 64 >= missing_share;
        };
        judge(truth, {kMissing, "seeded-" + std::to_string(n), how}, state);
    }
}

static void judge_missing_writes(const recorded_truth &truth, run_state *state)
{
    for (size_t events = 1; events <= truth.trace.events.size(); events++) {
        const std::vector<size_t> unsynced = unsynced_events(truth.trace, events);
        if (!unsynced.empty() && unsynced.back() == events - 1) {
            judge_subsets(truth, events, unsynced, state);
        }
    }
    judge_seeded(truth, state);
}

// The same recording on a device whose syncs take until the recording ends.
static recorded_truth with_slow_syncs(recorded_truth truth)
{
    truth.name += "-slow";
    size_t last = truth.trace.events.size();
    while (last > 0 && truth.trace.events[last - 1].call != disk_call::sync) {
        last--;
    }
    std::vector<disk_event> events;
    for (size_t i = 0; i < truth.trace.events.size(); i++) {
        disk_event event = truth.trace.events[i];
        if (event.call == disk_call::sync && i + 1 != last) {
            continue;
        }
        event.begun_at = events.size();
        events.push_back(event);
    }
    truth.trace.events = events;
    return truth;
}

static std::vector<recorded_truth> make_recordings(run_state *state)
{
    const size_t pictures = kIsSlow ? 45 : 120;
    const recorded_truth earlier = record_with_component({"earlier", "1000", 120, 90, true});
    state->stale_media = earlier.finished;
    state->stale_journal = earlier.journal_bytes;
    std::vector<recorded_truth> truths;
    truths.push_back(record_with_component({"checkpoints", "1000", 0, pictures, true}));
    truths.push_back(with_slow_syncs(truths[0]));
    truths.push_back(record_with_component({"off", "", 0, pictures, true}));
    truths.push_back(record_with_component({"no-sound", "400", 0, 40, false}));
    truths.push_back(record_with_component({"sets-in-band", "600", 0, 70, true, true}));
    truths.push_back(record_with_component({"tiny", "50", 0, 24, true, false, true}));
    return truths;
}

static void judge_recordings(run_state *state)
{
    for (const recorded_truth &truth : make_recordings(state)) {
        judge_prefixes(truth, state);
        judge_torn_writes(truth, state);
        judge_missing_writes(truth, state);
    }
}

// returns: whether every image held
static bool print_figures(const run_state &state)
{
    uint64_t tried = 0;
    for (int kind = 0; kind < kKinds; kind++) {
        tried += state.tried[kind];
        std::printf("%s %llu, ", kKindNames[kind],
                    static_cast<unsigned long long>(state.tried[kind]));
    }
    std::printf("%llu images, %llu held, %llu frames compared, "
                "%llu recoveries in place cut and repeated\n",
                static_cast<unsigned long long>(tried), static_cast<unsigned long long>(state.held),
                static_cast<unsigned long long>(state.figures.frames),
                static_cast<unsigned long long>(state.figures.in_place_cuts));
    return tried == state.held;
}

int main(int argc, char **argv)
{
    const int status = run_in_storage_namespace(argc, argv);
    if (status >= 0) {
        return status;
    }
    testing::InitGoogleTest(&argc, argv);
    run_state state;
    if (argc > 1) {
        state.options.seeded_images = std::strtoul(argv[1], nullptr, 10);
    }
    if (argc > 2) {
        state.options.seed = static_cast<unsigned>(std::strtoul(argv[2], nullptr, 10));
    }
    if (argc > 3) {
        state.options.only = argv[3];
    }
    judge_recordings(&state);
    const bool has_held = print_figures(state);
    return has_held && !testing::UnitTest::GetInstance()->Failed() ? 0 : 1;
}
