#include "mp4mux/track.h"

#include "mp4mux/box_writer.h"
#include "mp4mux/c_strings.h"
#include "mp4mux/table_record.h"

#include <cassert>
#include <initializer_list>

static constexpr uint32_t kVideoTimeScale = 90000; // ticks per second
static constexpr int32_t kMinTableCacheBytes = 4;

// Slices of a track's cache region, in the order of m_iCacheSizeOf.
enum {
    kCacheOfStco = 0,
    kCacheOfStss,
    kCacheOfStsz,
    kCacheOfStts, // has no slice
    kCacheOfSttsDts,
};

int32_t set_codec_private(mp4_mux_t *mux, mp4_mux_track_t *p_track, const uint8_t *bytes,
                          int32_t count, const char *message)
{
    const size_t copy_bytes = static_cast<size_t>(count);
    void *copy = mux->m_stMem.m_pfnMalloc(copy_bytes);
    if (copy == nullptr) {
        return fail(&mux->m_stLastError, MUX_ERR_MEMORY, message);
    }
    mux->m_stMem.m_pfnMemcpy(copy, bytes, copy_bytes);
    p_track->m_pbyCodecPrivate = static_cast<uint8_t *>(copy);
    p_track->m_iCodecPrivateSize = count;
    return 0;
}

static mp4_mux_track_t *add_track(mp4_mux_t *mux)
{
    assert(mux->m_uiTrackCount < kMaxTracks);
    void *memory = mux->m_stMem.m_pfnMalloc(sizeof(mp4_mux_track_t));
    if (memory == nullptr) {
        fail(&mux->m_stLastError, MUX_ERR_MEMORY, "Insufficient memory of add_track");
        return nullptr;
    }
    mux->m_stMem.m_pfnMemset(memory, 0, sizeof(mp4_mux_track_t));
    mp4_mux_track_t *p_track = static_cast<mp4_mux_track_t *>(memory);
    p_track->m_iSttsEntryCount = kNoRunYet;
    for (mp4_mux_bs_t *bs : {&p_track->m_BsSTSS, &p_track->m_BsSTSZ, &p_track->m_BsSTCO,
                             &p_track->m_BsSTTS, &p_track->m_BsSTTSDts}) {
        bs->m_pstMux = mux;
        bs->m_pstError = &mux->m_stLastError;
    }
    mux->m_pstTrack[mux->m_uiTrackCount++] = p_track;
    return p_track;
}

// Builds the name of a scratch file from its fixed name, which begins with "/". The track's record
// is zeroed.
static int32_t set_scratch_name(mp4_mux_t *mux, char (&name)[kScratchNameBytes], const char *fixed)
{
    const char *directory = mux->m_pszTempDir;
    if (directory == nullptr || *directory == '\0') {
        mp4_mux_strcpy(name, fixed + 1);
        return 0;
    }
    const int32_t room = kScratchNameBytes - 1 - mp4_mux_strlen(fixed);
    for (int32_t i = 0; directory[i] != '\0'; i++) { // it may be longer than INT32_MAX
        if (i == room) {
            return fail(&mux->m_stLastError, MUX_ERR_OPEN, "scratch file name is too long");
        }
    }
    mp4_mux_strcpy(name, directory);
    mp4_mux_strcat(name, fixed);
    return 0;
}

namespace {

struct scratch_name {
    char (*name)[kScratchNameBytes];
    const char *fixed;
};

} // namespace

template <size_t N>
static int32_t set_scratch_names(mp4_mux_t *mux, const scratch_name (&names)[N])
{
    for (const scratch_name &scratch : names) {
        const int32_t result = set_scratch_name(mux, *scratch.name, scratch.fixed);
        if (result < 0) {
            return result;
        }
    }
    return 0;
}

namespace {

struct scratch_table {
    mp4_mux_bs_t *bs;
    const char *name;
    int32_t slice; // kCacheOf…
    int32_t cache_bytes;
    int32_t header_bytes;
};

} // namespace

// Attaches scratch bitstreams to consecutive slices of a cache region.
template <size_t N>
static int32_t attach_scratch_tables(mp4_mux_t *mux, mp4_mux_track_t *p_track, uint8_t *region,
                                     const scratch_table (&tables)[N])
{
    static constexpr uint8_t kZeros[kSizeTableHeaderBytes] = {};
    uint8_t *cache = region;
    for (const scratch_table &table : tables) {
        if (cache == nullptr || table.cache_bytes < kMinTableCacheBytes) {
            return fail(&mux->m_stLastError, MUX_ERR_MEMORY, "track cache is too small");
        }
        p_track->m_iCacheSizeOf[table.slice] = table.cache_bytes;
        p_track->m_pCacheOf[table.slice] = cache;
        table.bs->m_pszFileName = table.name;
        mp4_mux_open_bitstream_from_external_memory(table.bs, cache, table.cache_bytes, nullptr);
        if (mux->m_pfnAppendFile != nullptr) {
            const int32_t result = mp4_mux_bs_write_bytes(table.bs, kZeros, table.header_bytes);
            if (result < 0) {
                return result;
            }
        }
        cache += table.cache_bytes;
    }
    return 0;
}

