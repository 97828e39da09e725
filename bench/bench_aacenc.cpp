// The AAC encoder on the sample programme, as a whole and by stage: CPU time per frame and
// multiples of real time. A stage is timed on one channel.
#include "aacenc/aac_enc.h"
#include "aacenc/bitstream.h"
#include "aacenc/element_syntax.h"
#include "aacenc/encoder_state.h"
#include "aacenc/filterbank.h"
#include "aacenc/filterbank_vector.h"
#include "aacenc/rate_loop.h"
#include "tests/support/own_files.h"
#include "tests/support/stream_hash.h"

#include <algorithm>
#include <array>
#include <benchmark/benchmark.h>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <span>
#include <vector>

static constexpr int32_t kSampleRate = 48000;
static constexpr int32_t kBitRate = 128000;
static constexpr double kFrameSeconds = 1.0 * int{AACENC_FRAME_SAMPLES} / kSampleRate;
static constexpr size_t kStereoSamples = size_t{2} * AACENC_FRAME_SAMPLES; // of a frame

// The whole frames of samples/programme.wav, interleaved stereo.
static const std::vector<int16_t> &programme()
{
    static const std::vector<int16_t> samples = [] {
        constexpr size_t kWavHeaderBytes = 44;
        std::ifstream file(source_file("samples/programme.wav"), std::ios::binary);
        const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
        std::vector<int16_t> result;
        if (bytes.size() > kWavHeaderBytes) {
            result.resize((bytes.size() - kWavHeaderBytes) / sizeof(int16_t) / kStereoSamples *
                          kStereoSamples);
        }
        std::memcpy(result.data(), bytes.data() + kWavHeaderBytes, result.size() * sizeof(int16_t));
        return result;
    }();
    return samples;
}

static void *open_encoder(int32_t bit_rate, int32_t tns)
{
    static const AacEncCallbacks callbacks = {std::malloc, std::free,    std::memcpy,
                                              std::memset, std::realloc, std::memmove};
    AacEncAudioInfo audio = {.sampleRate = kSampleRate, .deinterleave = 1, .channels = 2};
    AacEncStreamInfo stream = {.bitRate = bit_rate};
    AacEncInitParams params = {
        .audioInfo = &audio, .streamInfo = &stream, .callbacks = &callbacks, .tns = tns};
    void *handle = nullptr;
    return QVR_AAC_ENC(AACENC_OP_INIT, &handle, &params, nullptr) == AACENC_OK ? handle : nullptr;
}

// returns: the hash of the programme's stream, or 0 when the encoder fails
static uint64_t encode_programme(int32_t bit_rate, int32_t tns)
{
    void *handle = open_encoder(bit_rate, tns);
    uint8_t output[AACENC_OUTPUT_BYTES];
    AacEncAudioInfo audio = {.deinterleave = 1};
    AacEncStreamInfo stream = {.output = output};
    uint64_t hash = kHashStart;
    for (size_t at = 0; handle != nullptr && at < programme().size(); at += kStereoSamples) {
        audio.pcm = programme().data() + at;
        if (QVR_AAC_ENC(AACENC_OP_ENCODE, &handle, &audio, &stream) != AACENC_OK) {
            hash = 0;
        }
        hash = stream_hash(hash, {output, static_cast<size_t>(stream.outputBytes)});
    }
    return QVR_AAC_ENC(AACENC_OP_CLOSE, &handle, nullptr, nullptr) == AACENC_OK ? hash : 0;
}

static void report(benchmark::State &state, size_t frames)
{
    using benchmark::Counter;
    const double total = static_cast<double>(state.iterations()) * static_cast<double>(frames);
    state.counters["per_frame"] = Counter(total, Counter::kIsRate | Counter::kInvert);
    state.counters["x_real_time"] = Counter(total * kFrameSeconds, Counter::kIsRate);
}

static void encode_stereo(benchmark::State &state)
{
    const auto bit_rate = static_cast<int32_t>(state.range(0));
    const auto tns = static_cast<int32_t>(state.range(1));
    for (auto _ : state) {
        benchmark::DoNotOptimize(encode_programme(bit_rate, tns));
    }
    report(state, programme().size() / kStereoSamples);
}
BENCHMARK(encode_stereo)
    ->ArgNames({"bit_rate", "tns"})
    ->ArgsProduct({{64000, 128000, 256000}, {0}})
    ->Args({128000, 1})
    ->Unit(benchmark::kMillisecond);

using spectrum_lines = std::array<int32_t, AACENC_FRAME_SAMPLES>;
using transform_function = void(const int16_t *cur, int32_t *spec, const int16_t *prev);

