#include "mp4mux/moov/sample_entry.h"

#include "mp4mux/bitstream_file.h"
#include "mp4mux/box_writer.h"
#include "mp4mux/descriptor.h"
#include "mp4mux/moov/avc_config.h"
#include "mp4mux/sample_entry_codes.h"

// Class tags, and streamType with upStream 0 and reserved 1.
// source: ISO/IEC 14496-1, Table 1 and 7.2.6.6
enum {
    kTagEsDescriptor = 3,
    kTagDecoderConfig = 4,
    kTagDecoderSpecificInfo = 5,
    kStreamTypeVisual = 0x11,
    kStreamTypeAudio = 0x15,
};

static constexpr int32_t kAc3HeaderBytes = 7; // up to the last field read from a sync frame
static constexpr uint32_t kDac3BoxBytes = 11;

static int32_t write_private_data(mp4_mux_t *mux, const mp4_mux_track_t *p_track)
{
    return mp4_mux_bs_write_bytes(mux->m_pBs, p_track->m_pbyCodecPrivate,
                                  p_track->m_iCodecPrivateSize);
}

// The private data as it is.
static int32_t write_glbl_box(mp4_mux_t *mux, const mp4_mux_track_t *p_track)
{
    const uint32_t box_bytes =
        kBoxHeaderBytes + static_cast<uint32_t>(p_track->m_iCodecPrivateSize);
    mp4_mux_bs_write_be32(mux->m_pBs, box_bytes); // unsigned int(32) size;
    mp4_mux_bs_write_tag(mux->m_pBs, "glbl");     // unsigned int(32) type;
    (void)write_private_data(mux, p_track);       // a failure is in the error record
    return static_cast<int32_t>(box_bytes);
}

// Groups of 7 bits, the highest first, bit 7 set on all but the last.
// source: ISO/IEC 14496-1, 8.3.3
static void write_descriptor_size(mp4_mux_bs_t *bs, uint32_t payload)
{
    for (uint32_t groups = descriptor_size_bytes(payload); groups > 1; groups--) {
        mp4_mux_bs_write_be8(bs, 0x80 | payload >> (7 * (groups - 1)));
    }
    mp4_mux_bs_write_be8(bs, payload & 0x7F);
}

// source: ISO/IEC 14496-14, 5.6.1; ISO/IEC 14496-1, 7.2.6
static int32_t write_esds_box(mp4_mux_t *mux, const mp4_mux_track_t *p_track)
{
    mp4_mux_bs_t *bs = mux->m_pBs;
    const uint32_t private_bytes = static_cast<uint32_t>(p_track->m_iCodecPrivateSize);
    const descriptor_sizes sizes = sizes_of_descriptors(private_bytes);
    const bool is_audio = p_track->m_iType == MUX_TYPE_AUDIO;

    const int64_t start = begin_box(bs, "esds");
    mp4_mux_bs_write_be32(bs, 0); // unsigned int(8) version; bit(24) flags;

    mp4_mux_bs_write_be8(bs, kTagEsDescriptor);      // bit(8) tag = ES_DescrTag;
    write_descriptor_size(bs, sizes.stream);         // sizeOfInstance
    mp4_mux_bs_write_be16(bs, p_track->m_uiTrackID); // bit(16) ES_ID;
    mp4_mux_bs_write_be8(bs, 0);                     // flags and streamPriority

    mp4_mux_bs_write_be8(bs, kTagDecoderConfig);                 // bit(8) tag;
    write_descriptor_size(bs, sizes.config);                     // sizeOfInstance
    mp4_mux_bs_write_be8(bs, p_track->m_uiObjectTypeIndication); // bit(8) objectTypeIndication;
    mp4_mux_bs_write_be8(bs, is_audio ? kStreamTypeAudio : kStreamTypeVisual);
    mp4_mux_bs_write_be24(bs, 0); // bit(24) bufferSizeDB;
    mp4_mux_bs_write_be32(bs, 0); // bit(32) maxBitrate;
    mp4_mux_bs_write_be32(bs, 0); // bit(32) avgBitrate;

    if (private_bytes != 0) {
        mp4_mux_bs_write_be8(bs, kTagDecoderSpecificInfo); // bit(8) tag = DecSpecificInfoTag;
        write_descriptor_size(bs, private_bytes);          // sizeOfInstance
        (void)write_private_data(mux, p_track);            // a failure is in the error record
    }
    mp4_mux_bs_write_be24(bs, 0x060102); // SLConfigDescriptor: tag 6, size 1, predefined 2
    return update_size(bs, start);
}

static int32_t write_avcc_box(mp4_mux_t *mux, const mp4_mux_track_t *p_track)
{
    const int64_t start = begin_box(mux->m_pBs, "avcC");
    isom_write_avcc(mux, p_track->m_pbyCodecPrivate, p_track->m_iCodecPrivateSize);
    return update_size(mux->m_pBs, start);
}

