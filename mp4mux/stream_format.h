// Descriptions of streams, from wave and bitmap headers or from the name of an AAC profile, and the
// memory for them. No operation of the muxer calls this; it is exported for callers that describe
// their streams so.
#ifndef MP4MUX_STREAM_FORMAT_H
#define MP4MUX_STREAM_FORMAT_H

#include "mp4mux/mp4_mux.h"

#include <cstdint>

extern "C" {

struct mp4_mux_t;

// Description of a stream. Zeroed before its first use.
//
// The record owns its extra bytes only when mp4_mux_aac_build_config allocated them: m_pOwnedExtra
// equals m_pExtra then. The wave and bitmap helpers refer to the caller's bytes, which must outlive
// the record's use of them and which no helper frees or resizes.
struct mp4_mux_format_t {
    uint32_t m_uiReserved;
    union {
        int32_t m_iSampleRate;
        int32_t m_iWidth;
    };
    union {
        int32_t m_iBitsPerSample;
        int32_t m_iHeight;
    };
    int32_t m_iChannels;
    uint32_t m_uiFormatTag;    // video: compression code
    void *m_pExtra;            // extra bytes, or null
    int32_t m_iExtraSize;      // their count
    const void *m_pOwnedExtra; // the extra bytes that the record must free, or null
};

// Fills a record from a wave-format header and frees extra bytes that it owned. A header of less
// than 16 bytes changes nothing.
// in: mux: memory callbacks
// in: unused: anything
// in: header: length bytes
// returns: 0
MP4_MUX_API int32_t mp4_mux_set_wave_format(mp4_mux_t *mux, void *unused, void *header,
                                            int32_t length, mp4_mux_format_t *format);

// Fills a record from a bitmap-info header and frees extra bytes that it owned. A length below the
// header's own size, or below its first 20 bytes, changes nothing.
// returns: 0
MP4_MUX_API int32_t mp4_mux_set_bitmap_format(mp4_mux_t *mux, void *unused, void *header,
                                              int32_t length, mp4_mux_format_t *format);

// Builds the AudioSpecificConfig of a profile in the record's extra bytes, from the record's
// sampling rate and channels. A sampling rate below sample_rate implies SBR.
// in: profile: a record whose bytes from 12 on are the profile's name, terminated
// returns: 0 or MUX_ERR_MEMORY
// owns: the record owns the bytes, until mp4_mux_clear_data_memory on m_pExtra
// source: ISO/IEC 14496-3, 1.6.2.1
[[nodiscard]] MP4_MUX_API int32_t mp4_mux_aac_build_config(mp4_mux_t *mux, void *unused,
                                                           const uint8_t *profile,
                                                           int32_t sample_rate,
                                                           mp4_mux_format_t *format);

// Allocates zeroed memory; a size of 0 leaves the slot as it is.
// out: slot: the memory
// returns: 0 or MUX_ERR_MEMORY
// owns: the caller, until mp4_mux_clear_allocated_data
[[nodiscard]] MP4_MUX_API int32_t mp4_mux_get_allocated_data(mp4_mux_t *mux, void *unused,
                                                             uint32_t size_bytes, void **slot);

// Free the slot's memory and set the slot to null.
// returns: 0
MP4_MUX_API int32_t mp4_mux_clear_allocated_data(mp4_mux_t *mux, void *unused, void **slot);
MP4_MUX_API int32_t mp4_mux_clear_data_memory(mp4_mux_t *mux, void *unused, void **slot);

} // extern "C"

#endif // MP4MUX_STREAM_FORMAT_H
