#include "tests/support/recovery_run.h"

#include "tests/support/mux_callbacks.h"
#include "tests/support/normal_stop.h"

#include <algorithm>
#include <stdexcept>

static int64_t read_at(void *context, int64_t offset, void *buffer, int64_t count)
{
    const Bytes &bytes = *static_cast<const Bytes *>(context);
    const int64_t from = std::min(offset, static_cast<int64_t>(bytes.size()));
    const int64_t got = std::min(count, static_cast<int64_t>(bytes.size()) - from);
    std::copy_n(bytes.data() + from, got, static_cast<uint8_t *>(buffer));
    return got;
}

static int64_t size_of(void *context)
{
    return static_cast<int64_t>(static_cast<const Bytes *>(context)->size());
}

recovery_source_t source_of(const Bytes &bytes)
{
    return {.context = const_cast<Bytes *>(&bytes), .read_at = read_at, .size = size_of};
}

namespace {

// A file whose reads fail.
struct failing_source {
    Bytes *bytes;
    size_t reads_left;
    size_t reads_to_cut;
};

int64_t read_or_fail(void *context, int64_t offset, void *buffer, int64_t count)
{
    static constexpr size_t kCutBytes = 10;
    failing_source *const source = static_cast<failing_source *>(context);
    source->reads_left -= source->reads_left > 0 ? 1 : 0;
    source->reads_to_cut--;
    if (source->reads_to_cut == 0) {
        source->bytes->resize(source->bytes->size() - kCutBytes);
    }
    return source->reads_left == 0 ? -1 : read_at(source->bytes, offset, buffer, count);
}

int64_t size_of_failing(void *context)
{
    return size_of(static_cast<failing_source *>(context)->bytes);
}

// The input of a recovery. Its frames go to `result`.
struct run_input {
    failing_source media_file = {};
    failing_source journal_file = {};
    recovery_source_t journal = {};
    recovery_source_t tables[RECOVERY_TABLE_COUNT] = {};
    recovery_input_t input = {};

    run_input(const interrupted_files &files, recovered *result)
    {
        media_file = {const_cast<Bytes *>(&files.media), files.media_reads, files.reads_to_cut};
        input.media = {&media_file, read_or_fail, size_of_failing};
        if (files.journal) {
            journal_file = {const_cast<Bytes *>(&*files.journal), files.journal_reads, SIZE_MAX};
            journal = {&journal_file, read_or_fail, size_of_failing};
            input.journal = &journal;
        }
        for (size_t i = 0; i < RECOVERY_TABLE_COUNT; i++) {
            tables[i] = source_of(files.tables[i]);
            input.tables[i] = files.tables[i].empty() ? nullptr : &tables[i];
        }
        input.configuration = files.configuration.data();
        input.configuration_bytes = static_cast<int32_t>(files.configuration.size());
        input.context = result;
        input.frame = [](void *context, const recovery_frame_t *frame) {
            static_cast<recovered *>(context)->frames.push_back(*frame);
        };
    }
};

// A media file that is finished in place.
struct media_target {
    Bytes *media;
    size_t calls_left;
};

} // namespace

static void check_muxer()
{
    if (!mux_test::leftovers().empty()) {
        throw std::runtime_error("the muxer leaves " + mux_test::leftovers());
    }
}

// returns: whether the call succeeds
static bool count_call(media_target *target)
{
    target->calls_left -= target->calls_left > 0 ? 1 : 0;
    return target->calls_left > 0;
}

static int32_t write_at(void *context, int64_t offset, const void *from, int64_t count)
{
    media_target *const target = static_cast<media_target *>(context);
    const bool was_dead = target->calls_left == 0;
    const bool is_whole = count_call(target);
    const int64_t written = is_whole ? count : was_dead ? 0 : count / 2;
    const size_t end = static_cast<size_t>(offset + written);
    target->media->resize(std::max(target->media->size(), end));
    std::copy_n(static_cast<const uint8_t *>(from), written, target->media->data() + offset);
    return is_whole ? 0 : -1;
}

static int32_t set_size(void *context, int64_t bytes)
{
    media_target *const target = static_cast<media_target *>(context);
    if (!count_call(target)) {
        return -1;
    }
    target->media->resize(static_cast<size_t>(bytes));
    return 0;
}

static int32_t sync(void *context)
{
    return count_call(static_cast<media_target *>(context)) ? 0 : -1;
}

recovered scan_files(const interrupted_files &files)
{
    recovered result = {};
    const run_input run(files, &result);
    result.code = recovery_scan(&run.input, &result.report);
    return result;
}

recovered recover_files(const interrupted_files &files)
{
    recovered result = {};
    const run_input run(files, &result);
    const mp4_mux_init_t output = memory_output();
    result.code = recovery_write(&run.input, &output, nullptr, &result.report);
    check_muxer();
    result.file =
        result.code == RECOVERY_DONE ? mux_test::world.files.at("out.mp4").bytes : Bytes{};
    return result;
}

recovered recover_in_place(interrupted_files *files, size_t calls_left)
{
    recovered result = {};
    const run_input run(*files, &result);
    media_target media = {&files->media, calls_left};
    const recovery_target_t target = {
        .context = &media, .write_at = write_at, .set_size = set_size, .sync = sync};
    const mp4_mux_init_t scratch = memory_output();
    result.code = recovery_in_place(&run.input, &target, &scratch, nullptr, &result.report);
    check_muxer();
    result.file = files->media;
    return result;
}
