#include "journal/journal.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>

static constexpr uint8_t kMagic[4] = {'Q', 'V', 'R', 'J'};
static constexpr uint8_t kGroupTag[4] = {'J', 'G', 'R', 'P'};
static constexpr size_t kBeginBytes = 8; // magic, version, size

// Bits of a record's first number, below the size.
static constexpr uint32_t kRecordSound = 1u << 0;
static constexpr uint32_t kRecordSync = 1u << 1;
static constexpr int kRecordSizeShift = 2;

namespace {

struct byte_writer {
    uint8_t *next;
};

// Reads zeros after the end.
struct byte_reader {
    const uint8_t *next;
    const uint8_t *end;
    bool has_failed;
};

} // namespace

static void put_bytes(byte_writer *out, const void *bytes, size_t count)
{
    memcpy(out->next, bytes, count);
    out->next += count;
}

static void put_number(byte_writer *out, uint64_t value, int bytes)
{
    for (int i = bytes - 1; i >= 0; i--) {
        *out->next++ = static_cast<uint8_t>(value >> (8 * i));
    }
}

static void take_bytes(byte_reader *in, void *bytes, size_t count)
{
    if (static_cast<size_t>(in->end - in->next) < count) {
        in->has_failed = true;
        memset(bytes, 0, count);
        return;
    }
    memcpy(bytes, in->next, count);
    in->next += count;
}

static uint64_t take_number(byte_reader *in, int bytes)
{
    uint8_t number[8] = {};
    take_bytes(in, number, static_cast<size_t>(bytes));
    uint64_t value = 0;
    for (int i = 0; i < bytes; i++) {
        value = value << 8 | number[i];
    }
    return value;
}

static uint32_t take_u32(byte_reader *in)
{
    return static_cast<uint32_t>(take_number(in, 4));
}

// Seven bits in a byte, the lowest first; the last byte has bit 7 clear.
static void put_varint(byte_writer *out, uint64_t value)
{
    for (; value > 0x7F; value >>= 7) {
        *out->next++ = static_cast<uint8_t>(0x80 | (value & 0x7F));
    }
    *out->next++ = static_cast<uint8_t>(value);
}

static uint64_t take_varint(byte_reader *in)
{
    uint64_t value = 0;
    for (int shift = 0; shift <= 28; shift += 7) {
        const uint64_t byte = take_number(in, 1);
        value |= (byte & 0x7F) << shift;
        if ((byte & 0x80) == 0) {
            return value;
        }
    }
    in->has_failed = true;
    return 0;
}

static_assert(std::endian::native == std::endian::little,
              "the words of a checksum are little-endian");

static uint32_t load_word(const uint8_t *bytes)
{
    uint32_t word = 0;
    memcpy(&word, bytes, sizeof(word));
    return word;
}

journal_sum_t journal_sum_begin(uint64_t session)
{
    return {.first = static_cast<uint32_t>(session),
            .second = static_cast<uint32_t>(session >> 32)};
}

// Adds whole rows of words, in lanes that a compiler can keep in vectors: every byte of a recording
// passes through here. With N words, word n counts N - n times in `second`, the first one N times.
// returns: the bytes added
static size_t add_rows(journal_sum_t *sum, const uint8_t *bytes, size_t count)
{
    static constexpr uint32_t kLanes = 8;
    static constexpr size_t kRowBytes = 4 * kLanes;
    const size_t rows = count / kRowBytes;
    uint32_t first[kLanes] = {};
    uint32_t second[kLanes] = {};
    for (size_t row = 0; row < rows; row++) {
        for (uint32_t lane = 0; lane < kLanes; lane++) {
            first[lane] += load_word(bytes + kRowBytes * row + 4 * lane);
            second[lane] += first[lane];
        }
    }
    sum->second += static_cast<uint32_t>(kLanes * rows) * sum->first;
    for (uint32_t lane = 0; lane < kLanes; lane++) {
        sum->first += first[lane];
        sum->second += kLanes * second[lane] - lane * first[lane];
    }
    return kRowBytes * rows;
}

static void add_word(journal_sum_t *sum, uint32_t word)
{
    sum->first += word;
    sum->second += sum->first;
}

void journal_sum_add(journal_sum_t *sum, const void *bytes, size_t count)
{
    const uint8_t *from = static_cast<const uint8_t *>(bytes);
    const size_t row_bytes = add_rows(sum, from, count);
    from += row_bytes;
    for (count -= row_bytes; count >= 4; count -= 4, from += 4) {
        add_word(sum, load_word(from));
    }
    if (count > 0) {
        uint8_t last[4] = {};
        memcpy(last, from, count);
        add_word(sum, load_word(last));
    }
}

