/* Writes H.264, 30 pictures a second of one slice each, and the AAC frames of an ADTS file into an
   MP4 file, with the muxer alone. Start codes have four bytes.

    gcc -std=c11 -Wall -Wextra -Wpedantic -I. -o build/release/bin/mux_only \
        examples/mux_only.c build/release/mp4mux/libmp4mux.a
    build/release/bin/mux_only samples/programme.h264 sound.aac muxed.mp4 */
#include "mp4mux/mp4_mux.h"

#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { kPictureRate = 30, kFrameSamples = 1024, kMostVideoBytes = 1 << 24, kMostFrameBytes = 8192 };
enum { kAdtsHeaderBytes = 7, kStartCodeBytes = 4, kSlice = 1, kIdrSlice = 5 };

typedef struct sound_t {
    FILE *file;
    uint8_t frame[kMostFrameBytes]; // the next one, with its ADTS header
    size_t frame_bytes;             // 0 after the last one
    int32_t rate;
    int64_t frames_written;
} sound_t;

static void fail_if(bool is_wrong, const char *what)
{
    if (is_wrong) {
        fprintf(stderr, "mux_only: %s\n", what);
        exit(EXIT_FAILURE);
    }
}

// Unbuffered, because the muxer has caches of its own.
static void *open_file(const char *name, const char *mode)
{
    FILE *const file = fopen(name, mode);
    if (file != NULL) {
        setvbuf(file, NULL, _IONBF, 0);
    }
    return file;
}

static size_t read_file(void *buffer, size_t size, size_t count, void *file)
{
    return fread(buffer, size, count, file);
}

static size_t write_file(const void *buffer, size_t size, size_t count, void *file)
{
    return fwrite(buffer, size, count, file);
}

static int seek_file(void *file, int32_t offset, int whence)
{
    return fseek(file, offset, whence);
}

static int32_t tell_file(void *file)
{
    return (int32_t)ftell(file);
}

static int close_file(void *file)
{
    return fclose(file);
}

static void run_mux(int32_t op, void **mux, void *param1, void *param2)
{
    if (QVR_MP4_MUX(op, mux, param1, param2) != 0) {
        mp4_mux_error_t error = {.m_pszMessage = "the muxer has no memory"};
        (void)QVR_MP4_MUX(MUX_GET_LAST_ERROR, mux, NULL, &error);
        fprintf(stderr, "mux_only: %s\n", error.m_pszMessage);
        (void)QVR_MP4_MUX(MUX_CLOSE, mux, NULL, NULL); // finishes the file with what it holds
        exit(EXIT_FAILURE);
    }
}

// Reads the next frame of the sound; its header has its size, the header included.
static void read_frame(sound_t *sound)
{
    uint8_t *const h = sound->frame;
    sound->frame_bytes = 0;
    if (fread(h, 1, kAdtsHeaderBytes, sound->file) == kAdtsHeaderBytes) {
        const size_t bytes = (size_t)(h[3] & 3) << 11 | (size_t)h[4] << 3 | h[5] >> 5;
        fail_if(h[0] != 0xFF || (h[1] & 0xF7) != 0xF1 || bytes <= kAdtsHeaderBytes ||
                    fread(h + kAdtsHeaderBytes, 1, bytes - kAdtsHeaderBytes, sound->file) !=
                        bytes - kAdtsHeaderBytes,
                "not a complete ADTS file without checksums");
        sound->frame_bytes = bytes;
    }
}

// Writes the frames of the sound that begin at or before the time.
static void put_sound(void **mux, sound_t *sound, int64_t until_ms)
{
    int64_t time_ms = sound->frames_written * kFrameSamples * 1000 / sound->rate;
    while (sound->frame_bytes > 0 && time_ms <= until_ms) {
        mp4_mux_putstream_t frame = {
            .m_pbyData = sound->frame + kAdtsHeaderBytes,
            .m_iDataSize = (int32_t)sound->frame_bytes - kAdtsHeaderBytes,
            .m_iType = MUX_TYPE_AUDIO,
            .m_uiTimeStamp = (uint32_t)time_ms,
            .m_uiFlags = MUX_FRAME_KEY,
        };
        run_mux(MUX_PUTFRAME, mux, &frame, NULL);
        read_frame(sound);
        time_ms = ++sound->frames_written * kFrameSamples * 1000 / sound->rate;
    }
}

// returns: the position of the first start code from `at` on, or the end
static size_t find_start_code(const uint8_t *data, size_t at, size_t bytes)
{
    for (; at + kStartCodeBytes < bytes; at++) {
        if (memcmp(data + at, "\0\0\0\1", kStartCodeBytes) == 0) {
            return at;
        }
    }
    return bytes;
}

static bool is_slice(const uint8_t *unit)
{
    const int type = unit[kStartCodeBytes] & 0x1F;
    return type == kSlice || type == kIdrSlice;
}

