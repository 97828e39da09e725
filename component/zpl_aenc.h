// The adapter between the component and an audio encoder: it fills the encoder's records, allocates
// its buffers through the caller's memory functions and checks its results. The library has one
// encoder at a time.
//
// thread: the buffer thread while recording, then the end of the recording
#ifndef COMPONENT_ZPL_AENC_H
#define COMPONENT_ZPL_AENC_H

#include <cstddef>
#include <cstdint>

inline constexpr int32_t kZplTypeAac = 0;    // aenc_type: the only one
inline constexpr int32_t kZplOutputAdts = 2; // output_type; unused

// The component uses kZplStateRun alone.
enum zpl_state_t : int32_t {
    kZplStateOff = 0, // encoding does nothing
    kZplStateInitialise = 1,
    kZplStateRun = 2,
    kZplStateStopped = 3 // encoding does nothing
};

// The C library's memory functions, in the adapter's order.
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

using tdmbrec_encoder_function_t = int32_t (*)(int32_t op, void **handle, void *arg3, void *arg4);

struct zpl_aenc_t {
    uint8_t *pOutput; // the last frame
    const tdmbrec_memory_functions_t *pstMemory;
    void *hEncoder;
    int32_t iState;               // zpl_state_t
    int32_t m_iAudioSamplePerSec; // Hz
    int32_t m_iAudioChannels;
    int32_t m_iAudioBitsPerSample;
    int32_t m_iAudioBitRates; // bit/s
    int32_t iOutputLength;    // bytes of the last frame
};

struct zpl_aenc_init_t {
    uint8_t aucReserved[256];
    uint8_t aucFirstPcm[128]; // start of the recording's first audio buffer
};
static_assert(sizeof(zpl_aenc_init_t) == 384, "handed over as one 384-byte record");

struct zpl_aenc_input_t {
    const uint8_t *pPcm; // one frame, 16-bit aligned
    uint32_t uiLength;   // bytes
};

// Opens the encoder that the instance describes.
// in: output_type: kZplOutputAdts, else raw access units
// in: encoder: may be null
// returns: 0, or negative after a failure, when nothing stays allocated
[[nodiscard]] int32_t zpl_aenc_init(zpl_aenc_t *zpl, const zpl_aenc_init_t *init, int32_t aenc_type,
                                    int32_t output_type, tdmbrec_encoder_function_t encoder);

// returns: the bytes of PCM in one frame of the encoder opened last
[[nodiscard]] uint32_t zpl_aenc_getSamplesSize(void);

// Encodes one frame in place. The instance's output pointer and length then describe the access
// unit, which is valid until the next call. init and aenc_type are not used.
// returns: 0 or negative
[[nodiscard]] int32_t zpl_aenc_encode(zpl_aenc_t *zpl, const zpl_aenc_init_t *init,
                                      const zpl_aenc_input_t *input, int32_t aenc_type);

// Closes the encoder and frees the adapter's buffers.
// returns: the encoder's result, 0 when none was open
[[nodiscard]] int32_t zpl_aenc_close(zpl_aenc_t *zpl);

#endif // COMPONENT_ZPL_AENC_H