uint32_t journal_sum_end(const journal_sum_t *sum)
{
    return sum->first ^ std::rotl(sum->second, 16);
}

static uint32_t sum_of(uint64_t session, const uint8_t *bytes, size_t count)
{
    journal_sum_t sum = journal_sum_begin(session);
    journal_sum_add(&sum, bytes, count);
    return journal_sum_end(&sum);
}

static uint32_t fitting(uint32_t configuration_bytes)
{
    return configuration_bytes <= kJournalConfigurationBytes ? configuration_bytes : 0;
}

static void put_streams(byte_writer *out, const mp4_mux_input_t *input)
{
    for (const int32_t part : {input->m_iYear, input->m_iMonth, input->m_iDay, input->m_iWeekDay,
                               input->m_iHour, input->m_iMinute, input->m_iSecond}) {
        put_number(out, static_cast<uint32_t>(part), 4);
    }
    put_number(out, input->m_uiVideoTrackID, 4);
    put_number(out, static_cast<uint32_t>(input->m_iVideoWidth), 4);
    put_number(out, static_cast<uint32_t>(input->m_iVideoHeight), 4);
    put_number(out, static_cast<uint32_t>(input->m_iVideoFrameRate), 4);
    put_bytes(out, &input->m_uiVideoFourCC, 4);
    put_number(out, input->m_uiAudioTrackID, 4);
    put_number(out, static_cast<uint32_t>(input->m_iAudioSampleRate), 4);
    put_number(out, static_cast<uint32_t>(input->m_iAudioBitsPerSample), 4);
    put_number(out, static_cast<uint32_t>(input->m_iAudioChannels), 4);
    put_number(out, static_cast<uint32_t>(input->m_iAudioCodec), 4);
    put_bytes(out, input->m_szAudioLanguage, 3);
    put_number(out, 0, 1);
}

static void take_streams(byte_reader *in, mp4_mux_input_t *input)
{
    for (int32_t *const part :
         {&input->m_iYear, &input->m_iMonth, &input->m_iDay, &input->m_iWeekDay, &input->m_iHour,
          &input->m_iMinute, &input->m_iSecond}) {
        *part = static_cast<int32_t>(take_u32(in));
    }
    input->m_uiVideoTrackID = take_u32(in);
    input->m_iVideoWidth = static_cast<int32_t>(take_u32(in));
    input->m_iVideoHeight = static_cast<int32_t>(take_u32(in));
    input->m_iVideoFrameRate = static_cast<int32_t>(take_u32(in));
    take_bytes(in, &input->m_uiVideoFourCC, 4);
    input->m_uiAudioTrackID = take_u32(in);
    input->m_iAudioSampleRate = static_cast<int32_t>(take_u32(in));
    input->m_iAudioBitsPerSample = static_cast<int32_t>(take_u32(in));
    input->m_iAudioChannels = static_cast<int32_t>(take_u32(in));
    input->m_iAudioCodec = static_cast<int32_t>(take_u32(in));
    take_bytes(in, input->m_szAudioLanguage, 3);
    (void)take_number(in, 1);
}

uint32_t journal_write_head(const journal_settings_t *settings, uint8_t *head)
{
    const uint32_t video_bytes = fitting(settings->video_configuration_bytes);
    const uint32_t audio_bytes = fitting(settings->audio_configuration_bytes);
    const size_t path_bytes = strnlen(settings->path, kJournalPathBytes - 1);
    byte_writer out = {head};
    put_bytes(&out, kMagic, sizeof(kMagic));
    put_number(&out, kJournalVersion, 2);
    uint8_t *const size_place = out.next;
    put_number(&out, 0, 2);
    put_number(&out, settings->session, 8);
    put_number(&out, settings->stream_flags, 4);
    put_number(&out, settings->options, 4);
    put_streams(&out, &settings->input);
    put_number(&out, video_bytes, 2);
    put_number(&out, audio_bytes, 2);
    put_number(&out, path_bytes, 2);
    put_number(&out, 0, 2);
    put_bytes(&out, settings->video_configuration, video_bytes);
    put_bytes(&out, settings->audio_configuration, audio_bytes);
    put_bytes(&out, settings->path, path_bytes);

    const uint32_t summed_bytes = static_cast<uint32_t>(out.next - head);
    byte_writer size = {size_place};
    put_number(&size, summed_bytes + kJournalSumBytes, 2);
    put_number(&out, sum_of(settings->session, head, summed_bytes), 4);
    return summed_bytes + kJournalSumBytes;
}