static int32_t write_d263_box(mp4_mux_bs_t *bs)
{
    mp4_mux_bs_write_be32(bs, kD263BoxBytes); // unsigned int(32) size;
    mp4_mux_bs_write_tag(bs, "d263");         // unsigned int(32) type;
    mp4_mux_bs_write_tag(bs, "ukwn");         // unsigned int(32) vendor;
    mp4_mux_bs_write_be8(bs, 0);              // unsigned int(8) decoder_version;
    mp4_mux_bs_write_be8(bs, 10);             // unsigned int(8) H263_Level;
    mp4_mux_bs_write_be8(bs, 0);              // unsigned int(8) H263_Profile;
    return kD263BoxBytes;
}

static int32_t write_video_config(mp4_mux_t *mux, const mp4_mux_track_t *p_track)
{
    switch (p_track->m_uiFourCC) {
    case fourcc("avc1"):
    case fourcc("h264"): // not reached: the track's creation makes it "avc1"
        return write_avcc_box(mux, p_track);
    case fourcc("mp4v"):
        return write_esds_box(mux, p_track);
    case fourcc("s263"):
    case fourcc("h263"):
        return write_d263_box(mux->m_pBs);
    default:
        return p_track->m_iCodecPrivateSize != 0 ? write_glbl_box(mux, p_track) : 0;
    }
}

// Writes the fields that all sample entries begin with.
// returns: position of the entry
static int64_t begin_sample_entry(mp4_mux_bs_t *bs, uint32_t type)
{
    const int64_t start = bs_position(bs);
    mp4_mux_bs_write_be32(bs, 0);    // unsigned int(32) size;
    mp4_mux_bs_write_le32(bs, type); // unsigned int(32) type;
    mp4_mux_bs_write_be32(bs, 0);    // const unsigned int(8)[6] reserved = 0;
    mp4_mux_bs_write_be16(bs, 0);
    mp4_mux_bs_write_be16(bs, 1); // unsigned int(16) data_reference_index;
    return start;
}

int32_t write_video_box(mp4_mux_t *mux, mp4_mux_track_t *p_track)
{
    mp4_mux_bs_t *bs = mux->m_pBs;
    const uint32_t width = static_cast<uint32_t>(p_track->m_iWidth);
    const uint32_t height = static_cast<uint32_t>(p_track->m_iHeight);

    const int64_t start = begin_sample_entry(bs, p_track->m_uiFourCC);
    mp4_mux_bs_write_be16(bs, 0); // unsigned int(16) pre_defined = 0;
    mp4_mux_bs_write_be16(bs, 0); // const unsigned int(16) reserved = 0;
    mp4_mux_bs_write_be32(bs, 0); // unsigned int(32)[3] pre_defined = 0;
    mp4_mux_bs_write_be32(bs, 0);
    mp4_mux_bs_write_be32(bs, 0);
    mp4_mux_bs_write_be16(bs, width);      // unsigned int(16) width;
    mp4_mux_bs_write_be16(bs, height);     // unsigned int(16) height;
    mp4_mux_bs_write_be32(bs, 0x00480000); // template unsigned int(32) horizresolution;
    mp4_mux_bs_write_be32(bs, 0x00480000); // template unsigned int(32) vertresolution;
    mp4_mux_bs_write_be32(bs, 0);          // const unsigned int(32) reserved = 0;
    mp4_mux_bs_write_be16(bs, 1);          // template unsigned int(16) frame_count;
    for (int i = 0; i < 8; i++) {
        mp4_mux_bs_write_be32(bs, 0); // string[32] compressorname;
    }
    mp4_mux_bs_write_be16(bs, 0x0018); // template unsigned int(16) depth;
    mp4_mux_bs_write_be16(bs, 0xFFFF); // int(16) pre_defined = -1;
    const int32_t result = write_video_config(mux, p_track);
    if (result < 0) {
        return tag_failure(&mux->m_stLastError, "<write_video_box", result);
    }
    return update_size(bs, start);
}

// Packs the fields of the bit stream information at the start of a sync frame. Fields that depend
// on acmod precede lfeon.
// source: ETSI TS 102 366, Annex F.4
static uint32_t ac3_specific_bits(const uint8_t *frame)
{
    const uint32_t fscod = frame[4] >> 6;
    const uint32_t bit_rate_code = (frame[4] & 0x3Fu) >> 1;
    const uint32_t bsid = frame[5] >> 3;
    const uint32_t bsmod = frame[5] & 7u;
    const uint32_t acmod = frame[6] >> 5;
    uint32_t lfeon_bit = 4;
    if ((acmod & 1) != 0 && acmod != 1) {
        lfeon_bit -= 2; // cmixlev
    }
    if ((acmod & 4) != 0) {
        lfeon_bit -= 2; // surmixlev
    }
    if (acmod == 2) {
        lfeon_bit -= 2; // dsurmod
    }
    const uint32_t lfeon = frame[6] >> lfeon_bit & 1u;
    return fscod << 22 | bsid << 17 | bsmod << 14 | acmod << 11 | lfeon << 10 | bit_rate_code << 5;
}

