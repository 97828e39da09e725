// The recovery of any media data with any journal and any scratch tables: the three entry points
// agree, no frame is outside the file or in two places, and what they finish can be read.
//
// Input: how (1 byte), the length of the journal (2 bytes), the journal, for some the lengths (1
// byte each) and bytes of the tables, then the media file.
#include "fuzz/input.h"
#include "journal/journal.h"
#include "mp4read/mp4_reader.h"
#include "recovery/recovery.h"
#include "tests/support/mux_callbacks.h"

#include <cstring>

using mux_test::world;

namespace {

// Bits of the first byte.
constexpr uint32_t kHasJournal = 1, kIsRepaired = 2, kHasHead = 4, kHasTables = 8,
                   kHasConfiguration = 16, kHasRates = 32, kFails = 64;

constexpr Bytes::value_type kHead[] = {0,   0,   0,   20,  'f', 't', 'y', 'p', '3', 'g', '2', 'a',
                                       0,   0,   2,   0,   '3', 'g', '2', 'a', 0,   0,   0,   8,
                                       'f', 'r', 'e', 'e', 0,   0,   0,   0,   'm', 'd', 'a', 't'};
constexpr uint8_t kConfiguration[] = {0,    0,    0,    1,    0x67, 0x42, 0xC0, 0x1E,
                                      0xDA, 0x05, 0x07, 0xE8, 0x40, 0x10, 0,    0,
                                      0,    1,    0x68, 0xCE, 0x3C, 0x80};

struct memory_file {
    Bytes bytes;
    size_t calls_left = SIZE_MAX;
};

struct recovered {
    int64_t end = 0; // of the last frame
    uint32_t pictures = 0;
    int64_t file_bytes = 0;
};

} // namespace

static int64_t read_at(void *context, int64_t offset, void *buffer, int64_t count)
{
    const Bytes &bytes = static_cast<memory_file *>(context)->bytes;
    const int64_t size = static_cast<int64_t>(bytes.size());
    require(offset >= 0 && count > 0 && offset < size, "reads are within the file");
    const int64_t got = std::min(count, size - offset);
    std::copy_n(bytes.data() + offset, got, static_cast<uint8_t *>(buffer));
    return got;
}

static int64_t size_of(void *context)
{
    return static_cast<int64_t>(static_cast<memory_file *>(context)->bytes.size());
}

static bool may_call(void *context)
{
    size_t &left = static_cast<memory_file *>(context)->calls_left;
    left -= left > 0 ? 1 : 0;
    return left > 0;
}

static int32_t write_at(void *context, int64_t offset, const void *from, int64_t count)
{
    Bytes &bytes = static_cast<memory_file *>(context)->bytes;
    if (!may_call(context)) {
        return -1;
    }
    bytes.resize(std::max(bytes.size(), static_cast<size_t>(offset + count)));
    std::copy_n(static_cast<const uint8_t *>(from), count, bytes.data() + offset);
    return 0;
}

static int32_t set_size(void *context, int64_t size)
{
    if (!may_call(context)) {
        return -1;
    }
    static_cast<memory_file *>(context)->bytes.resize(static_cast<size_t>(size));
    return 0;
}

static int32_t sync(void *context)
{
    return may_call(context) ? 0 : -1;
}

static void note_frame(void *context, const recovery_frame_t *frame)
{
    recovered *const found = static_cast<recovered *>(context);
    require(frame->offset >= found->end && frame->size >= 0, "frames follow one another");
    found->end = frame->offset + frame->size;
    found->pictures += frame->type == MUX_TYPE_VIDEO ? 1 : 0;
    require(found->end <= found->file_bytes, "frames are within the file");
}

static void put_sum(uint64_t session, uint8_t *begin, size_t summed_bytes)
{
    journal_sum_t sum = journal_sum_begin(session);
    journal_sum_add(&sum, begin, summed_bytes);
    const uint32_t value = journal_sum_end(&sum);
    for (size_t i = 0; i < 4; i++) {
        begin[summed_bytes + i] = static_cast<uint8_t>(value >> (24 - 8 * i));
    }
}

// Sets the checksums of a journal, so that the rest of it counts.
static void repair_journal(Bytes &journal)
{
    fuzz_input in = {journal};
    (void)in.take(6);
    size_t part_bytes = in.u16();
    const uint64_t session = in.number(8);
    for (size_t at = 0; part_bytes >= 24 && part_bytes <= journal.size() - at;) {
        put_sum(session, journal.data() + at, part_bytes - 4);
        at += part_bytes;
        fuzz_input group = {std::span<const uint8_t>(journal).subspan(at)};
        (void)group.take(4);
        part_bytes = static_cast<size_t>(group.number(4));
    }
}

