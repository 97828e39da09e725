// The AAC encoder over the sample programme: CPU time per frame and multiples of real time.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <span>
#include <vector>

#include <benchmark/benchmark.h>

#include "aacenc/aac_enc.h"
#include "aacenc/filterbank.h"
#include "tests/support/stream_hash.h"

static constexpr int32_t kSampleRate = 48000;
static constexpr double kFrameSeconds = 1.0 * int{AACENC_FRAME_SAMPLES} / kSampleRate;
static constexpr size_t kFrame = size_t{2} * AACENC_FRAME_SAMPLES;

// The whole frames of samples/programme.wav, interleaved stereo.
static const std::vector<int16_t> &programme()
{
    static const std::vector<int16_t> samples = [] {
        constexpr size_t kHeader = 44;
        std::ifstream file(TDMBREC_SOURCE_DIR "/samples/programme.wav", std::ios::binary);
        const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
        std::vector<int16_t> result;
        if (bytes.size() > kHeader)
            result.resize((bytes.size() - kHeader) / sizeof(int16_t) / kFrame * kFrame);
        std::memcpy(result.data(), bytes.data() + kHeader, result.size() * sizeof(int16_t));
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

// returns: hash of the programme's stream, 0 when the encoder fails
static uint64_t encode_programme(int32_t bit_rate, int32_t tns)
{
    void *handle = open_encoder(bit_rate, tns);
    uint8_t output[AACENC_OUTPUT_BYTES];
    AacEncAudioInfo audio = {.deinterleave = 1};
    AacEncStreamInfo stream = {.output = output};
    uint64_t hash = kHashStart;
    for (size_t at = 0; handle && at < programme().size(); at += kFrame) {
        audio.pcm = programme().data() + at;
        if (QVR_AAC_ENC(AACENC_OP_ENCODE, &handle, &audio, &stream) != AACENC_OK)
            hash = 0;
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
    for (auto _ : state)
        benchmark::DoNotOptimize(encode_programme(bit_rate, tns));
    report(state, programme().size() / kFrame);
}
BENCHMARK(encode_stereo)
    ->ArgNames({"bit_rate", "tns"})
    ->ArgsProduct({{64000, 128000, 256000}, {0}})
    ->Args({128000, 1})
    ->Unit(benchmark::kMillisecond);

static void transform_channel(benchmark::State &state)
{
    int32_t lines[AACENC_FRAME_SAMPLES];
    const int16_t *pcm = programme().data();
    for (auto _ : state) {
        buffer2freq(pcm + AACENC_FRAME_SAMPLES, lines, pcm, 1);
        benchmark::DoNotOptimize(lines);
    }
    report(state, 1);
}
BENCHMARK(transform_channel);

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    if (encode_programme(128000, 0) != kProgrammeStreamHash) {
        std::fprintf(stderr, "bench_aacenc: the encoder's stream is not the expected one\n");
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
