#include "mp4mux/moov/movie_box.h"

#include "mp4mux/bitstream_file.h"
#include "mp4mux/box_writer.h"
#include "mp4mux/moov/duration.h"
#include "mp4mux/moov/media_box.h"
#include "mp4mux/moov/single_precision.h"
#include "mp4mux/mux_version.h"

#include <algorithm>

static constexpr uint32_t kMovieTimeScale = 90000; // ticks per second
static constexpr char kNotice[] =
    "Recorded from a terrestrial digital multimedia broadcast service.";
static constexpr uint32_t kLanguageEnglish = 0x15C7; // "eng", 5 bits per letter

static_assert(sizeof(kNotice) == 65 + 1);

static void write_unity_matrix(mp4_mux_bs_t *bs)
{
    static constexpr uint32_t kMatrix[9] = {0x00010000, 0, 0, 0, 0x00010000, 0, 0, 0, 0x40000000};
    for (const uint32_t element : kMatrix) {
        mp4_mux_bs_write_be32(bs, element);
    }
}

// A 16.16 number from a single-precision product, kept within 32 bits.
static uint32_t fixed_16_16(int32_t pixels)
{
    const float product = static_cast<float>(pixels) * 65536.0F;
    if (product <= 0.0F) {
        return 0;
    }
    return product < 4294967296.0F ? static_cast<uint32_t>(product) : UINT32_MAX;
}

static void write_track_times(mp4_mux_bs_t *bs, const mp4_mux_track_t *p_track, int64_t dur_ticks)
{
    const uint64_t creation_time = p_track->m_ullCreationTime;
    const uint32_t creation_time32 = static_cast<uint32_t>(creation_time);
    if (dur_ticks > kMaxShortDuration) {
        mp4_mux_bs_write_be64(bs, creation_time);                    // creation_time;
        mp4_mux_bs_write_be64(bs, creation_time);                    // modification_time;
        mp4_mux_bs_write_be32(bs, p_track->m_uiTrackID);             // track_ID;
        mp4_mux_bs_write_be32(bs, 0);                                // reserved = 0;
        mp4_mux_bs_write_be64(bs, static_cast<uint64_t>(dur_ticks)); // duration;
    } else {
        mp4_mux_bs_write_be32(bs, creation_time32);                  // creation_time;
        mp4_mux_bs_write_be32(bs, creation_time32);                  // modification_time;
        mp4_mux_bs_write_be32(bs, p_track->m_uiTrackID);             // track_ID;
        mp4_mux_bs_write_be32(bs, 0);                                // reserved = 0;
        mp4_mux_bs_write_be32(bs, static_cast<uint32_t>(dur_ticks)); // duration;
    }
}

void write_tkhd_box(mp4_mux_t *mux, mp4_mux_track_t *p_track)
{
    mp4_mux_bs_t *bs = mux->m_pBs;
    const int64_t dur_ticks = duration_ticks(p_track->m_uiLastTimeStamp, kMovieTimeScale);
    const bool is_long = dur_ticks > kMaxShortDuration;
    const bool is_video = p_track->m_iType == MUX_TYPE_VIDEO;
    const uint32_t volume = p_track->m_iType == MUX_TYPE_AUDIO ? 0x0100 : 0;
    const uint32_t width = is_video ? fixed_16_16(p_track->m_iWidth) : 0;
    const uint32_t height = is_video ? static_cast<uint32_t>(p_track->m_iHeight) << 16 : 0;

    mp4_mux_bs_write_be32(bs, is_long ? 104 : 92); // unsigned int(32) size;
    mp4_mux_bs_write_tag(bs, "tkhd");              // unsigned int(32) type;
    mp4_mux_bs_write_be8(bs, is_long ? 1 : 0);     // unsigned int(8) version;
    mp4_mux_bs_write_be24(bs, 0x00000F);           // bit(24) flags;
    write_track_times(bs, p_track, dur_ticks);
    mp4_mux_bs_write_be32(bs, 0); // const unsigned int(32)[2] reserved = 0;
    mp4_mux_bs_write_be32(bs, 0);
    mp4_mux_bs_write_be16(bs, 0);      // template int(16) layer;
    mp4_mux_bs_write_be16(bs, 0);      // template int(16) alternate_group;
    mp4_mux_bs_write_be16(bs, volume); // template int(16) volume;
    mp4_mux_bs_write_be16(bs, 0);      // const unsigned int(16) reserved = 0;
    write_unity_matrix(bs);            // template int(32)[9] matrix;
    mp4_mux_bs_write_be32(bs, width);  // unsigned int(32) width;
    mp4_mux_bs_write_be32(bs, height); // unsigned int(32) height;
}