static int32_t write_ac3_box(mp4_mux_t *mux, const mp4_mux_track_t *p_track)
{
    mp4_mux_bs_t *bs = mux->m_pBs;
    if (p_track->m_iCodecPrivateSize < kAc3HeaderBytes) {
        return MUX_ERR_INVALID;
    }
    const uint32_t bits = ac3_specific_bits(p_track->m_pbyCodecPrivate);
    mp4_mux_bs_write_be32(bs, kDac3BoxBytes); // unsigned int(32) size;
    mp4_mux_bs_write_tag(bs, "dac3");         // unsigned int(32) type;
    const int64_t before = bs_position(bs);
    mp4_mux_bs_write_be24(bs, bits);
    if (bs_position(bs) != before + 3) {
        return mp4_mux_add_err_string("<write_ac3_box", &mux->m_stLastError);
    }
    return kDac3BoxBytes;
}

static int32_t write_damr_box(mp4_mux_bs_t *bs)
{
    mp4_mux_bs_write_be32(bs, kDamrBoxBytes); // unsigned int(32) size;
    mp4_mux_bs_write_tag(bs, "damr");         // unsigned int(32) type;
    mp4_mux_bs_write_tag(bs, "ukwn");         // unsigned int(32) vendor;
    mp4_mux_bs_write_be8(bs, 0);              // unsigned int(8) decoder_version;
    mp4_mux_bs_write_be16(bs, 0x81FF);        // unsigned int(16) mode_set;
    mp4_mux_bs_write_be8(bs, 0);              // unsigned int(8) mode_change_period;
    mp4_mux_bs_write_be8(bs, 1);              // unsigned int(8) frames_per_sample;
    return kDamrBoxBytes;
}

static int32_t write_dqcp_box(mp4_mux_bs_t *bs)
{
    mp4_mux_bs_write_be32(bs, kDqcpBoxBytes); // unsigned int(32) size;
    mp4_mux_bs_write_tag(bs, "dqcp");         // unsigned int(32) type;
    mp4_mux_bs_write_tag(bs, "ukwn");         // unsigned int(32) vendor;
    mp4_mux_bs_write_be8(bs, 0);              // unsigned int(8) decoder_version;
    mp4_mux_bs_write_be8(bs, 1);              // unsigned int(8) frames_per_sample;
    return kDqcpBoxBytes;
}

static int32_t write_audio_config(mp4_mux_t *mux, const mp4_mux_track_t *p_track)
{
    if (p_track->m_uiFourCC == fourcc("mp4a")) {
        return write_esds_box(mux, p_track);
    }
    switch (p_track->m_iCodec) {
    case kAudioTagAc3: // not reached: its entry is "mp4a"
        return write_ac3_box(mux, p_track);
    case kAudioTagAmrWbp:
    case kAudioTagAmrNb:
    case kAudioTagAmrWb:
        return write_damr_box(mux->m_pBs);
    case kAudioTagQcelp:
        return write_dqcp_box(mux->m_pBs);
    default:
        return p_track->m_iCodecPrivateSize != 0 ? write_glbl_box(mux, p_track) : 0;
    }
}

int32_t write_audio_box(mp4_mux_t *mux, mp4_mux_track_t *p_track)
{
    mp4_mux_bs_t *bs = mux->m_pBs;
    const int64_t start = begin_sample_entry(bs, p_track->m_uiFourCC);
    mp4_mux_bs_write_be16(bs, 0);                      // version of the sample description
    mp4_mux_bs_write_be16(bs, 0);                      // revision level
    mp4_mux_bs_write_be32(bs, 0);                      // vendor
    mp4_mux_bs_write_be16(bs, 2);                      // template unsigned int(16) channelcount;
    mp4_mux_bs_write_be16(bs, 16);                     // template unsigned int(16) samplesize;
    mp4_mux_bs_write_be16(bs, 0);                      // unsigned int(16) pre_defined = 0;
    mp4_mux_bs_write_be16(bs, 0);                      // const unsigned int(16) reserved = 0;
    mp4_mux_bs_write_be16(bs, p_track->m_uiTimeScale); // template unsigned int(32) samplerate;
    mp4_mux_bs_write_be16(bs, 0);
    const int32_t result = write_audio_config(mux, p_track);
    if (result < 0) {
        return tag_failure(&mux->m_stLastError, "<write_audio_box", result);
    }
    return update_size(bs, start);
}
