// The AAC Low Complexity encoder: 1024-sample frames of 16-bit PCM in, one access unit per frame
// out.
#ifndef AACENC_AAC_ENC_H
#define AACENC_AAC_ENC_H

#include <stddef.h>
#include <stdint.h>

#define AACENC_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

enum {
    AACENC_FRAME_SAMPLES = 1024, // samples per channel in one frame
    AACENC_OUTPUT_BYTES = 2048,  // an output buffer of this size holds every access unit
    AACENC_FORMAT_RAW = 0,       // bare raw_data_block
    AACENC_FORMAT_ADTS = 2,      // raw_data_block after a 7-byte ADTS header
};

// Operations of QVR_AAC_ENC.
enum {
    AACENC_OP_INIT = 0,
    AACENC_OP_ENCODE = 2,
    AACENC_OP_CLOSE = 3,
};

// Results of QVR_AAC_ENC.
enum {
    AACENC_OK = 0,
    AACENC_ERR_MEMORY = -1,      // init: an allocation failed
    AACENC_ERR_NO_HANDLE = -1,   // any: no handle slot; encode, close: nothing open in it
    AACENC_ERR_CONFIG = -2,      // init: bit rate or number of channels
    AACENC_ERR_SAMPLE_RATE = -3, // init: sample rate
    AACENC_ERR_OPERATION = -3,   // unknown operation
    AACENC_ERR_FRAME = -8,       // encode: a pointer is missing or the frame could not be coded
    AACENC_ERR_INIT = -11,       // init: a record or a memory function is missing
};

// Memory functions of the caller, with the contracts of their C library namesakes. The encoder
// calls only `allocate`, `release` and `fill`, and none of them while it encodes.
typedef struct AacEncCallbacks {
    void *(*allocate)(size_t size);
    void (*release)(void *pointer);
    void *(*copy)(void *destination, const void *source, size_t count);
    void *(*fill)(void *pointer, int value, size_t count);
    void *(*reallocate)(void *pointer, size_t size);
    void *(*move)(void *destination, const void *source, size_t count);
} AacEncCallbacks;

// clang-format off

// The PCM side of the encoder. The comments give the byte offsets where pointers have 32 bits.
typedef struct AacEncAudioInfo {
    const int16_t *pcm;          // 0: in (encode): interleaved pairs, or the first or only channel
    const int16_t *pcmSecond;    // 4: in (encode): second channel, read unless `deinterleave` is 1
    uint8_t reserved8[88];       // 8
    int32_t sampleRate;          // 96: in (init): Hz, one of the nine AAC rates from 8000 to 48000
    int32_t reserved100;         // 100
    int32_t deinterleave;        // 104: in (init, encode): 1 = `pcm` holds interleaved pairs
    int32_t channels;            // 108: in (init): 1 or 2
    int32_t reserved112[3];      // 112
} AacEncAudioInfo;

// The stream side of the encoder.
typedef struct AacEncStreamInfo {
    uint8_t *output;             // 0: in (encode): at least AACENC_OUTPUT_BYTES
    int32_t outputBytes;         // 4: out (encode): length of the access unit, ADTS header included
    int32_t sampleRate;          // 8: out (init): Hz
    int32_t channels;            // 12: out (init)
    int32_t bitRate;             // 16: in (init): bit/s, a multiple of 1000, at least 16000
    int32_t samplesPerChannel;   // 20: out (init): AACENC_FRAME_SAMPLES
    int32_t reserved24;          // 24
} AacEncStreamInfo;

typedef struct AacEncInitParams {
    AacEncAudioInfo *audioInfo;        // 0: in
    AacEncStreamInfo *streamInfo;      // 4: in, out
    uint32_t reservedWords[2];         // 8: the caller's, not read
    uint32_t reserved16;               // 16
    int32_t outputBufferBytes;         // 20: out: AACENC_OUTPUT_BYTES
    uint32_t reserved24;               // 24
    const AacEncCallbacks *callbacks;  // 28: in: must outlive the handle
    uint8_t reserved32[96];            // 32
    uint8_t outputFormat;              // 128: in: AACENC_FORMAT_ADTS, anything else is raw
    uint8_t reserved129[3];            // 129
    int32_t pns;                       // 132: in: nonzero = perceptual noise substitution on
    int32_t tns;                       // 136: in: nonzero = temporal noise shaping on
    int32_t mpeg2Id;                   // 140: in: ID bit of the ADTS header; nonzero forces PNS off
    uint8_t reserved144[112];          // 144
} AacEncInitParams;

// clang-format on

// Opens, runs and closes an encoder.
//   AACENC_OP_INIT    arg3 = AacEncInitParams, arg4 unused. Reads the records that the parameters
//                     point to, fills their `out (init)` fields and stores the new handle. On
//                     failure it stores null and keeps nothing.
//   AACENC_OP_ENCODE  arg3 = AacEncAudioInfo, arg4 = AacEncStreamInfo. Encodes one frame of
//                     AACENC_FRAME_SAMPLES samples per channel, 16-bit aligned. A null PCM pointer
//                     means the PCM of the previous frame. The decoded sound is one frame late: a
//                     frame of silence after the last one completes it. On failure `outputBytes` is
//                     unchanged.
//   AACENC_OP_CLOSE   arg3 and arg4 unused. Releases everything and stores null.
// in: handle: the caller's handle variable, null while nothing is open
// returns: AACENC_OK or one of the errors above
// owns: the handle owns what init allocated through the callbacks, until close
// thread: one handle is used by one thread at a time; handles are independent of each other
// source: ISO/IEC 14496-3, raw_data_block() and adts_frame()
AACENC_API int32_t QVR_AAC_ENC(int32_t op, void **handle, void *arg3, void *arg4);

#ifdef __cplusplus
} // extern "C"

static_assert(sizeof(void *) != 4 || sizeof(AacEncAudioInfo) == 124);
static_assert(sizeof(void *) != 4 || offsetof(AacEncAudioInfo, pcmSecond) == 4);
static_assert(sizeof(void *) != 4 || offsetof(AacEncAudioInfo, sampleRate) == 96);
static_assert(sizeof(void *) != 4 || offsetof(AacEncAudioInfo, deinterleave) == 104);
static_assert(sizeof(void *) != 4 || offsetof(AacEncAudioInfo, channels) == 108);
static_assert(sizeof(void *) != 4 || sizeof(AacEncStreamInfo) == 28);
static_assert(sizeof(void *) != 4 || offsetof(AacEncStreamInfo, samplesPerChannel) == 20);
static_assert(sizeof(void *) != 4 || sizeof(AacEncInitParams) == 256);
static_assert(sizeof(void *) != 4 || offsetof(AacEncInitParams, outputBufferBytes) == 20);
static_assert(sizeof(void *) != 4 || offsetof(AacEncInitParams, callbacks) == 28);
static_assert(sizeof(void *) != 4 || offsetof(AacEncInitParams, outputFormat) == 128);
static_assert(sizeof(void *) != 4 || offsetof(AacEncInitParams, mpeg2Id) == 140);
#endif

#endif // AACENC_AAC_ENC_H