static void write_mvhd_box(mp4_mux_t *mux, uint32_t duration_ms, uint32_t last_track_id)
{
    mp4_mux_bs_t *bs = mux->m_pBs;
    const uint32_t creation_time = static_cast<uint32_t>(mux->m_ullCreationTime);
    const uint32_t dur_ticks = static_cast<uint32_t>(duration_ticks(duration_ms, kMovieTimeScale));

    mp4_mux_bs_write_be32(bs, 108);             // unsigned int(32) size;
    mp4_mux_bs_write_tag(bs, "mvhd");           // unsigned int(32) type;
    mp4_mux_bs_write_be8(bs, 0);                // unsigned int(8) version;
    mp4_mux_bs_write_be24(bs, 0);               // bit(24) flags;
    mp4_mux_bs_write_be32(bs, creation_time);   // unsigned int(32) creation_time;
    mp4_mux_bs_write_be32(bs, creation_time);   // unsigned int(32) modification_time;
    mp4_mux_bs_write_be32(bs, kMovieTimeScale); // unsigned int(32) timescale;
    mp4_mux_bs_write_be32(bs, dur_ticks);       // unsigned int(32) duration;
    mp4_mux_bs_write_be32(bs, 0x00010000);      // template int(32) rate;
    mp4_mux_bs_write_be16(bs, 0x0100);          // template int(16) volume;
    mp4_mux_bs_write_be16(bs, 0);               // const bit(16) reserved = 0;
    mp4_mux_bs_write_be32(bs, 0);               // const unsigned int(32)[2] reserved = 0;
    mp4_mux_bs_write_be32(bs, 0);
    write_unity_matrix(bs); // template int(32)[9] matrix;
    for (int i = 0; i < 6; i++) {
        mp4_mux_bs_write_be32(bs, 0); // bit(32)[6] pre_defined = 0;
    }
    mp4_mux_bs_write_be32(bs, last_track_id + 1); // unsigned int(32) next_track_ID;
}

static void write_cprt_box(mp4_mux_bs_t *bs)
{
    const int64_t start = begin_box(bs, "cprt");
    mp4_mux_bs_write_be32(bs, 0);                // unsigned int(8) version; bit(24) flags;
    mp4_mux_bs_write_be16(bs, kLanguageEnglish); // bit(1) pad; unsigned int(5)[3] language;
    mp4_mux_bs_write_tag(bs, kNotice);           // string notice;
    mp4_mux_bs_write_be8(bs, 0);
    (void)update_size(bs, start); // a failure is in the error record
}

static void write_name_box(mp4_mux_bs_t *bs)
{
    const int64_t start = begin_box(bs, "name");
    mp4_mux_bs_write_be32(bs, 0); // version and flags
    mp4_mux_bs_write_be8(bs, 0);
    mp4_mux_bs_write_tag(bs, "UNKNOWN"); // the name, the muxer's version and its date
    mp4_mux_bs_write_tag(bs, " - ");
    mp4_mux_bs_write_tag(bs, kMuxVersion);
    mp4_mux_bs_write_tag(bs, " - ");
    mp4_mux_bs_write_tag(bs, kMuxBuildDate);
    mp4_mux_bs_write_be8(bs, 0);
    (void)update_size(bs, start); // a failure is in the error record
}

static void write_udta_box(mp4_mux_bs_t *bs)
{
    const int64_t start = begin_box(bs, "udta");
    write_cprt_box(bs);
    write_name_box(bs);
    (void)update_size(bs, start); // a failure is in the error record
}

// A track box whose start has left the cache gets its size after the movie box is complete, so that
// the movie box is written in one pass.
static void write_trak_box(mp4_mux_t *mux, mp4_mux_track_t *p_track)
{
    mp4_mux_bs_t *bs = mux->m_pBs;
    p_track->m_llTrakPos = begin_box(bs, "trak");
    write_tkhd_box(mux, p_track);
    (void)write_mdia_box(mux, p_track); // a failure is in the error record
    const uint32_t box_bytes = static_cast<uint32_t>(bs_position(bs) - p_track->m_llTrakPos);
    if (is_in_cache(bs, p_track->m_llTrakPos)) {
        patch_in_cache(bs, p_track->m_llTrakPos, box_bytes);
    } else {
        p_track->m_uiTrakSizeDeferred = box_bytes;
    }
}

static void write_trak_boxes(mp4_mux_t *mux, int32_t type)
{
    for (uint32_t i = 0; i < mux->m_uiTrackCount; i++) {
        if (mux->m_pstTrack[i]->m_iType == type) {
            write_trak_box(mux, mux->m_pstTrack[i]);
        }
    }
}