// The left channel's lines, frame by frame.
static std::vector<spectrum_lines> transform_programme(transform_function *transform)
{
    std::vector<spectrum_lines> frames;
    int16_t pcm[2][AACENC_FRAME_SAMPLES] = {};
    for (size_t at = 0; at < programme().size(); at += kStereoSamples) {
        std::copy_n(pcm[1], AACENC_FRAME_SAMPLES, pcm[0]);
        for (size_t n = 0; n < AACENC_FRAME_SAMPLES; n++) {
            pcm[1][n] = programme()[at + 2 * n];
        }
        transform(pcm[1], frames.emplace_back().data(), pcm[0]);
    }
    return frames;
}

static void transform_channel(benchmark::State &state, transform_function *transform)
{
    spectrum_lines lines;
    const int16_t *pcm = programme().data();
    for (auto _ : state) {
        transform(pcm + AACENC_FRAME_SAMPLES, lines.data(), pcm);
        benchmark::DoNotOptimize(lines);
    }
    report(state, 1);
}
BENCHMARK_CAPTURE(transform_channel, portable, transform_plain);

// A stereo encoder of which only the left channel is coded.
struct stereo_coder {
    void *handle;
    EncTfState *tf;
};

static stereo_coder open_coder()
{
    void *handle = open_encoder(kBitRate, 0);
    uint8_t output[AACENC_OUTPUT_BYTES];
    AacEncAudioInfo audio = {.pcm = programme().data(), .deinterleave = 1};
    AacEncStreamInfo stream = {.output = output};
    if (QVR_AAC_ENC(AACENC_OP_ENCODE, &handle, &audio, &stream) != AACENC_OK) {
        std::abort();
    }
    return {handle, static_cast<AacEncHandle *>(handle)->state->tfState};
}

static void close_coder(stereo_coder *coder)
{
    if (QVR_AAC_ENC(AACENC_OP_CLOSE, &coder->handle, nullptr, nullptr) != AACENC_OK) {
        std::abort();
    }
}

static void code(const spectrum_lines &lines, EncTfState *tf)
{
    constexpr int32_t kBudgetBits = 1366; // a frame of one channel at 64 kbit/s
    std::copy_n(lines.begin(), tf->bwLines, tf->channelBuffer[0]);
    std::fill_n(tf->channelBuffer[0] + tf->bwLines, kFrameLines - tf->bwLines, 0);
    tf->bitsLeft = kMaxChannels * kMaxChannelBits;
    if (tf_encode_spectrum_aac(&tf->channelBuffer[0], kOnlyLongSequence, kBudgetBits, tf->bitstream,
                               tf->coderInfo[0], tf->chInfo[0], tf) != 0) {
        std::abort();
    }
}

static void code_channel(benchmark::State &state)
{
    const std::vector<spectrum_lines> frames = transform_programme(transform_plain);
    stereo_coder coder = open_coder();
    for (auto _ : state) {
        for (const spectrum_lines &lines : frames) {
            code(lines, coder.tf);
        }
    }
    report(state, frames.size());
    close_coder(&coder);
}
BENCHMARK(code_channel)->Unit(benchmark::kMillisecond);

static void write_channel(benchmark::State &state)
{
    uint8_t output[AACENC_OUTPUT_BYTES];
    stereo_coder coder = open_coder();
    const std::vector<spectrum_lines> frames = transform_programme(transform_plain);
    code(frames[frames.size() / 2], coder.tf);
    const int32_t expected = WriteSCE(coder.tf->coderInfo[0], 0, nullptr, 0, coder.tf);
    for (auto _ : state) {
        bitstream_start(coder.tf->bitstream, output);
        if (WriteSCE(coder.tf->coderInfo[0], 0, coder.tf->bitstream, 1, coder.tf) != expected) {
            state.SkipWithError("the element is not as long as counted");
        }
        benchmark::DoNotOptimize(output);
    }
    report(state, 1);
    close_coder(&coder);
}
BENCHMARK(write_channel);

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    if (encode_programme(kBitRate, 0) != kProgrammeStreamHash) {
        std::fprintf(stderr, "bench_aacenc: the encoder's stream is not the expected one\n");
        return 1;
    }
    if (vector_transform_available()) {
        if (transform_programme(transform_vector) != transform_programme(transform_plain)) {
            std::fprintf(stderr, "bench_aacenc: the vector transform is not the portable one\n");
            return 1;
        }
        benchmark::RegisterBenchmark("transform_channel/vectors", transform_channel,
                                     transform_vector);
    }
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
