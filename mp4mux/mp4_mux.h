// The MP4 muxer: its one entry point and every record that crosses it.
//
// A file holds at most one video track and one audio track. Frames go straight into the media data,
// in the order in which they arrive; the close appends the movie box. The muxer allocates, reads
// and writes only through the callbacks that it receives at open.
#ifndef MP4MUX_MP4_MUX_H
#define MP4MUX_MP4_MUX_H

#include <stddef.h>
#include <stdint.h>

#define MP4_MUX_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

// Operations of QVR_MP4_MUX.
enum {
    MUX_OPEN = 0,           // param1: mp4_mux_init_t, param2: mp4_mux_input_t
    MUX_CLOSE = 1,          // param1: mp4_mux_closemem_t or null
    MUX_PUTFRAME = 2,       // param1: mp4_mux_putstream_t, param2: int64_t or null
    MUX_GET_LAST_ERROR = 3, // param2: mp4_mux_error_t or null
    MUX_GET_VERSION = 3000, // param1, param2: character buffers or null
    MUX_FLUSH = 3001,       // param2: int64_t or null
};

// Error codes.
enum {
    MUX_ERR_EOF = -2,             // a read reached the end of the file
    MUX_ERR_HANDLE = -3,          // null handle, or no memory for the context
    MUX_ERR_OPEN = -4,            // a file could not be opened
    MUX_ERR_WRITE = -270511,      // a write stored nothing or only a part
    MUX_ERR_SEEK = -270512,       // a seek failed, or the position is unknown
    MUX_ERR_CLOSE = -270513,      // a file could not be closed; auxiliary value: the handle
    MUX_ERR_MEMORY = -270520,     // no memory, or a cache too small to work with
    MUX_ERR_INVALID = -270531,    // an invalid argument or operation
    MUX_ERR_NO_STREAM = -270601,  // no track of that kind
    MUX_ERR_CACHE_SIZE = -270602, // the caller's cache has no size
    MUX_ERR_APPEND = -270603,     // the append callback failed
};

// Bits of mp4_mux_init_t::m_uiStreamFlags.
enum {
    MUX_STREAM_VIDEO = 1u << 0,
    MUX_STREAM_AUDIO = 1u << 1,
};

// Bits of mp4_mux_init_t::m_uiOptions.
enum {
    MUX_OPTION_32BIT_OFFSET = 1u << 0,     // 32-bit chunk offsets ("stco", not "co64")
    MUX_OPTION_OUTPUT_IS_HANDLE = 1u << 2, // m_pOutput is an open handle, not a name
};

// Values of mp4_mux_putstream_t::m_iType.
enum {
    MUX_TYPE_VIDEO = 1,
    MUX_TYPE_AUDIO = 2,
};

// Bits of mp4_mux_putstream_t::m_uiFlags.
enum {
    MUX_FRAME_KEY = 1u << 0,
};

// A value of mp4_mux_input_t::m_iAudioCodec, which is a format tag.
enum {
    MUX_AUDIO_AAC = 0xAAC0,
};

// Lengths of the texts of MUX_GET_VERSION without their terminators.
enum {
    MUX_VERSION_LENGTH = 16,
    MUX_BUILD_DATE_LENGTH = 8,
};

// Memory callbacks: the C library's functions of the same name.
typedef void *(*mp4_mux_malloc_fn)(size_t size);
typedef void (*mp4_mux_free_fn)(void *memory);
typedef int (*mp4_mux_memcmp_fn)(const void *a, const void *b, size_t count);
typedef void *(*mp4_mux_memcpy_fn)(void *destination, const void *source, size_t count);
typedef void *(*mp4_mux_memmove_fn)(void *destination, const void *source, size_t count);
typedef void *(*mp4_mux_memset_fn)(void *destination, int value, size_t count);
typedef void *(*mp4_mux_realloc_fn)(void *memory, size_t size);

// File callbacks: the C library's functions of the same name on opaque handles, with offsets of a
// fixed width. As there, a handle is gone after its close, also when the close reports a failure.
//
// The muxer has caches of its own and repeats a write that failed. Leave files unbuffered: a buffer
// under m_pfnFwrite gains nothing, and bytes that it loses after a successful write are lost.
typedef void *(*mp4_mux_fopen_fn)(const char *name, const char *mode);
typedef size_t (*mp4_mux_fread_fn)(void *buffer, size_t size, size_t count, void *handle);
typedef int (*mp4_mux_fseek_fn)(void *handle, int32_t offset, int whence);
typedef int32_t (*mp4_mux_ftell_fn)(void *handle);
typedef int (*mp4_mux_fclose_fn)(void *handle);
typedef int (*mp4_mux_feof_fn)(void *handle);
typedef int (*mp4_mux_fflush_fn)(void *handle);
typedef size_t (*mp4_mux_fwrite_fn)(const void *buffer, size_t size, size_t count, void *handle);
typedef int (*mp4_mux_remove_fn)(const char *name);
typedef int (*mp4_mux_fseek64_fn)(void *handle, int64_t offset, int whence);
typedef int64_t (*mp4_mux_ftell64_fn)(void *handle);