// Writes the slices; the parameter sets are in the decoder configuration.
static void put_pictures(void **mux, uint8_t *video, size_t video_bytes, sound_t *sound)
{
    int64_t pictures = 0;
    for (size_t at = find_start_code(video, 0, video_bytes), next = 0; at < video_bytes;
         at = next) {
        uint8_t *const unit = video + at;
        next = find_start_code(video, at + kStartCodeBytes, video_bytes);
        if (is_slice(unit)) {
            const bool is_key = (unit[kStartCodeBytes] & 0x1F) == kIdrSlice;
            const uint32_t length = (uint32_t)(next - at - kStartCodeBytes);
            for (int i = 0; i < 4; i++) { // the length takes the place of the start code
                unit[i] = (uint8_t)(length >> (24 - 8 * i));
            }
            const int64_t time_ms = pictures++ * 1000 / kPictureRate;
            mp4_mux_putstream_t frame = {
                .m_pbyData = unit,
                .m_iDataSize = (int32_t)(next - at),
                .m_iType = MUX_TYPE_VIDEO,
                .m_uiTimeStamp = (uint32_t)time_ms,
                .m_uiFlags = is_key ? MUX_FRAME_KEY : 0,
            };
            run_mux(MUX_PUTFRAME, mux, &frame, NULL);
            put_sound(mux, sound, time_ms);
        }
    }
}

int main(int argc, char **argv)
{
    static uint8_t video[kMostVideoBytes];
    static sound_t sound;
    static const int32_t rates[16] = {96000, 88200, 64000, 48000, 44100, 32000,
                                      24000, 22050, 16000, 12000, 11025, 8000};
    fail_if(argc != 4, "arguments: H264-FILE ADTS-FILE MP4-FILE");
    FILE *const pictures = fopen(argv[1], "rb");
    sound.file = fopen(argv[2], "rb");
    fail_if(pictures == NULL || sound.file == NULL, "an input cannot be opened");
    const size_t video_bytes = fread(video, 1, sizeof video, pictures);
    fclose(pictures);
    read_frame(&sound);
    const uint8_t *const h = sound.frame;
    sound.rate = rates[h[2] >> 2 & 15];
    fail_if(sound.rate == 0, "the ADTS file has no frame of a known sampling rate");
    // AudioSpecificConfig: object type (5 bits), index of the rate (4), channels (4)
    const int object_type = (h[2] >> 6) + 1, channels = (h[2] & 1) << 2 | h[3] >> 6;
    const int config = object_type << 11 | (h[2] >> 2 & 15) << 7 | channels << 3;
    const uint8_t audio_config[2] = {(uint8_t)(config >> 8), (uint8_t)config};
    size_t sets_bytes = find_start_code(video, 0, video_bytes);
    while (sets_bytes < video_bytes && !is_slice(video + sets_bytes)) {
        sets_bytes = find_start_code(video, sets_bytes + kStartCodeBytes, video_bytes);
    }

    mp4_mux_init_t init = {
        .m_pfnMalloc = malloc,
        .m_pfnFree = free,
        .m_pfnMemcpy = memcpy,
        .m_pfnMemset = memset,
        .m_pfnRealloc = realloc,
        .m_pfnFopen = open_file,
        .m_pfnFread = read_file,
        .m_pfnFseek = seek_file,
        .m_pfnFtell = tell_file,
        .m_pfnFclose = close_file,
        .m_pfnFwrite = write_file,
        .m_pfnRemove = remove,
        .m_pOutput = argv[3],
        .m_pszTempDir = "/tmp", // for long recordings
        .m_uiStreamFlags = MUX_STREAM_VIDEO | MUX_STREAM_AUDIO,
    };
    mp4_mux_input_t input = {
        .m_iYear = 2026,
        .m_iDay = 1,
        .m_uiVideoTrackID = 1,
        .m_iVideoWidth = 320, // of the sample
        .m_iVideoHeight = 240,
        .m_pbyVideoPrivate = video,
        .m_iVideoPrivateSize = (int32_t)sets_bytes,
        .m_uiAudioTrackID = 2,
        .m_iAudioSampleRate = sound.rate,
        .m_iAudioBitsPerSample = 16,
        .m_iAudioChannels = channels,
        .m_iAudioCodec = MUX_AUDIO_AAC,
        .m_pbyAudioPrivate = audio_config,
        .m_iAudioPrivateSize = sizeof audio_config,
    };
    memcpy(&input.m_uiVideoFourCC, "avc1", 4);
    void *mux = NULL;
    run_mux(MUX_OPEN, &mux, &init, &input);
    put_pictures(&mux, video, video_bytes, &sound);
    put_sound(&mux, &sound, INT64_MAX);
    run_mux(MUX_CLOSE, &mux, NULL, NULL);
    fclose(sound.file);
    return EXIT_SUCCESS;
}
