#include "mp4mux/moov/media_box.h"

#include "mp4mux/box_writer.h"
#include "mp4mux/moov/duration.h"
#include "mp4mux/moov/sample_table.h"

static void write_mdhd_box(mp4_mux_bs_t *bs, const mp4_mux_track_t *p_track)
{
    const int64_t dur_ticks = duration_ticks(p_track->m_uiLastTimeStamp, p_track->m_uiTimeScale);
    const bool is_long = dur_ticks > kMaxShortDuration;
    const uint64_t creation_time = p_track->m_ullCreationTime;
    const uint32_t creation_time32 = static_cast<uint32_t>(creation_time);

    mp4_mux_bs_write_be32(bs, is_long ? 44 : 32); // unsigned int(32) size;
    mp4_mux_bs_write_tag(bs, "mdhd");             // unsigned int(32) type;
    mp4_mux_bs_write_be8(bs, is_long ? 1 : 0);    // unsigned int(8) version;
    mp4_mux_bs_write_be24(bs, 0x00000F);          // bit(24) flags;
    if (is_long) {
        mp4_mux_bs_write_be64(bs, creation_time);                    // creation_time;
        mp4_mux_bs_write_be64(bs, creation_time);                    // modification_time;
        mp4_mux_bs_write_be32(bs, p_track->m_uiTimeScale);           // timescale;
        mp4_mux_bs_write_be64(bs, static_cast<uint64_t>(dur_ticks)); // duration;
    } else {
        mp4_mux_bs_write_be32(bs, creation_time32);                  // creation_time;
        mp4_mux_bs_write_be32(bs, creation_time32);                  // modification_time;
        mp4_mux_bs_write_be32(bs, p_track->m_uiTimeScale);           // timescale;
        mp4_mux_bs_write_be32(bs, static_cast<uint32_t>(dur_ticks)); // duration;
    }
    mp4_mux_bs_write_be16(bs, p_track->m_uiLanguage); // bit(1) pad; unsigned int(5)[3] language;
    mp4_mux_bs_write_be16(bs, 0);                     // unsigned int(16) pre_defined = 0;
}

static void write_hdlr_box(mp4_mux_bs_t *bs, bool is_video)
{
    mp4_mux_bs_write_be32(bs, 33);                        // unsigned int(32) size;
    mp4_mux_bs_write_tag(bs, "hdlr");                     // unsigned int(32) type;
    mp4_mux_bs_write_be32(bs, 0);                         // unsigned int(8) version; bit(24) flags;
    mp4_mux_bs_write_be32(bs, 0);                         // unsigned int(32) pre_defined = 0;
    mp4_mux_bs_write_tag(bs, is_video ? "vide" : "soun"); // unsigned int(32) handler_type;
    mp4_mux_bs_write_be32(bs, 0);                         // const unsigned int(32)[3] reserved = 0;
    mp4_mux_bs_write_be32(bs, 0);
    mp4_mux_bs_write_be32(bs, 0);
    mp4_mux_bs_write_be8(bs, 0); // string name;
}

static void write_vmhd_box(mp4_mux_bs_t *bs)
{
    mp4_mux_bs_write_be32(bs, 20);    // unsigned int(32) size;
    mp4_mux_bs_write_tag(bs, "vmhd"); // unsigned int(32) type;
    mp4_mux_bs_write_be32(bs, 1);     // unsigned int(8) version; bit(24) flags = 1;
    mp4_mux_bs_write_be64(bs, 0);     // unsigned int(16) graphicsmode; unsigned int(16)[3] opcolor;
}

static void write_smhd_box(mp4_mux_bs_t *bs)
{
    mp4_mux_bs_write_be32(bs, 16);    // unsigned int(32) size;
    mp4_mux_bs_write_tag(bs, "smhd"); // unsigned int(32) type;
    mp4_mux_bs_write_be32(bs, 0);     // unsigned int(8) version; bit(24) flags;
    mp4_mux_bs_write_be16(bs, 0);     // template int(16) balance;
    mp4_mux_bs_write_be16(bs, 0);     // const unsigned int(16) reserved = 0;
}

static void write_dinf_box(mp4_mux_bs_t *bs)
{
    mp4_mux_bs_write_be32(bs, 36);    // unsigned int(32) size;
    mp4_mux_bs_write_tag(bs, "dinf"); // unsigned int(32) type;
    mp4_mux_bs_write_be32(bs, 28);    // unsigned int(32) size;
    mp4_mux_bs_write_tag(bs, "dref"); // unsigned int(32) type;
    mp4_mux_bs_write_be32(bs, 0);     // unsigned int(8) version; bit(24) flags;
    mp4_mux_bs_write_be32(bs, 1);     // unsigned int(32) entry_count;
    mp4_mux_bs_write_be32(bs, 12);    // unsigned int(32) size;
    mp4_mux_bs_write_tag(bs, "url "); // unsigned int(32) type;
    mp4_mux_bs_write_be32(bs, 1);     // unsigned int(8) version; bit(24) flags = this file;
}

static int32_t write_minf_box(mp4_mux_t *mux, mp4_mux_track_t *p_track, bool is_video)
{
    mp4_mux_bs_t *bs = mux->m_pBs;
    const int64_t start = begin_box(bs, "minf");
    if (is_video) {
        write_vmhd_box(bs);
    } else {
        write_smhd_box(bs);
    }
    write_dinf_box(bs);
    (void)write_stbl_box(mux, p_track); // a failure is in the error record
    return update_size(bs, start);
}

int32_t write_mdia_box(mp4_mux_t *mux, mp4_mux_track_t *p_track)
{
    mp4_mux_bs_t *bs = mux->m_pBs;
    const bool is_video = p_track->m_iType == MUX_TYPE_VIDEO;
    const int64_t start = begin_box(bs, "mdia");
    write_mdhd_box(bs, p_track);
    write_hdlr_box(bs, is_video);
    (void)write_minf_box(mux, p_track, is_video); // a failure is in the error record
    return update_size(bs, start);
}
