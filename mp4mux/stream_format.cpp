#include "mp4mux/stream_format.h"

#include "mp4mux/c_strings.h"
#include "mp4mux/mux_context.h"

#include <iterator>

// Wave-format header: tag, channels, rate, byte rate, block alignment, bits; then, when there are
// any, the count of the extra bytes and the bytes themselves.
static constexpr int32_t kWaveHeaderBytes = 16;
static constexpr int32_t kWaveExtraOffset = 18;
static constexpr uint32_t kWaveTagPcm = 1;
static constexpr uint32_t kWaveTagFirstPrivate = 0x2001;

// Bitmap-info header: 40 bytes, then the extra bytes; the fields used here end at 20.
static constexpr int32_t kBitmapHeaderBytes = 40;
static constexpr int32_t kBitmapFieldBytes = 20;

// sampling_frequency_index, and extension signalling.
// source: ISO/IEC 14496-3, Tables 1.18 and 1.15
static constexpr int32_t kSamplingRates[12] = {96000, 88200, 64000, 48000, 44100, 32000,
                                               24000, 22050, 16000, 12000, 11025, 8000};
static constexpr int32_t kProfileNameOffset = 12;
static constexpr int32_t kConfigBytes = 2;     // of an AudioSpecificConfig
static constexpr int32_t kSbrConfigBytes = 5;  // with the SBR extension
static constexpr int32_t kMaxHalfRate = 24000; // a rate up to this one is the lower of an SBR pair

enum {
    kAotAacMain = 1,
    kAotAacLc = 2,
    kAotAacSsr = 3,
    kAotAacLtp = 4,
    kAotSbr = 5,
};

static uint32_t load_le16(const uint8_t *from)
{
    return from[0] | static_cast<uint32_t>(from[1]) << 8;
}

static uint32_t load_le32(const uint8_t *from)
{
    return load_le16(from) | load_le16(from + 2) << 16;
}

static void clear_format(mp4_mux_t *mux, mp4_mux_format_t *format)
{
    if (format->m_pExtra != nullptr && format->m_pExtra == format->m_pOwnedExtra) {
        mux->m_stMem.m_pfnFree(format->m_pExtra);
    }
    *format = {};
}

// returns: whether a header describes plain PCM, under its own tag or under a private one
static bool is_pcm(const uint8_t *header)
{
    const uint32_t tag = load_le16(header);
    const uint32_t channels = load_le16(header + 2);
    const uint64_t rate = load_le32(header + 4);
    const uint64_t byte_rate = load_le32(header + 8);
    const uint32_t alignment = load_le16(header + 12);
    const uint32_t bits = load_le16(header + 14);
    return tag == kWaveTagPcm ||
           (tag >= kWaveTagFirstPrivate && alignment >= 1 && alignment == channels * bits / 8 &&
            byte_rate > 0 && byte_rate == rate * alignment);
}

int32_t mp4_mux_set_wave_format(mp4_mux_t *mux, void *, void *header, int32_t length,
                                mp4_mux_format_t *format)
{
    uint8_t *from = static_cast<uint8_t *>(header);
    if (length < kWaveHeaderBytes) {
        return 0;
    }
    clear_format(mux, format);
    format->m_uiFormatTag = load_le16(from);
    format->m_iChannels = static_cast<int32_t>(load_le16(from + 2));
    format->m_iSampleRate = static_cast<int32_t>(load_le32(from + 4));
    format->m_iBitsPerSample = static_cast<int32_t>(load_le16(from + 14));
    if (length > kWaveExtraOffset) {
        const int32_t extra_bytes = static_cast<int32_t>(load_le16(from + 16));
        if (extra_bytes >= 1 && extra_bytes <= length - kWaveExtraOffset) {
            format->m_pExtra = from + kWaveExtraOffset;
            format->m_iExtraSize = extra_bytes;
        }
    }
    if (is_pcm(from)) {
        format->m_uiFormatTag = kWaveTagPcm;
        format->m_iBitsPerSample = (format->m_iBitsPerSample + 7) / 8 * 8;
    }
    return 0;
}

int32_t mp4_mux_set_bitmap_format(mp4_mux_t *mux, void *, void *header, int32_t length,
                                  mp4_mux_format_t *format)
{
    uint8_t *from = static_cast<uint8_t *>(header);
    if (length < kBitmapFieldBytes || load_le32(from) > static_cast<uint32_t>(length)) {
        return 0;
    }
    clear_format(mux, format);
    const int32_t header_bytes = static_cast<int32_t>(load_le32(from));
    const uint32_t height = load_le32(from + 8); // negative for a picture stored from the top
    format->m_iWidth = static_cast<int32_t>(load_le32(from + 4));
    format->m_iHeight = static_cast<int32_t>((height >> 31) != 0 ? 0 - height : height);
    format->m_uiFormatTag = load_le32(from + 16);
    if (header_bytes > kBitmapHeaderBytes) {
        format->m_pExtra = from + kBitmapHeaderBytes;
        format->m_iExtraSize = header_bytes - kBitmapHeaderBytes;
    }
    return 0;
}