// Appends the whole file `source` at the end of the file `destination`.
// in: destination: positioned where the appended data is expected
// in: reserved: 0
// returns: the gap in bytes from there to where the appended data begins, or a negative number
// owns: closes source when it succeeds; after a failure source is still the muxer's
typedef int32_t (*mp4_mux_append_file_fn)(void *destination, void *source, int32_t reserved);

// Open parameters. On a 32-bit device these are 41 words of 32 bits. A callback is required unless
// its comment says otherwise.
typedef struct mp4_mux_init_t {
    mp4_mux_malloc_fn m_pfnMalloc;
    mp4_mux_free_fn m_pfnFree;
    mp4_mux_memcmp_fn m_pfnMemcmp; // not called
    mp4_mux_memcpy_fn m_pfnMemcpy;
    mp4_mux_memmove_fn m_pfnMemmove; // not called
    mp4_mux_memset_fn m_pfnMemset;
    mp4_mux_realloc_fn m_pfnRealloc; // only for the AAC configuration builder; may be null
    void *m_apReserved1[9];          // zero
    mp4_mux_fopen_fn m_pfnFopen;     // always called with mode "wb+"
    mp4_mux_fread_fn m_pfnFread;
    mp4_mux_fseek_fn m_pfnFseek;
    mp4_mux_ftell_fn m_pfnFtell;
    mp4_mux_fclose_fn m_pfnFclose;
    mp4_mux_feof_fn m_pfnFeof;     // not called
    mp4_mux_fflush_fn m_pfnFflush; // not called
    mp4_mux_fwrite_fn m_pfnFwrite;
    mp4_mux_remove_fn m_pfnRemove;   // may be null: scratch files then stay
    mp4_mux_fseek64_fn m_pfnFseek64; // may be null, see m_uiOptions
    mp4_mux_ftell64_fn m_pfnFtell64; // may be null, see m_uiOptions
    void *m_apReserved2[5];          // zero
    void *m_pOutput;                 // name of the output file, or an open handle
    uint32_t m_uiStreamFlags;        // MUX_STREAM_…
    uint32_t m_uiOptions;      // MUX_OPTION_…; without both 64-bit callbacks offsets are 32-bit
    void *m_pCacheMem;         // memory for all write caches; null: the muxer allocates its own and
                               // does not read the sizes
    int32_t m_iCacheSize;      // bytes of m_pCacheMem for the output file
    int32_t m_iVideoCacheSize; // bytes of it for the video tables; when this or the next is 0,
    int32_t m_iAudioCacheSize; // ... for the audio tables: all three are pooled and divided again
    const char *m_pszTempDir; // directory of the scratch files, whose names are fixed: one for each
                              // open muxer; null or empty: the current one
    mp4_mux_append_file_fn m_pfnAppendFile; // may be null
} mp4_mux_init_t;

// One extra top-level box, written between the file-type box and the media data.
typedef struct mp4_mux_userbox_t {
    uint32_t m_uiType;        // four characters in memory order
    const uint8_t *m_pbyData; // the box's payload
    uint32_t m_uiSize;        // its length; a box of size 0 is left out
} mp4_mux_userbox_t;

// A file-type box in place of the default one.
typedef struct mp4_mux_ftyp_t {
    char m_szMajorBrand[4]; // shorter when a zero byte ends it
    uint32_t m_uiMinorVersion;
    const uint32_t *m_puiCompatible; // brands, four characters each in memory order
    uint32_t m_uiCompatibleCount;
} mp4_mux_ftyp_t;

