// The head of the file: everything before the media data.
#ifndef MP4MUX_FILE_HEAD_H
#define MP4MUX_FILE_HEAD_H

#include "mp4mux/box_writer.h"
#include "mp4mux/mux_context.h"

#include <cstdint>

inline constexpr uint32_t kFreeBoxBytes = kBoxHeaderBytes; // it is empty
inline constexpr uint32_t kMdatHeaderBytes = kBoxHeaderBytes;

// Writes the file-type box, the caller's boxes, a free box and the media-data header, and
// estimates the size of the movie box.
// returns: 0; failures are in the error record
// source: ISO/IEC 14496-12, 4.3, 8.1.1, 8.1.2
int32_t mp4_mux_open(mp4_mux_t *mux);

#endif // MP4MUX_FILE_HEAD_H