static int32_t prepare_audio_scratch(mp4_mux_t *mux, mp4_mux_track_t *p_track)
{
    const scratch_name names[] = {
        {&p_track->m_szSTCOName, "/a_stco.tmp"},
        {&p_track->m_szSTSZName, "/a_stsz.tmp"},
        {&p_track->m_szSTTSName, "/a_stts.tmp"},
        {&p_track->m_szSTTSDtsName, "/a_stts_dts.tmp"},
    };
    const int32_t result = set_scratch_names(mux, names);
    if (result < 0) {
        return result;
    }
    const int32_t half_bytes = mux->m_iAudioCacheSize / 2 & ~3;
    const scratch_table tables[] = {
        {&p_track->m_BsSTCO, p_track->m_szSTCOName, kCacheOfStco, half_bytes, kTableHeaderBytes},
        {&p_track->m_BsSTSZ, p_track->m_szSTSZName, kCacheOfStsz, half_bytes,
         kSizeTableHeaderBytes},
    };
    return attach_scratch_tables(mux, p_track, mux->m_pAudioCache, tables);
}

static int32_t prepare_video_scratch(mp4_mux_t *mux, mp4_mux_track_t *p_track)
{
    const scratch_name names[] = {
        {&p_track->m_szSTCOName, "/v_stco.tmp"},
        {&p_track->m_szSTSSName, "/v_stss.tmp"},
        {&p_track->m_szSTSZName, "/v_stsz.tmp"},
        {&p_track->m_szSTTSDtsName, "/v_stts_dts.tmp"},
    };
    const int32_t result = set_scratch_names(mux, names);
    if (result < 0) {
        return result;
    }
    const int32_t part_bytes = static_cast<int32_t>(int64_t{mux->m_iVideoCacheSize} * 3 / 10) & ~3;
    const int32_t rest_bytes = mux->m_iVideoCacheSize - 3 * part_bytes;
    const scratch_table tables[] = {
        {&p_track->m_BsSTCO, p_track->m_szSTCOName, kCacheOfStco, part_bytes, kTableHeaderBytes},
        {&p_track->m_BsSTSZ, p_track->m_szSTSZName, kCacheOfStsz, part_bytes,
         kSizeTableHeaderBytes},
        {&p_track->m_BsSTSS, p_track->m_szSTSSName, kCacheOfStss, rest_bytes, kTableHeaderBytes},
        {&p_track->m_BsSTTSDts, p_track->m_szSTTSDtsName, kCacheOfSttsDts, part_bytes,
         kTableHeaderBytes},
    };
    return attach_scratch_tables(mux, p_track, mux->m_pVideoCache, tables);
}

// Three letters of 5 bits, each minus 0x60.
// source: ISO/IEC 14496-12, 8.4.2.3
static uint32_t pack_language(const char (&language)[3])
{
    uint32_t letters[3] = {};
    for (int i = 0; i < 3; i++) {
        letters[i] = static_cast<uint8_t>(language[i] - 0x60);
    }
    return letters[0] << 10 | letters[1] << 5 | letters[2];
}

int32_t add_audio_track(mp4_mux_t *mux, const mp4_mux_input_t *input)
{
    mp4_mux_track_t *p_track = add_track(mux);
    if (p_track == nullptr) {
        return MUX_ERR_MEMORY;
    }
    p_track->m_iType = MUX_TYPE_AUDIO;
    p_track->m_uiTrackID = input->m_uiAudioTrackID;
    p_track->m_iSampleRate = input->m_iAudioSampleRate;
    p_track->m_iBitsPerSample = input->m_iAudioBitsPerSample;
    p_track->m_iChannels = input->m_iAudioChannels;
    p_track->m_iCodec = input->m_iAudioCodec;
    p_track->m_uiLanguage = pack_language(input->m_szAudioLanguage);
    p_track->m_uiTimeScale = static_cast<uint32_t>(input->m_iAudioSampleRate);
    if (input->m_pbyAudioPrivate != nullptr && input->m_iAudioPrivateSize != 0) {
        const int32_t result =
            set_codec_private(mux, p_track, input->m_pbyAudioPrivate, input->m_iAudioPrivateSize,
                              "Insufficient memory of audio m_pbyCodecPrivate");
        if (result < 0) {
            return result;
        }
    }
    return prepare_audio_scratch(mux, p_track);
}

// The sample-entry type of a video code: its letters in lower case, "avc1" for "h264".
static uint32_t video_sample_entry(uint32_t code)
{
    uint32_t entry = 0;
    for (uint32_t shift = 0; shift < 32; shift += 8) {
        const uint32_t character = code >> shift & 0xFF;
        const bool upper = character >= 'A' && character <= 'Z';
        entry |= (upper ? character - 'A' + 'a' : character) << shift;
    }
    return entry == fourcc("h264") ? fourcc("avc1") : entry;
}

int32_t add_video_track(mp4_mux_t *mux, const mp4_mux_input_t *input)
{
    mp4_mux_track_t *p_track = add_track(mux);
    if (p_track == nullptr) {
        return MUX_ERR_MEMORY;
    }
    p_track->m_iType = MUX_TYPE_VIDEO;
    p_track->m_uiTrackID = input->m_uiVideoTrackID;
    p_track->m_uiFourCC = video_sample_entry(input->m_uiVideoFourCC);
    p_track->m_iWidth = input->m_iVideoWidth;
    p_track->m_iHeight = input->m_iVideoHeight;
    p_track->m_iFrameRate = input->m_iVideoFrameRate;
    p_track->m_uiTimeScale = kVideoTimeScale;
    if (input->m_pbyVideoPrivate != nullptr && input->m_iVideoPrivateSize != 0) {
        const int32_t result =
            set_codec_private(mux, p_track, input->m_pbyVideoPrivate, input->m_iVideoPrivateSize,
                              "Insufficient memory of video m_pbyCodecPrivate");
        if (result < 0) {
            return result;
        }
    }
    return prepare_video_scratch(mux, p_track);
}