namespace {

struct fuzzed_recording {
    uint32_t how = 0;
    memory_file media, journal, tables[RECOVERY_TABLE_COUNT];
    recovery_source_t journal_source = {}, table_sources[RECOVERY_TABLE_COUNT] = {};
    recovery_input_t input = {};
    recovered found;
};

} // namespace

static void describe(fuzz_input &in, fuzzed_recording &recording)
{
    recording.how = in.u8();
    recording.journal.bytes = in.bytes(in.u16());
    if (recording.how & kIsRepaired) {
        repair_journal(recording.journal.bytes);
    }
    recording.input.media = {&recording.media, read_at, size_of};
    recording.journal_source = {&recording.journal, read_at, size_of};
    recording.input.journal = recording.how & kHasJournal ? &recording.journal_source : nullptr;
    for (int i = 0; i < RECOVERY_TABLE_COUNT && (recording.how & kHasTables) != 0; i++) {
        recording.tables[i].bytes = in.bytes(in.u8());
        recording.table_sources[i] = {&recording.tables[i], read_at, size_of};
        recording.input.tables[i] = &recording.table_sources[i];
    }
    if (recording.how & kHasConfiguration) {
        recording.input.configuration = kConfiguration;
        recording.input.configuration_bytes = sizeof(kConfiguration);
    }
    if (recording.how & kHasRates) {
        recording.input.sample_rate = 48000;
        recording.input.frame_rate_num = 30000;
        recording.input.frame_rate_den = 1001;
    }
    if (recording.how & kHasHead) {
        recording.media.bytes.assign(std::begin(kHead), std::end(kHead));
    }
    const Bytes rest = in.bytes(in.left.size());
    recording.media.bytes.insert(recording.media.bytes.end(), rest.begin(), rest.end());
    recording.found.file_bytes = size_of(&recording.media);
    recording.input.context = &recording.found;
}

static void check_file(const Bytes &file, const recovery_report_t &report)
{
    const mp4_reader::movie movie = mp4_reader::read_movie(file);
    require(movie.tracks.size() >= 1, "there is a track");
    const mp4_reader::track *const pictures = find_track(movie, "vide");
    require(pictures != nullptr && pictures->samples.size() == report.pictures,
            "each picture is a sample");
}

static void finish_in_place(const fuzzed_recording &recording, int32_t written, const Bytes &file)
{
    memory_file target_file = recording.media;
    recovery_input_t input = recording.input;
    input.frame = nullptr;
    input.media.context = &target_file;
    const recovery_target_t target = {&target_file, write_at, set_size, sync};
    const mp4_mux_init_t scratch = mux_test::make_callbacks(false);
    recovery_report_t report;
    if (recording.how & kFails) {
        target_file.calls_left = recording.media.bytes.size() % 7;
        (void)recovery_in_place(&input, &target, &scratch, nullptr, &report);
        target_file.calls_left = SIZE_MAX;
    }
    const int32_t result = recovery_in_place(&input, &target, &scratch, nullptr, &report);
    if (result == RECOVERY_DONE) {
        check_file(target_file.bytes, report);
    }
    if (recording.how & kFails) {
        return;
    }
    if (result == RECOVERY_DONE) {
        require(written == RECOVERY_DONE && target_file.bytes == file, "both make the same file");
    } else {
        require(result != written || target_file.bytes == recording.media.bytes,
                "a failure changes nothing");
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz_input in = {{data, size}};
    fuzzed_recording recording;
    describe(in, recording);
    mux_test::reset_world();
    recovery_report_t scanned;
    recovery_report_t report;
    recording.input.frame = note_frame;
    const int32_t result = recovery_scan(&recording.input, &scanned);
    require(result != RECOVERY_DONE || recording.found.pictures == scanned.pictures,
            "each picture is reported");
    recording.input.frame = nullptr;
    mp4_mux_init_t output = mux_test::make_callbacks(true);
    char name[] = "out.mp4";
    output.m_pOutput = name;
    const int32_t written = recovery_write(&recording.input, &output, nullptr, &report);
    if (written != RECOVERY_ERR_WRITE && written != RECOVERY_ERR_CONFIGURATION) {
        require(result == written && std::memcmp(&report, &scanned, sizeof(report)) == 0,
                "scan and write agree");
    }
    const Bytes file = written == RECOVERY_DONE ? world.files["out.mp4"].bytes : Bytes{};
    if (written == RECOVERY_DONE) {
        check_file(file, report);
    }
    finish_in_place(recording, written, file);
    require(mux_test::leftovers().empty(), mux_test::leftovers());
    return 0;
}