// Reads what comes after the begin and the session.
static bool take_settings(byte_reader *in, journal_settings_t *settings)
{
    settings->stream_flags = take_u32(in);
    settings->options = take_u32(in);
    take_streams(in, &settings->input);
    settings->video_configuration_bytes = static_cast<uint32_t>(take_number(in, 2));
    settings->audio_configuration_bytes = static_cast<uint32_t>(take_number(in, 2));
    const size_t path_bytes = static_cast<size_t>(take_number(in, 2));
    (void)take_number(in, 2);
    if (settings->video_configuration_bytes > kJournalConfigurationBytes ||
        settings->audio_configuration_bytes > kJournalConfigurationBytes ||
        path_bytes >= kJournalPathBytes) {
        return false;
    }
    take_bytes(in, settings->video_configuration, settings->video_configuration_bytes);
    take_bytes(in, settings->audio_configuration, settings->audio_configuration_bytes);
    take_bytes(in, settings->path, path_bytes);
    return !in->has_failed && in->next == in->end;
}

journal_result_t journal_read_head(const uint8_t *head, size_t count, journal_settings_t *settings,
                                   uint32_t *head_bytes, uint16_t *version)
{
    if (count < kBeginBytes) {
        return kJournalEnded;
    }
    byte_reader begin = {head + sizeof(kMagic), head + kBeginBytes, false};
    *version = static_cast<uint16_t>(take_number(&begin, 2));
    const uint32_t bytes = static_cast<uint32_t>(take_number(&begin, 2));
    if (memcmp(head, kMagic, sizeof(kMagic)) != 0) {
        return kJournalDamaged;
    }
    if (*version != kJournalVersion) {
        return kJournalOtherVersion;
    }
    if (bytes < kBeginBytes + kJournalSumBytes || bytes > kJournalHeadBytes) {
        return kJournalDamaged;
    }
    if (bytes > count) {
        return kJournalEnded;
    }
    byte_reader in = {head + kBeginBytes, head + bytes - kJournalSumBytes, false};
    byte_reader sum = {in.end, head + bytes, false};
    *settings = {};
    settings->session = take_number(&in, 8);
    if (take_u32(&sum) != sum_of(settings->session, head, bytes - kJournalSumBytes) ||
        !take_settings(&in, settings)) {
        return kJournalDamaged;
    }
    *head_bytes = bytes;
    return kJournalRead;
}

void journal_begin_group(journal_group_t *group, uint64_t session, uint64_t media_begin)
{
    group->used_bytes = kJournalGroupHeaderBytes;
    group->frames = 0;
    group->session = session;
    group->media_begin = media_begin;
    group->media_sum = journal_sum_begin(session);
    for (int i = 0; i < 2; i++) {
        group->last_ms[i] = 0;
        group->last_delta_ms[i] = 0;
    }
}

// Times are coded as the difference from an even step; a small one, of either sign, takes one byte.
static uint32_t zigzag(uint32_t difference)
{
    return difference << 1 ^ (0u - (difference >> 31));
}

static uint32_t unzigzag(uint32_t code)
{
    return code >> 1 ^ (0u - (code & 1));
}

// The first frame of a group has no step: its time is coded whole.
static void note_time(uint32_t *last_ms, uint32_t *last_delta_ms, uint32_t time_ms, bool is_first)
{
    *last_delta_ms = is_first ? 0 : time_ms - *last_ms;
    *last_ms = time_ms;
}

bool journal_add_frame(journal_group_t *group, const journal_frame_t *frame, const void *data)
{
    if (group->used_bytes + kJournalRecordBytes + kJournalSumBytes > kJournalGroupBytes) {
        return false;
    }
    const size_t track = frame->type == MUX_TYPE_AUDIO ? 1 : 0;
    const uint32_t bits =
        (track == 1 ? kRecordSound : 0u) | ((frame->flags & MUX_FRAME_KEY) != 0 ? kRecordSync : 0u);
    const uint32_t expected_ms = group->last_ms[track] + group->last_delta_ms[track];
    byte_writer out = {group->bytes + group->used_bytes};
    put_varint(&out, uint64_t{frame->bytes} << kRecordSizeShift | bits);
    put_varint(&out, zigzag(frame->time_ms - expected_ms));
    group->used_bytes = static_cast<uint32_t>(out.next - group->bytes);
    group->frames++;
    note_time(&group->last_ms[track], &group->last_delta_ms[track], frame->time_ms,
              group->last_ms[track] == 0);
    journal_sum_add(&group->media_sum, data, frame->bytes);
    return true;
}

