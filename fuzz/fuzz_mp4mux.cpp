// The muxer from its open to its close with any frames, while any one of its callbacks fails. It
// releases everything, and a close that succeeds leaves a valid file.
//
// Input: how it is opened (4 bytes), the streams if they may be anything, what fails (4 bytes),
// then the frames: kind (with a flush after some), distance in time, size, and the first bytes of
// some.
#include "fuzz/input.h"
#include "mp4read/mp4_reader.h"
#include "tests/support/mux_callbacks.h"

using mux_test::world;

static constexpr size_t kMaxFrames = 400;

// Parameter sets in start-code form and an AudioSpecificConfig.
static const Bytes PARAMETER_SETS = {0,    0,    0,    1, 0x67, 0x42, 0xC0, 0x1E, 0xDA, 0x05, 0x07,
                                     0xE8, 0x40, 0x10, 0, 0,    0,    1,    0x68, 0xCE, 0x3C, 0x80};
static const Bytes AUDIO_CONFIG = {0x11, 0x90};

struct fuzzed_recording {
    mp4_mux_init_t init = {};
    mp4_mux_input_t input = {};
    Bytes cache, close_bytes, video_private, audio_private, user_data;
    mp4_mux_userbox_t user_box = {};
    mp4_mux_ftyp_t file_type = {};
    bool is_valid = true; // the streams are as described
    char name[8] = "out.mp4";
    void *handle = nullptr;
    size_t frame_count[3] = {}; // by type
    size_t media_bytes = 0;
};

static void describe_caches(fuzz_input &input, fuzzed_recording &recording)
{
    static constexpr int32_t kCaches[][3] = {
        {0, 0, 0}, {0x10000, 0x3000, 0x2000}, {40000, 0, 0}, {8, 17, 9}};
    const auto &[output_bytes, video_bytes, audio_bytes] = kCaches[input.u8() % 4];
    recording.cache.resize(static_cast<size_t>(output_bytes + video_bytes + audio_bytes));
    recording.close_bytes.resize(input.u16() * 4);
    recording.init.m_pCacheMem = recording.cache.empty() ? nullptr : recording.cache.data();
    recording.init.m_iCacheSize = output_bytes;
    recording.init.m_iVideoCacheSize = video_bytes;
    recording.init.m_iAudioCacheSize = audio_bytes;
}

// Streams and boxes of any kind: the muxer takes them or refuses them.
static void describe_anything(fuzz_input &input, fuzzed_recording &recording)
{
    static constexpr uint32_t kBrands[] = {0x316F7369, 0};
    recording.is_valid = false;
    recording.video_private = input.bytes(input.u8());
    recording.audio_private = input.bytes(input.u8() % 64);
    recording.user_data = input.bytes(input.u8() % 32);
    const uint32_t form = input.u8();
    mp4_mux_input_t &streams = recording.input;
    if (form & 1) {
        streams.m_uiVideoFourCC = static_cast<uint32_t>(input.number(4));
    }
    if (form & 2) {
        streams.m_iAudioCodec = static_cast<int32_t>(input.number(form & 4 ? 4 : 2));
        streams.m_iAudioSampleRate = static_cast<int32_t>(input.u16() * 10);
        streams.m_iAudioChannels = static_cast<int32_t>(input.u8());
    }
    if (form & 8) {
        recording.user_box = {.m_uiType = static_cast<uint32_t>(input.number(4)),
                              .m_pbyData = recording.user_data.data(),
                              .m_uiSize = static_cast<uint32_t>(recording.user_data.size())};
        streams.m_pstUserBox = &recording.user_box;
        streams.m_uiUserBoxCount = 1;
    }
    if (form & 16) {
        recording.file_type = {.m_szMajorBrand = {'i', 's', 'o', 'm'},
                               .m_puiCompatible = kBrands,
                               .m_uiCompatibleCount = input.u8() % 3};
        streams.m_pstFtyp = &recording.file_type;
    }
}

static void describe(fuzz_input &input, fuzzed_recording &recording)
{
    const uint32_t how = input.u8();
    recording.init = mux_test::make_callbacks((how & 1) != 0);
    describe_caches(input, recording);
    recording.init.m_pOutput = recording.name;
    recording.init.m_pszTempDir = "/tmp";
    recording.init.m_uiStreamFlags = how >> 1 & 3;
    recording.init.m_uiOptions = how >> 3 & MUX_OPTION_32BIT_OFFSET;
    recording.init.m_pfnAppendFile = how & 0x10 ? mux_test::append_whole_file : nullptr;
    recording.input = {.m_iYear = 2009,
                       .m_iDay = 1,
                       .m_iVideoWidth = 320,
                       .m_iVideoHeight = 240,
                       .m_uiVideoFourCC = 0x31637661,
                       .m_iAudioSampleRate = 48000,
                       .m_iAudioBitsPerSample = 16,
                       .m_iAudioChannels = 2,
                       .m_iAudioCodec = MUX_AUDIO_AAC};
    recording.video_private = PARAMETER_SETS;
    recording.audio_private = AUDIO_CONFIG;
    if (how & 0x20) {
        describe_anything(input, recording);
    }
    const auto data_of = [](const Bytes &bytes) { return bytes.empty() ? nullptr : bytes.data(); };
    recording.input.m_pbyVideoPrivate = data_of(recording.video_private);
    recording.input.m_iVideoPrivateSize = static_cast<int32_t>(recording.video_private.size());
    recording.input.m_pbyAudioPrivate = data_of(recording.audio_private);
    recording.input.m_iAudioPrivateSize = static_cast<int32_t>(recording.audio_private.size());
}

