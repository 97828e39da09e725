// The frames of ADTS sound from a broadcast that loses packets. After a hole, a demuxer may take
// bytes within a frame for the header of a long one, and everything that this seems to hold for a
// single packet. The frames in it are found again by the header that all frames of a stream share.
#ifndef CLIENT_INPUT_ADTS_FRAMES_H
#define CLIENT_INPUT_ADTS_FRAMES_H

#include "client/input/av_ptr.h"

#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <optional>

struct adts_frames {
    std::function<packet_ptr(void)> source; // returns null at the end; throws; 33-bit time stamps
    AVRational time_base = {1, 1};
    std::optional<uint32_t> head; // the part of the header that does not change
    packet_ptr held; // the last frame: one with a hole seems whole until the next packet
    std::deque<packet_ptr> ready;
    bool ended = false;
    std::exception_ptr fault; // of the source, for the call after the last packet
};

// returns: the next packet, which holds one frame; null at the end. Bytes that belong to no whole
//          frame are left out.
// throws: what the source has thrown
packet_ptr adts_frames_read(adts_frames &frames);

#endif // CLIENT_INPUT_ADTS_FRAMES_H
