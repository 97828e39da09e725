#include "recovery/recorder_settings.h"

#include <array>
#include <cstdlib>
#include <cstring>

static constexpr uint32_t kAacLc = 2; // audioObjectType
static constexpr uint32_t kNalLengthBytes = 4;
static constexpr uint8_t kNalTypeSps = 7;
static constexpr uint8_t kNalTypePps = 8;
static constexpr uint32_t kLeastSpsBytes = 4;
static constexpr uint32_t kRecordFixedBytes = 11; // of an avcC record without the two units

static constexpr std::array<int32_t, 13> kSampleRates = {
    96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050, 16000, 12000, 11025, 8000, 7350};

int32_t sampling_index_of(int32_t sample_rate)
{
    for (size_t i = 0; i < kSampleRates.size(); i++) {
        if (kSampleRates[i] == sample_rate) {
            return static_cast<int32_t>(i);
        }
    }
    return -1;
}

int32_t sample_rate_of(int32_t sampling_index)
{
    const size_t index = static_cast<size_t>(sampling_index);
    return index < kSampleRates.size() ? kSampleRates[index] : 0;
}

void fill_recorder_settings(journal_settings_t *settings, int32_t sample_rate, int32_t channels)
{
    *settings = {.stream_flags = MUX_STREAM_VIDEO | MUX_STREAM_AUDIO,
                 .options = MUX_OPTION_32BIT_OFFSET};
    settings->input = {.m_iYear = 2009,
                       .m_iMonth = 9, // counted from 0
                       .m_iDay = 5,
                       .m_iWeekDay = 1,
                       .m_iHour = 17,
                       .m_iMinute = 5,
                       .m_iSecond = 18,
                       .m_iVideoWidth = 320,
                       .m_iVideoHeight = 240,
                       .m_iVideoFrameRate = 30000,
                       .m_iAudioSampleRate = sample_rate,
                       .m_iAudioBitsPerSample = 16,
                       .m_iAudioChannels = channels,
                       .m_iAudioCodec = MUX_AUDIO_AAC};
    memcpy(&settings->input.m_uiVideoFourCC, "avc1", 4);
    const int32_t index = sampling_index_of(sample_rate);
    if (index >= 0) { // AudioSpecificConfig
        const uint32_t bits = kAacLc << 11 | static_cast<uint32_t>(index) << 7 |
                              (static_cast<uint32_t>(channels) & 0xF) << 3;
        settings->audio_configuration[0] = static_cast<uint8_t>(bits >> 8);
        settings->audio_configuration[1] = static_cast<uint8_t>(bits);
        settings->audio_configuration_bytes = 2;
    }
}

bool find_picture_sets(const uint8_t *bytes, int32_t count, picture_sets *sets)
{
    *sets = {};
    uint32_t left_bytes = static_cast<uint32_t>(count);
    while (left_bytes > kNalLengthBytes && (sets->sps == nullptr || sets->pps == nullptr)) {
        const uint32_t unit_bytes = uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 |
                                    uint32_t{bytes[2]} << 8 | bytes[3];
        bytes += kNalLengthBytes;
        left_bytes -= kNalLengthBytes;
        if (unit_bytes > left_bytes) {
            break;
        }
        const uint8_t type = unit_bytes > 0 ? bytes[0] & 0x1F : 0;
        if (type == kNalTypeSps) {
            sets->sps = bytes;
            sets->sps_bytes = unit_bytes;
        } else if (type == kNalTypePps) {
            sets->pps = bytes;
            sets->pps_bytes = unit_bytes;
        }
        bytes += unit_bytes;
        left_bytes -= unit_bytes;
    }
    return sets->sps_bytes >= kLeastSpsBytes && sets->pps_bytes > 0 &&
           sets->sps_bytes <= UINT16_MAX && sets->pps_bytes <= UINT16_MAX;
}

static uint8_t *put_unit(uint8_t *to, const uint8_t *unit, uint32_t unit_bytes)
{
    to[0] = static_cast<uint8_t>(unit_bytes >> 8);
    to[1] = static_cast<uint8_t>(unit_bytes);
    memcpy(to + 2, unit, unit_bytes);
    return to + 2 + unit_bytes;
}

uint8_t *make_avc_record(const picture_sets *sets, int32_t *bytes)
{
    const uint32_t record_bytes = kRecordFixedBytes + sets->sps_bytes + sets->pps_bytes;
    uint8_t *const record = static_cast<uint8_t *>(malloc(record_bytes));
    if (record == nullptr) {
        return nullptr;
    }
    record[0] = 1;            // configurationVersion
    record[1] = sets->sps[1]; // AVCProfileIndication
    record[2] = sets->sps[2]; // profile_compatibility
    record[3] = sets->sps[3]; // AVCLevelIndication
    record[4] = 0xFF;         // lengthSizeMinusOne
    record[5] = 0xE1;         // numOfSequenceParameterSets
    uint8_t *const pps = put_unit(record + 6, sets->sps, sets->sps_bytes);
    *pps = 1; // numOfPictureParameterSets
    (void)put_unit(pps + 1, sets->pps, sets->pps_bytes);
    *bytes = static_cast<int32_t>(record_bytes);
    return record;
}
