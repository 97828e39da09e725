// The muxer's version, which callers can query and every file holds.
#ifndef MP4MUX_MUX_VERSION_H
#define MP4MUX_MUX_VERSION_H

#include "mp4mux/mp4_mux.h"

// Fixed texts: the same input gives the same file, whenever the library is built.
inline constexpr char kMuxVersion[] = "QVR_MP4_MUX 1.00";
inline constexpr char kMuxBuildDate[] = "20261124";

static_assert(sizeof(kMuxVersion) == MUX_VERSION_LENGTH + 1);
static_assert(sizeof(kMuxBuildDate) == MUX_BUILD_DATE_LENGTH + 1);

#endif // MP4MUX_MUX_VERSION_H
