#include "tests/support/normal_stop.h"

#include "component/tdmbrec_interface.h"
#include "tests/support/mux_callbacks.h"

#include <cstring>
#include <stdexcept>

// source: ISO/IEC 14496-3, Tables 4.3 and 4.5
static const Bytes kSilence = {0x20, 0, 0, 0, 0, 0, 0x0E};

muxer_settings recorder_settings(const Bytes &video_configuration)
{
    muxer_settings settings = {.stream_flags = MUX_STREAM_VIDEO | MUX_STREAM_AUDIO,
                               .options = MUX_OPTION_32BIT_OFFSET,
                               .input = {.m_iYear = 2009,
                                         .m_iMonth = 9, // from 0
                                         .m_iDay = 5,
                                         .m_iWeekDay = 1,
                                         .m_iHour = 17,
                                         .m_iMinute = 5,
                                         .m_iSecond = 18,
                                         .m_iVideoWidth = TDMBREC_PICTURE_WIDTH,
                                         .m_iVideoHeight = TDMBREC_PICTURE_HEIGHT,
                                         .m_iVideoFrameRate = 30000,
                                         .m_iAudioSampleRate = kPcmSamplesPerSecond,
                                         .m_iAudioBitsPerSample = 16,
                                         .m_iAudioChannels = 2,
                                         .m_iAudioCodec = MUX_AUDIO_AAC},
                               .video_configuration = video_configuration,
                               .audio_configuration = {0x11, 0x90}};
    std::memcpy(&settings.input.m_uiVideoFourCC, "avc1", 4);
    return settings;
}

mp4_mux_init_t memory_output()
{
    static Bytes caches(TDMBREC_OUTPUT_CACHE_BYTES + TDMBREC_VIDEO_CACHE_BYTES +
                        TDMBREC_AUDIO_CACHE_BYTES);
    static char name[] = "out.mp4";
    mux_test::reset_world();
    mp4_mux_init_t init = mux_test::make_callbacks(false);
    init.m_pOutput = name;
    init.m_pCacheMem = caches.data();
    init.m_iCacheSize = TDMBREC_OUTPUT_CACHE_BYTES;
    init.m_iVideoCacheSize = TDMBREC_VIDEO_CACHE_BYTES;
    init.m_iAudioCacheSize = TDMBREC_AUDIO_CACHE_BYTES;
    return init;
}

static void call_muxer(int32_t op, void **handle, void *param1, void *param2)
{
    if (QVR_MP4_MUX(op, handle, param1, param2) < 0) {
        throw std::runtime_error("the muxer fails in operation " + std::to_string(op));
    }
}

static void put_frame(void **handle, const muxed_frame &frame)
{
    mp4_mux_putstream_t put = {.m_pbyData = frame.bytes.data(),
                               .m_iDataSize = static_cast<int32_t>(frame.bytes.size()),
                               .m_iType = frame.type,
                               .m_uiTimeStamp = frame.time_ms,
                               .m_uiTimeStamp2 = frame.time_ms,
                               .m_uiFlags = frame.flags};
    call_muxer(MUX_PUTFRAME, handle, &put, nullptr);
}

Bytes normal_stop(const muxer_settings &settings, const std::vector<muxed_frame> &frames)
{
    mp4_mux_init_t init = memory_output();
    init.m_uiStreamFlags = settings.stream_flags;
    init.m_uiOptions = settings.options;
    mp4_mux_input_t input = settings.input;
    input.m_pbyVideoPrivate = settings.video_configuration.data();
    input.m_iVideoPrivateSize = static_cast<int32_t>(settings.video_configuration.size());
    input.m_pbyAudioPrivate = settings.audio_configuration.data();
    input.m_iAudioPrivateSize = static_cast<int32_t>(settings.audio_configuration.size());
    void *handle = nullptr;
    call_muxer(MUX_OPEN, &handle, &init, &input);
    bool has_audio = false;
    for (const muxed_frame &frame : frames) {
        put_frame(&handle, frame);
        has_audio = has_audio || frame.type == MUX_TYPE_AUDIO;
    }
    if (!has_audio) {
        put_frame(&handle, {.type = MUX_TYPE_AUDIO, .flags = MUX_FRAME_KEY, .bytes = kSilence});
    }
    call_muxer(MUX_CLOSE, &handle, nullptr, nullptr);
    return mux_test::world.files.at("out.mp4").bytes;
}
