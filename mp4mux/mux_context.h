// The muxer context, one per file, and its track records. They are allocated through the context's
// own callbacks, zeroed, and released by mp4_mux_close.
#ifndef MP4MUX_MUX_CONTEXT_H
#define MP4MUX_MUX_CONTEXT_H

#include "mp4mux/bitstream.h"
#include "mp4mux/mp4_mux.h"
#include "mp4mux/mux_error.h"

#include <cstdint>
#include <type_traits>

inline constexpr uint32_t kMaxTracks = 32;
inline constexpr int32_t kScratchNameBytes = 256;
inline constexpr int32_t kNoRunYet = -1; // m_iSttsEntryCount until the first run opens

// Kinds of file, which select the brand. Every file is a kFileType3g2a; the others are reserved.
enum {
    kFileTypeIsom = 0,
    kFileTypeQuicktime = 1,
    kFileType3gp4 = 2,
    kFileTypeMsnv = 3,
    kFileType3g2a = 4,
    kFileTypeIsomAlias = 5,
};

// State of a context.
enum {
    kMuxStateUnopened = 0, // not open yet, or the open failed
    kMuxStateRecording,    // takes frames
    kMuxStateEnded,        // a close has begun: another one only releases
};

// How much memory was lent for the close.
enum {
    kCloseMemNone = 0,
    kCloseMemCache, // at least as much as the output's cache
    kCloseMemLarge, // and enough to build the movie box in it
};

struct mp4_mux_mem_t {
    mp4_mux_malloc_fn m_pfnMalloc;
    mp4_mux_free_fn m_pfnFree;
    mp4_mux_memcmp_fn m_pfnMemcmp;
    mp4_mux_memcpy_fn m_pfnMemcpy;
    mp4_mux_memmove_fn m_pfnMemmove;
    mp4_mux_memset_fn m_pfnMemset;
    mp4_mux_realloc_fn m_pfnRealloc;
};

struct mp4_mux_file_t {
    mp4_mux_fopen_fn m_pfnFopen;
    mp4_mux_fread_fn m_pfnFread;
    mp4_mux_fseek_fn m_pfnFseek;
    mp4_mux_ftell_fn m_pfnFtell;
    mp4_mux_fclose_fn m_pfnFclose;
    mp4_mux_feof_fn m_pfnFeof;
    mp4_mux_fflush_fn m_pfnFflush;
    mp4_mux_fwrite_fn m_pfnFwrite;
    mp4_mux_remove_fn m_pfnRemove;
    mp4_mux_fseek64_fn m_pfnFseek64;
    mp4_mux_ftell64_fn m_pfnFtell64;
};

struct mp4_mux_track_t {
    uint32_t m_uiTrackID;
    int32_t m_iType; // MUX_TYPE_…
    uint8_t *m_pbyCodecPrivate;
    int32_t m_iCodecPrivateSize;
    uint32_t m_uiFourCC; // sample-entry type in memory order
    union {
        int32_t m_iWidth;
        int32_t m_iSampleRate; // not read
    };
    union {
        int32_t m_iHeight;
        int32_t m_iBitsPerSample; // not read
    };
    union {
        int32_t m_iFrameRate; // x1000, not read
        int32_t m_iChannels;  // not read
    };
    int32_t m_iCodec;            // audio format tag
    uint32_t m_uiLastTimeStamp;  // ms of the last frame: the track's duration
    uint32_t m_uiTimeScale;      // ticks per second
    uint32_t m_uiLanguage;       // packed, audio only
    int32_t m_iSttsRunCount;     // samples in the open run of equal durations
    int32_t m_iSttsEntryCount;   // runs in m_BsSTTSDts, the open one not counted; or kNoRunYet
    int32_t m_iSttsRunDelta;     // ticks per sample of the open run
    uint32_t m_uiSttsRunDeltaMs; // the same in ms
    int32_t m_iSttsSampleCount;  // samples in the runs of m_BsSTTSDts
    mp4_mux_bs_t m_BsSTSS;       // sync sample numbers
    mp4_mux_bs_t m_BsSTSZ;       // sample sizes
    mp4_mux_bs_t m_BsSTCO;       // chunk offsets
    mp4_mux_bs_t m_BsSTTS;       // holds no records
    mp4_mux_bs_t m_BsSTTSDts;    // runs of durations
    char m_szSTSSName[kScratchNameBytes];
    char m_szSTSZName[kScratchNameBytes];
    char m_szSTCOName[kScratchNameBytes];
    char m_szSTTSName[kScratchNameBytes];
    char m_szSTTSDtsName[kScratchNameBytes];
    int32_t m_iCacheSizeOf[5]; // slices in the order STCO, STSS, STSZ, STTS, STTSDts; not read
    uint8_t *m_pCacheOf[5];    // not read
    uint32_t m_uiPrevTimeStamp;
    uint32_t m_uiSampleCount;
    uint32_t m_uiChunkCount; // one frame per chunk
    uint32_t m_uiSyncSampleCount;
    int32_t m_bVariableSampleSize; // audio, not read: two frames of different size were written
    uint32_t m_uiObjectTypeIndication;
    uint32_t m_uiLastSampleSize;   // audio
    uint64_t m_ullCreationTime;    // set when the movie box is written
    int64_t m_llTrakPos;           // file position of the track box
    uint32_t m_uiTrakSizeDeferred; // its size, when it is still to be written there
};

struct mp4_mux_t {
    mp4_mux_mem_t m_stMem;
    mp4_mux_file_t m_stFile;
    mp4_mux_last_error_t m_stLastError;
    mp4_mux_track_t *m_pstTrack[kMaxTracks];
    uint32_t m_uiTrackCount;
    mp4_mux_bs_t m_Bs;   // the output file
    mp4_mux_bs_t *m_pBs; // what all box writers use
    int32_t m_iFileType; // kFileType…
    uint32_t m_uiStreamFlags;
    int32_t m_b32BitOffset;
    int32_t m_bOutputIsHandle;
    uint32_t m_uiMdatPos;                  // file offset of the media-data box
    uint64_t m_ullMediaSize;               // sum of the frame sizes
    uint64_t m_ullCreationTime;            // seconds since 1904-01-01
    const mp4_mux_userbox_t *m_pstUserBox; // the caller's, read during the open only
    uint32_t m_uiUserBoxCount;
    void *m_pOutput;          // the caller's
    const char *m_pszTempDir; // the caller's, read during the open only
    int32_t m_iVideoCacheSize;
    int32_t m_iAudioCacheSize;
    int32_t m_iCloseMemMode; // kCloseMem…
    uint8_t *m_pCloseMem;
    int32_t m_iCloseMemSize;
    int32_t m_bExternalCache; // nonzero: the caches are in the caller's memory
    uint8_t *m_pCache;
    int32_t m_iCacheSize;
    uint8_t *m_pVideoCache;
    uint8_t *m_pAudioCache;
    int32_t m_iMoovSizeEstimate;   // of the movie box without the sample tables
    int64_t m_llEstimatedFileSize; // of the finished file
    mp4_mux_append_file_fn m_pfnAppendFile;
    const mp4_mux_ftyp_t *m_pstFtyp; // the caller's, read during the open only
    int64_t m_llPendingPos;          // append mode: position of the last table box
    uint32_t m_uiPendingSize;        // and its size
    int32_t m_iState;                // kMuxState…
    int32_t m_bTornHead;             // nonzero: the file's head is incomplete
};

static_assert(std::is_trivially_copyable_v<mp4_mux_track_t>);
static_assert(std::is_trivially_copyable_v<mp4_mux_t>);

#endif // MP4MUX_MUX_CONTEXT_H