static void arm_failure(fuzz_input &input)
{
    const uint32_t what = input.u8();
    const uint32_t flags = input.u8();
    world.fail = {.kind = static_cast<mux_test::call>(what % 9),
                  .at = input.u16(),
                  .from_then_on = (flags & 1) != 0,
                  .partial = (flags & 2) != 0};
}

static void put_frames(fuzz_input &input, fuzzed_recording &recording)
{
    uint32_t time_ms = 0;
    for (size_t i = 0; i < kMaxFrames && !input.left.empty(); i++) {
        const uint32_t kind = input.u8();
        const uint32_t type = kind & 1 ? MUX_TYPE_VIDEO : MUX_TYPE_AUDIO;
        time_ms += kind & 4 ? input.u16() : input.u8();
        Bytes bytes(input.u16() % (kind & 8 ? 8192 : 256), static_cast<uint8_t>(i));
        const Bytes front = input.bytes(kind & 16 ? std::min<size_t>(input.u8(), bytes.size()) : 0);
        std::copy(front.begin(), front.end(), bytes.begin());
        mp4_mux_putstream_t frame = {.m_pbyData = bytes.data(),
                                     .m_iDataSize = static_cast<int32_t>(bytes.size()),
                                     .m_iType = static_cast<int32_t>(type),
                                     .m_uiTimeStamp = time_ms,
                                     .m_uiTimeStamp2 = time_ms,
                                     .m_uiFlags = kind >> 1 & MUX_FRAME_KEY};
        int64_t estimate = 0;
        if (QVR_MP4_MUX(MUX_PUTFRAME, &recording.handle, &frame, &estimate) >= 0) {
            recording.frame_count[type]++;
            recording.media_bytes += bytes.size();
        }
        if (kind & 32) {
            (void)QVR_MP4_MUX(MUX_FLUSH, &recording.handle, nullptr, nullptr);
        }
    }
}

static int32_t close(fuzzed_recording &recording)
{
    mp4_mux_closemem_t memory = {recording.close_bytes.data(),
                                 static_cast<int32_t>(recording.close_bytes.size())};
    const int32_t result = QVR_MP4_MUX(MUX_CLOSE, &recording.handle,
                                       recording.close_bytes.empty() ? nullptr : &memory, nullptr);
    if (result < 0 && recording.handle != nullptr) {
        (void)QVR_MP4_MUX(MUX_CLOSE, &recording.handle, nullptr, nullptr);
    }
    return result;
}

static size_t count_samples(const mp4_reader::movie &movie, const char *handler)
{
    const mp4_reader::track *const track = mp4_reader::find_track(movie, handler);
    return track == nullptr ? 0 : track->samples.size();
}

static void check_file(const fuzzed_recording &recording)
{
    const mp4_reader::movie movie = mp4_reader::read_movie(world.files["out.mp4"].bytes);
    require(movie.faults.empty(), first_fault(movie));
    const size_t pictures = count_samples(movie, "vide");
    const size_t audio_frames = count_samples(movie, "soun");
    require(pictures >= recording.frame_count[MUX_TYPE_VIDEO] &&
                audio_frames >= recording.frame_count[MUX_TYPE_AUDIO],
            "each frame is a sample");
    require(world.fail.at != 0 ||
                pictures + audio_frames ==
                    recording.frame_count[MUX_TYPE_VIDEO] + recording.frame_count[MUX_TYPE_AUDIO],
            "each sample is a frame, or one that was refused");
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz_input input = {{data, size}};
    mux_test::reset_world();
    fuzzed_recording recording;
    describe(input, recording);
    arm_failure(input);
    const int32_t opened =
        QVR_MP4_MUX(MUX_OPEN, &recording.handle, &recording.init, &recording.input);
    if (opened >= 0) {
        put_frames(input, recording);
    }
    if (recording.handle != nullptr && close(recording) >= 0 && opened >= 0 &&
        recording.media_bytes > 0 && recording.is_valid) {
        check_file(recording);
    }
    require(mux_test::leftovers().empty(), mux_test::leftovers());
    return 0;
}