static uint32_t sampling_index(int32_t rate)
{
    uint32_t index = 0;
    while (index + 1 < std::size(kSamplingRates) && kSamplingRates[index] > rate) {
        index++;
    }
    return index;
}

// The audio object type of a profile's name.
// out: with_sbr: the configuration carries the SBR extension
static uint32_t object_type_of(const char *name, bool sbr_implied, bool *with_sbr)
{
    static constexpr struct {
        const char *name;
        uint32_t object_type;
    } kProfiles[] = {
        {"MAIN", kAotAacMain}, {"SSR", kAotAacSsr}, {"LTP", kAotAacLtp}, {"sbr", kAotSbr}};
    *with_sbr = false;
    for (const auto &profile : kProfiles) {
        if (mp4_mux_strcmp(name, profile.name) == 0) {
            return profile.object_type;
        }
    }
    *with_sbr = sbr_implied || mp4_mux_strcmp(name, "LC/sbr") == 0;
    return kAotAacLc;
}

static int32_t resize_extra(mp4_mux_t *mux, int32_t bytes, mp4_mux_format_t *format)
{
    const bool owned = format->m_pExtra != nullptr && format->m_pExtra == format->m_pOwnedExtra;
    void *extra = nullptr;
    if (mux->m_stMem.m_pfnRealloc != nullptr) {
        extra = mux->m_stMem.m_pfnRealloc(owned ? format->m_pExtra : nullptr,
                                          static_cast<size_t>(bytes));
    }
    if (extra == nullptr) {
        return fail(&mux->m_stLastError, MUX_ERR_MEMORY,
                    "Insufficient memory to re-allocate (set_data_memory)");
    }
    format->m_pExtra = extra;
    format->m_pOwnedExtra = extra;
    format->m_iExtraSize = bytes;
    return 0;
}

int32_t mp4_mux_aac_build_config(mp4_mux_t *mux, void *, const uint8_t *profile,
                                 int32_t sample_rate, mp4_mux_format_t *format)
{
    const bool sbr_implied = format->m_iSampleRate < sample_rate;
    if (sbr_implied) {
        format->m_iSampleRate = sample_rate > kMaxHalfRate ? sample_rate / 2 : sample_rate;
    }
    const uint32_t index = sampling_index(format->m_iSampleRate);
    const uint32_t channels = static_cast<uint32_t>(format->m_iChannels) & 0xF;
    bool with_sbr = false;
    const uint32_t object_type = object_type_of(
        reinterpret_cast<const char *>(profile + kProfileNameOffset), sbr_implied, &with_sbr);

    const int32_t resized = resize_extra(mux, with_sbr ? kSbrConfigBytes : kConfigBytes, format);
    if (resized < 0) {
        return resized;
    }
    // audioObjectType 5 bits, samplingFrequencyIndex 4, channelConfiguration 4, three zero bits
    uint8_t *config = static_cast<uint8_t *>(format->m_pExtra);
    config[0] = static_cast<uint8_t>(object_type << 3 | index >> 1);
    config[1] = static_cast<uint8_t>((index & 1) << 7 | channels << 3);
    if (with_sbr) {
        if (format->m_iSampleRate <= kMaxHalfRate) {
            // Unsigned: any given rate may be doubled.
            const uint32_t rate = static_cast<uint32_t>(format->m_iSampleRate);
            format->m_iSampleRate = static_cast<int32_t>(2 * rate);
        }
        // syncExtensionType 0x2B7 in 11 bits, extensionAudioObjectType 5 in 5, sbrPresentFlag,
        // extensionSamplingFrequencyIndex 4, three zero bits
        config[2] = 0x56;
        config[3] = 0xE5;
        config[4] = static_cast<uint8_t>(0x80 | sampling_index(format->m_iSampleRate) << 3);
    }
    return 0;
}

int32_t mp4_mux_get_allocated_data(mp4_mux_t *mux, void *, uint32_t size_bytes, void **slot)
{
    if (size_bytes == 0) {
        return 0;
    }
    void *memory = mux->m_stMem.m_pfnMalloc(size_bytes);
    if (memory == nullptr) {
        return fail(&mux->m_stLastError, MUX_ERR_MEMORY,
                    "Insufficient memory to re-allocate (get_allocated_data)");
    }
    mux->m_stMem.m_pfnMemset(memory, 0, size_bytes);
    *slot = memory;
    return 0;
}

int32_t mp4_mux_clear_allocated_data(mp4_mux_t *mux, void *, void **slot)
{
    if (*slot != nullptr) {
        mux->m_stMem.m_pfnFree(*slot);
        *slot = nullptr;
    }
    return 0;
}

int32_t mp4_mux_clear_data_memory(mp4_mux_t *mux, void *unused, void **slot)
{
    return mp4_mux_clear_allocated_data(mux, unused, slot);
}
