// libavformat as a muxer of the same frames into a null sink, and as a reader of finished files.
#ifndef BENCH_AV_MUX_H
#define BENCH_AV_MUX_H

#include "mp4mux/mp4_mux.h"

#include <cstdint>

// Keeps libavformat from writing to the terminal.
void av_mux_silence();

// returns: a context for the frames of frame_source, or null
// owns: av_mux_close releases the context
void *av_mux_open();
// in: owned: the packet has its own copy of the bytes
bool av_mux_write(void *context, const mp4_mux_putstream_t &frame, bool owned);
bool av_mux_close(void *context);

// The number of frames that a demuxer finds in a file.
uint32_t av_count_frames(const char *name);

#endif // BENCH_AV_MUX_H