// The file's streams. The muxer copies the description, which may be released after MUX_OPEN.
typedef struct mp4_mux_input_t {
    int32_t m_iYear;    // creation date: full year
    int32_t m_iMonth;   // 0 = January
    int32_t m_iDay;     // 1 to 31
    int32_t m_iWeekDay; // 0 = Sunday; not read
    int32_t m_iHour;
    int32_t m_iMinute;
    int32_t m_iSecond;
    const mp4_mux_userbox_t *m_pstUserBox; // array, or null
    uint32_t m_uiUserBoxCount;
    const mp4_mux_ftyp_t *m_pstFtyp; // or null
    uint32_t m_uiVideoTrackID;       // for a track without frames; others are numbered, audio first
    int32_t m_iVideoWidth;
    int32_t m_iVideoHeight;
    int32_t m_iVideoFrameRate;        // frames per 1000 s; not read
    uint32_t m_uiVideoFourCC;         // sample-entry type in memory order, "avc1"
    const uint8_t *m_pbyVideoPrivate; // decoder configuration: avcC record or Annex B; null: that
                                      // of the first frame, which then has the parameter sets
    int32_t m_iVideoPrivateSize;
    uint32_t m_uiAudioTrackID;  // as for video
    int32_t m_iAudioSampleRate; // Hz, also the audio timescale
    int32_t m_iAudioBitsPerSample;
    int32_t m_iAudioChannels;
    int32_t m_iAudioCodec;            // format tag, such as MUX_AUDIO_AAC
    const uint8_t *m_pbyAudioPrivate; // AAC: the AudioSpecificConfig, without which the sound
                                      // cannot be decoded
    int32_t m_iAudioPrivateSize;
    char m_szAudioLanguage[3]; // ISO 639-2/T, lower case; zeros when unset
} mp4_mux_input_t;

// One frame. On a 32-bit device these are 6 words of 32 bits.
typedef struct mp4_mux_putstream_t {
    const uint8_t *m_pbyData; // video: NAL units, each after its length (32 bits, big-endian)
    int32_t m_iDataSize;
    int32_t m_iType;         // MUX_TYPE_…
    uint32_t m_uiTimeStamp;  // decoding time in ms; all sound frames get one duration, the mean
    uint32_t m_uiTimeStamp2; // not read
    uint32_t m_uiFlags;      // MUX_FRAME_…
} mp4_mux_putstream_t;

// Memory lent for the close, until MUX_CLOSE returns.
typedef struct mp4_mux_closemem_t {
    void *m_pMem;
    int32_t m_iSize;
} mp4_mux_closemem_t;

// The last error of a handle.
typedef struct mp4_mux_error_t {
    int32_t m_iCode;          // 0 or MUX_ERR_…
    const char *m_pszMessage; // inside the context: valid until the next operation on the handle
    int64_t m_llAux;          // MUX_ERR_CLOSE: the handle; else 0
} mp4_mux_error_t;

// Runs one operation on one file.
//
// MUX_OPEN            opens the output, writes the file's head and fills *handle. *handle is filled
//                     after a failure too (except MUX_ERR_HANDLE), for the error query and
//                     MUX_CLOSE, which the caller must still call. With MUX_OPTION_OUTPUT_IS_HANDLE
//                     the output handle belongs to the muxer once *handle is filled.
// MUX_PUTFRAME        appends one frame; param2 receives the size that the finished file will have.
//                     A frame whose position the offsets or the seek callback cannot express is
//                     refused with MUX_ERR_INVALID; the file can still be closed.
// MUX_CLOSE           writes the movie box, releases everything and clears *handle. It fails when
//                     the file is incomplete, from its head to its last box. After a failure the
//                     handle remains for the error query; one more MUX_CLOSE then only releases
//                     the rest and clears *handle. A file without frames gets no movie box.
// MUX_GET_LAST_ERROR  returns the last error. The record is cleared by MUX_PUTFRAME and MUX_CLOSE.
// MUX_FLUSH           writes the cached bytes of the output to its file, so that every frame so far
//                     is there; param2 receives the file's size then. The finished file does not
//                     change. After a failure the bytes are still cached. Not after MUX_CLOSE.
// MUX_GET_VERSION     copies MUX_VERSION_LENGTH characters to param1, MUX_BUILD_DATE_LENGTH digits
//                     (year, month, day) to param2, each with its terminator.
//
// in: handle: a slot; for every operation but MUX_OPEN it holds the context of MUX_OPEN
// in: param1, param2: see the operation codes
// returns: 0, or one of MUX_ERR_…; an unknown operation is MUX_ERR_INVALID
// owns: MUX_CLOSE releases the context in *handle; the caller keeps the memory that it lends:
//       caches until after MUX_CLOSE, close memory until MUX_CLOSE returns
// thread: one thread at a time per handle; handles share nothing
// source: ISO/IEC 14496-12 (file), ISO/IEC 14496-14 and -15 (sample entries)
MP4_MUX_API int32_t QVR_MP4_MUX(int32_t op, void **handle, void *param1, void *param2);

#ifdef __cplusplus
}
#endif

#endif // MP4MUX_MP4_MUX_H