uint32_t journal_end_group(journal_group_t *group)
{
    byte_writer header = {group->bytes};
    put_bytes(&header, kGroupTag, sizeof(kGroupTag));
    put_number(&header, group->used_bytes + kJournalSumBytes, 4);
    put_number(&header, group->frames, 4);
    put_number(&header, group->media_begin, 8);
    put_number(&header, journal_sum_end(&group->media_sum), 4);
    byte_writer sum = {group->bytes + group->used_bytes};
    put_number(&sum, sum_of(group->session, group->bytes, group->used_bytes), 4);
    return group->used_bytes + kJournalSumBytes;
}

static void begin_records(journal_group_reader_t *reader)
{
    reader->read_bytes = kJournalGroupHeaderBytes;
    reader->read_frames = 0;
    for (int i = 0; i < 2; i++) {
        reader->last_ms[i] = 0;
        reader->last_delta_ms[i] = 0;
    }
}

// The checksum does not protect from a journal that was made by hand.
static bool are_records_valid(journal_group_reader_t *reader)
{
    journal_frame_t frame;
    begin_records(reader);
    while (journal_next_frame(reader, &frame)) {
    }
    const bool are_valid = reader->read_frames == reader->frames &&
                           reader->read_bytes == reader->group_bytes - kJournalSumBytes;
    begin_records(reader);
    return are_valid;
}

journal_result_t journal_open_group(journal_group_reader_t *reader, const uint8_t *bytes,
                                    size_t count, uint64_t session)
{
    if (count < kJournalGroupHeaderBytes) {
        return kJournalEnded;
    }
    byte_reader in = {bytes + sizeof(kGroupTag), bytes + kJournalGroupHeaderBytes, false};
    *reader = {.bytes = bytes, .session = session};
    reader->group_bytes = take_u32(&in);
    reader->frames = take_u32(&in);
    reader->media_begin = take_number(&in, 8);
    reader->media_sum = take_u32(&in);
    if (memcmp(bytes, kGroupTag, sizeof(kGroupTag)) != 0 ||
        reader->group_bytes < kJournalGroupHeaderBytes + kJournalSumBytes ||
        reader->group_bytes > kJournalGroupBytes ||
        reader->media_begin > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
        return kJournalDamaged;
    }
    if (reader->group_bytes > count) {
        return kJournalEnded;
    }
    const uint32_t summed_bytes = reader->group_bytes - kJournalSumBytes;
    byte_reader sum = {bytes + summed_bytes, bytes + reader->group_bytes, false};
    if (take_u32(&sum) != sum_of(session, bytes, summed_bytes) || !are_records_valid(reader)) {
        return kJournalDamaged;
    }
    return kJournalRead;
}

bool journal_next_frame(journal_group_reader_t *reader, journal_frame_t *frame)
{
    byte_reader in = {reader->bytes + reader->read_bytes,
                      reader->bytes + reader->group_bytes - kJournalSumBytes, false};
    if (reader->read_frames == reader->frames || in.next == in.end) {
        return false;
    }
    const uint64_t size = take_varint(&in);
    const uint64_t time = take_varint(&in);
    if (in.has_failed || size >> kRecordSizeShift > INT32_MAX || time > UINT32_MAX) {
        return false;
    }
    const size_t track = (size & kRecordSound) != 0 ? 1 : 0;
    uint32_t *const last_ms = &reader->last_ms[track];
    uint32_t *const last_delta_ms = &reader->last_delta_ms[track];
    frame->type = track == 1 ? MUX_TYPE_AUDIO : MUX_TYPE_VIDEO;
    frame->bytes = static_cast<uint32_t>(size >> kRecordSizeShift);
    frame->flags = (size & kRecordSync) != 0 ? uint32_t{MUX_FRAME_KEY} : 0u;
    frame->time_ms = *last_ms + *last_delta_ms + unzigzag(static_cast<uint32_t>(time));
    note_time(last_ms, last_delta_ms, frame->time_ms, *last_ms == 0);
    reader->read_bytes = static_cast<uint32_t>(in.next - reader->bytes);
    reader->read_frames++;
    return true;
}
