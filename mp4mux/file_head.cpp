#include "mp4mux/file_head.h"

#include "mp4mux/bitstream_file.h"
#include "mp4mux/box_writer.h"
#include "mp4mux/sample_entry_codes.h"

#include <algorithm>

static constexpr uint32_t kDefaultMinorVersion = 0x200;

// Bytes of the movie box without the records of the sample tables and the sample entries.
static constexpr int64_t kMovieEstimate = 255;
static constexpr int64_t kVideoTrackEstimate = 357;
static constexpr int64_t kAudioTrackEstimate = 345;

static const char *brand_of(int32_t file_type)
{
    switch (file_type) {
    case kFileTypeIsom:
    case kFileTypeIsomAlias:
        return "isom";
    case kFileType3gp4:
        return "3gp4";
    case kFileTypeMsnv:
        return "MSNV";
    case kFileType3g2a:
        return "3g2a";
    case kFileTypeQuicktime:
    default:
        return "qt  ";
    }
}

static void write_default_ftyp(mp4_mux_bs_t *bs, const char *brand)
{
    mp4_mux_bs_write_be32(bs, 20);                   // unsigned int(32) size;
    mp4_mux_bs_write_tag(bs, "ftyp");                // unsigned int(32) type;
    mp4_mux_bs_write_tag(bs, brand);                 // unsigned int(32) major_brand;
    mp4_mux_bs_write_be32(bs, kDefaultMinorVersion); // unsigned int(32) minor_version;
    mp4_mux_bs_write_tag(bs, brand);                 // unsigned int(32) compatible_brands[];
}

static void write_custom_ftyp(mp4_mux_bs_t *bs, const mp4_mux_ftyp_t *ftyp, const char *brand)
{
    char major_brand[5] = {};
    std::copy_n(ftyp->m_szMajorBrand, 4, major_brand);

    const int64_t start = begin_box(bs, "ftyp");
    mp4_mux_bs_write_tag(bs, major_brand);             // unsigned int(32) major_brand;
    mp4_mux_bs_write_be32(bs, ftyp->m_uiMinorVersion); // unsigned int(32) minor_version;
    for (uint32_t i = 0; i < ftyp->m_uiCompatibleCount; i++) {
        write_code(bs, ftyp->m_puiCompatible[i]); // unsigned int(32) compatible_brands[];
    }
    if (ftyp->m_uiCompatibleCount == 0) {
        mp4_mux_bs_write_tag(bs, brand); // unsigned int(32) compatible_brands[];
    }
    (void)update_size(bs, start); // a failure is in the error record; the head continues
}

static void write_user_box(mp4_mux_bs_t *bs, const mp4_mux_userbox_t *box)
{
    const int64_t start = bs_position(bs);
    mp4_mux_bs_write_be32(bs, 0);  // unsigned int(32) size;
    write_code(bs, box->m_uiType); // unsigned int(32) type;
    (void)mp4_mux_bs_write_bytes(bs, box->m_pbyData, static_cast<int32_t>(box->m_uiSize));
    (void)update_size(bs, start); // failures are in the error record; the head continues
}

// Sets the codes of the tracks and, from them, the estimate of the movie box.
static void prepare_tracks(mp4_mux_t *mux)
{
    int64_t estimate = kMovieEstimate;
    for (uint32_t i = 0; i < mux->m_uiTrackCount; i++) {
        mp4_mux_track_t *p_track = mux->m_pstTrack[i];
        estimate += p_track->m_iType == MUX_TYPE_VIDEO
                        ? kVideoTrackEstimate + assign_video_codes(p_track)
                        : kAudioTrackEstimate + assign_audio_codes(p_track);
    }
    mux->m_iMoovSizeEstimate = static_cast<int32_t>(std::min<int64_t>(estimate, INT32_MAX));
}

int32_t mp4_mux_open(mp4_mux_t *mux)
{
    mp4_mux_bs_t *bs = mux->m_pBs;
    const char *brand = brand_of(mux->m_iFileType);
    if (mux->m_pstFtyp == nullptr) {
        write_default_ftyp(bs, brand);
    } else {
        write_custom_ftyp(bs, mux->m_pstFtyp, brand);
    }
    for (uint32_t i = 0; i < mux->m_uiUserBoxCount; i++) {
        if (mux->m_pstUserBox[i].m_uiSize != 0) {
            write_user_box(bs, &mux->m_pstUserBox[i]);
        }
    }
    prepare_tracks(mux);

    mp4_mux_bs_write_be32(bs, kFreeBoxBytes); // unsigned int(32) size;
    mp4_mux_bs_write_tag(bs, mux->m_iFileType == kFileTypeQuicktime ? "wide" : "free");
    mux->m_uiMdatPos = static_cast<uint32_t>(bs_position(bs));
    (void)begin_box(bs, "mdat"); // its size is written at the close
    mux->m_bTornHead = bs->m_bTorn;
    return 0;
}