namespace {

struct movie_extent {
    uint32_t duration_ms;
    uint32_t last_track_id;
};

} // namespace

// Sets the final identifiers and the creation time of the tracks that have samples.
static movie_extent number_tracks(mp4_mux_t *mux)
{
    movie_extent extent = {.duration_ms = 0, .last_track_id = 1};
    for (uint32_t i = 0; i < mux->m_uiTrackCount; i++) {
        mp4_mux_track_t *p_track = mux->m_pstTrack[i];
        if (static_cast<int32_t>(p_track->m_uiSampleCount) > 0) {
            p_track->m_uiTrackID = i + 1;
            p_track->m_ullCreationTime = mux->m_ullCreationTime;
            extent.duration_ms = std::max(extent.duration_ms, p_track->m_uiLastTimeStamp);
            extent.last_track_id = std::max(extent.last_track_id, p_track->m_uiTrackID);
        }
    }
    return extent;
}

// Writes a size at a position that has left the cache, and stays there.
// returns: null, or the tag of the step that failed
static const char *write_size_at(mp4_mux_bs_t *bs, int64_t position, uint32_t box_bytes)
{
    if (mp4_mux_bs_write_fseek_reset(bs, position) != 0) {
        return "<update_write_size1";
    }
    mp4_mux_bs_write_be32(bs, box_bytes);
    if (bs_position(bs) != position + kSizeFieldBytes) {
        return "<update_write_size2";
    }
    return bs_write_out(bs) ? nullptr : "<update_write_size3";
}

// returns: 0, or the error record's code, which is 0 too after a failed seek; a missing size marks
//          the bitstream as torn
static int32_t write_moov_size(mp4_mux_t *mux, int64_t start, uint32_t box_bytes)
{
    mp4_mux_bs_t *bs = mux->m_pBs;
    if (is_in_cache(bs, start)) {
        patch_in_cache(bs, start, box_bytes);
        return bs_write_out(bs) ? 0
                                : mp4_mux_add_err_string("<update_moov_size2", &mux->m_stLastError);
    }
    const char *failed = write_size_at(bs, start, box_bytes);
    if (failed != nullptr) {
        bs->m_bTorn = 1;
        mp4_mux_add_err_string(failed, bs->m_pstError);
        return mp4_mux_add_err_string("<update_moov_size3", &mux->m_stLastError);
    }
    return 0;
}

static int32_t write_deferred_sizes(mp4_mux_t *mux, int32_t type, const char *tag)
{
    for (uint32_t i = 0; i < mux->m_uiTrackCount; i++) {
        const mp4_mux_track_t *p_track = mux->m_pstTrack[i];
        if (p_track->m_iType != type || p_track->m_uiTrakSizeDeferred == 0) {
            continue;
        }
        const char *failed =
            write_size_at(mux->m_pBs, p_track->m_llTrakPos, p_track->m_uiTrakSizeDeferred);
        if (failed != nullptr) {
            mux->m_pBs->m_bTorn = 1;
            mp4_mux_add_err_string(failed, mux->m_pBs->m_pstError);
            return mp4_mux_add_err_string(tag, &mux->m_stLastError);
        }
    }
    return 0;
}

static int32_t write_open_sizes(mp4_mux_t *mux, int64_t start, uint32_t box_bytes)
{
    int32_t result = write_moov_size(mux, start, box_bytes);
    if (result >= 0 && mux->m_iAudioCacheSize != 0) {
        result = write_deferred_sizes(mux, MUX_TYPE_AUDIO, "<update_moov_size4");
    }
    if (result >= 0 && mux->m_iVideoCacheSize != 0) {
        result = write_deferred_sizes(mux, MUX_TYPE_VIDEO, "<update_moov_size7");
    }
    return result;
}

int64_t write_moov_box(mp4_mux_t *mux)
{
    mp4_mux_bs_t *bs = mux->m_pBs;
    const int64_t start = begin_box(bs, "moov");
    const movie_extent extent = number_tracks(mux);
    write_mvhd_box(mux, extent.duration_ms, extent.last_track_id);
    if (mux->m_iAudioCacheSize != 0) {
        write_trak_boxes(mux, MUX_TYPE_AUDIO);
        mux->m_pAudioCache = nullptr; // from here on the video tables may use it
    }
    if (mux->m_iVideoCacheSize != 0) {
        write_trak_boxes(mux, MUX_TYPE_VIDEO);
        mux->m_pVideoCache = nullptr;
    }
    write_udta_box(bs);
    const int64_t box_bytes = bs_position(bs) - start;
    const int32_t result = write_open_sizes(mux, start, static_cast<uint32_t>(box_bytes));
    return result < 0 ? result : box_bytes;
}
