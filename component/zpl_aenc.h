// The adapter between the component and an audio encoder: it lays out the encoder's records,
// allocates its buffers through the caller's memory functions and translates its results. One
// encoder at a time in the library.
#ifndef COMPONENT_ZPL_AENC_H
#define COMPONENT_ZPL_AENC_H

#include "component/omx_tdmbrec_component.h"

#include <cstdint>

#define ZPL_AENC_TYPE_AAC 0
#define ZPL_AENC_OUTPUT_ADTS 2

enum {
    kZplStateOff = 0,
    kZplStateInitialise = 1,
    kZplStateRun = 2,
    kZplStateStopped = 3,
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
