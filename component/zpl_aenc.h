// The adapter between the component and an audio encoder: it lays out the encoder's records,
// allocates its buffers through the caller's memory functions and translates its results. One
// encoder at a time in the library.
#ifndef COMPONENT_ZPL_AENC_H
#define COMPONENT_ZPL_AENC_H

#include <cstddef>
#include <cstdint>

#define ZPL_AENC_TYPE_AAC 0
#define ZPL_AENC_OUTPUT_ADTS 2

enum {
    kZplStateOff = 0,
    kZplStateInitialise = 1,
    kZplStateRun = 2,
    kZplStateStopped = 3,
};

// The C library's memory functions, in the order in which the encoder adapter takes them.
struct tdmbrec_memory_functions_t {
    void *(*pfnMalloc)(size_t);
    void *pReserved1;
    void (*pfnFree)(void *);
    void *pReserved3;
    void *(*pfnMemcpy)(void *, const void *, size_t);
    void *(*pfnMemset)(void *, int, size_t);
    void *(*pfnRealloc)(void *, size_t);
    void *(*pfnMemmove)(void *, const void *, size_t);
};

typedef int32_t (*tdmbrec_encoder_function_t)(int32_t op, void **handle, void *arg3, void *arg4);

struct zpl_aenc_t {
    uint8_t *pOutput; // the last frame
    const tdmbrec_memory_functions_t *pstMemory;
    void *hEncoder;
    int32_t iState; // 2: initialise and run; 1: initialise only; 0 and 3: encode does nothing
    int32_t m_iAudioSamplePerSec;
    int32_t m_iAudioChannels;
    int32_t m_iAudioBitsPerSample;
    int32_t m_iAudioBitRates;
    int32_t iOutputLength; // bytes of the last frame
};

#define ZPL_AENC_FIRST_PCM_BYTES 128

struct zpl_aenc_init_t {
    uint8_t aucReserved[256];
    uint8_t aucFirstPcm[ZPL_AENC_FIRST_PCM_BYTES]; // start of the recording's first audio buffer
};
static_assert(sizeof(zpl_aenc_init_t) == 384, "handed over as one 384-byte record");

struct zpl_aenc_input_t {
    const uint8_t *pPcm; // one frame, 16-bit aligned
    uint32_t uiLength;   // bytes
};

// Opens the encoder that the instance describes.
// in       aenc_type: ZPL_AENC_TYPE_AAC; output_type: ZPL_AENC_OUTPUT_ADTS, else raw access units
// returns  0 or negative; after a failure nothing is kept
[[nodiscard]] int32_t zpl_aenc_init(zpl_aenc_t *zpl, zpl_aenc_init_t *init, int32_t aenc_type,
                                    int32_t output_type, tdmbrec_encoder_function_t encoder);

// returns the bytes of PCM in one frame, of the last initialisation.
[[nodiscard]] uint32_t zpl_aenc_getSamplesSize(void);

// Encodes one frame, read in place; the instance's output pointer and length then describe the
// access unit, valid until the next frame.
// returns 0 or negative
[[nodiscard]] int32_t zpl_aenc_encode(zpl_aenc_t *zpl, const zpl_aenc_init_t *init,
                                      const zpl_aenc_input_t *input, int32_t aenc_type);

// Closes the encoder and frees the adapter's buffers.
// returns the encoder's result, 0 when nothing was open
[[nodiscard]] int32_t zpl_aenc_close(zpl_aenc_t *zpl);

#endif // COMPONENT_ZPL_AENC_H
