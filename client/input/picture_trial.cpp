#include "client/input/picture_trial.h"

#include "client/input/av_ptr.h"
#include "client/input/nal_unit.h"

#include <algorithm>

extern "C" {
#include <libavutil/log.h>
}

static size_t complaint_count; // the decoder uses this thread only

static void count_complaint(void *, int level, const char *, va_list)
{
    complaint_count += level <= AV_LOG_ERROR ? 1u : 0u;
}

struct trial {
    codec_ptr codec;
    packet_ptr packet;
    frame_ptr frame;
    size_t errors = 0;
    size_t outputs = 0;
};

static bool open_trial(trial &self)
{
    const AVCodec *const decoder = avcodec_find_decoder(AV_CODEC_ID_H264);
    self.codec.reset(avcodec_alloc_context3(decoder));
    self.packet.reset(av_packet_alloc());
    self.frame.reset(av_frame_alloc());
    if (decoder == nullptr || self.codec == nullptr || self.packet == nullptr ||
        self.frame == nullptr) {
        return false;
    }
    self.codec->thread_count = 1;
    self.codec->err_recognition = AV_EF_EXPLODE;
    return avcodec_open2(self.codec.get(), decoder, nullptr) >= 0;
}

static void take_outputs(trial &self)
{
    for (;;) {
        const int error = avcodec_receive_frame(self.codec.get(), self.frame.get());
        if (error == AVERROR(EAGAIN) || error == AVERROR_EOF) {
            return;
        }
        if (error != 0) {
            self.errors++;
            return;
        }
        self.outputs++;
        const bool is_damaged =
            self.frame->decode_error_flags != 0 || (self.frame->flags & AV_FRAME_FLAG_CORRUPT) != 0;
        self.errors += is_damaged ? 1u : 0u;
    }
}

// Decodes one picture in start-code form.
static void decode(trial &self, const std::vector<uint8_t> &unit)
{
    if (av_new_packet(self.packet.get(), static_cast<int>(unit.size())) < 0) {
        self.errors++;
        return;
    }
    std::copy(unit.begin(), unit.end(), self.packet->data);
    self.errors += avcodec_send_packet(self.codec.get(), self.packet.get()) < 0 ? 1u : 0u;
    av_packet_unref(self.packet.get());
    take_outputs(self);
}

static void decode_all(trial &self, std::span<const uint8_t> sets,
                       std::span<const std::vector<uint8_t>> pictures)
{
    static constexpr uint8_t kStartCode[4] = {0, 0, 0, 1};
    std::vector<uint8_t> unit(sets.begin(), sets.end());
    for (const std::vector<uint8_t> &picture : pictures) {
        std::vector<std::span<const uint8_t>> nals;
        self.errors += nal_split_by_lengths(picture, sizeof kStartCode, nals) ? 0u : 1u;
        for (const std::span<const uint8_t> nal : nals) {
            unit.insert(unit.end(), std::begin(kStartCode), std::end(kStartCode));
            unit.insert(unit.end(), nal.begin(), nal.end());
        }
        decode(self, unit);
        unit.clear();
    }
    if (avcodec_send_packet(self.codec.get(), nullptr) >= 0) {
        take_outputs(self);
    }
}

trial_verdict picture_trial_run(std::span<const uint8_t> sets,
                                std::span<const std::vector<uint8_t>> pictures)
{
    av_log_set_callback(count_complaint);
    complaint_count = 0;
    trial self;
    trial_verdict verdict = {.is_judged = open_trial(self), .pictures = pictures.size()};
    if (verdict.is_judged) {
        decode_all(self, sets, pictures);
        const size_t missing = pictures.size() - std::min(pictures.size(), self.outputs);
        verdict.damaged = std::min(pictures.size(), std::max(self.errors, missing));
        verdict.complaints = complaint_count;
    }
    av_log_set_callback(av_log_default_callback);
    return verdict;
}
