#include "component/losses.h"

#include "component/component_log.h"
#include "component/private_record.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <iterator>

static constexpr size_t kLineBytes = 1024;

namespace {

struct kind_text_t {
    const char *noun; // with an s when there are several
    const char *rest;
};

struct line_t {
    char text[kLineBytes];
    size_t used_bytes;
};

} // namespace

// clang-format off
static constexpr kind_text_t kKindTexts[] = { // by tdmbrec_loss_t
    {"picture",      "before the first parameter sets"},
    {"picture",      "at time 0"},
    {"picture",      "for lack of memory"},
    {"picture",      "refused by the muxer"},
    {"video buffer", "without an access unit"},
    {"parameter set", "not kept"},
    {"sound buffer", "before the first picture"},
    {"sound buffer", "with a time before the recording"},
    {"sound frame",  "before the first picture"},
    {"sound frame",  "not encoded"},
    {"sound frame",  "refused by the muxer"},
    {"failure",      "to open the audio encoder"},
    {"buffer",       "with a length beyond the allocation"},
    {"jump",         "back of the video clock"},
    {"jump",         "back of the audio clock"},
    {"time",         "beyond 32 bits of ms"},
};
// clang-format on
static_assert(std::size(kKindTexts) == kLossKinds);

__attribute__((format(printf, 2, 3))) static void append(line_t *line, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const size_t room_bytes = sizeof(line->text) - line->used_bytes;
    const int length = vsnprintf(line->text + line->used_bytes, room_bytes, format, arguments);
    va_end(arguments);
    if (length > 0) {
        line->used_bytes += std::min(static_cast<size_t>(length), room_bytes - 1);
    }
}

// Appends the kinds from `first` to before `last` whose count is not 0.
static void append_kinds(line_t *line, const tdmbrec_losses_t *losses, const char *title,
                         size_t first, size_t last)
{
    const char *before = title;
    for (size_t kind = first; kind < last; kind++) {
        const uint32_t count = losses->auiCount[kind];
        if (count > 0) {
            append(line, "%s%s%u %s%s %s", line->used_bytes > 0 && before == title ? "; " : "",
                   before, count, kKindTexts[kind].noun, count == 1 ? "" : "s",
                   kKindTexts[kind].rest);
            before = ", ";
        }
    }
}

void note_loss(omx_tdmbrec_component_PrivateType *self, tdmbrec_loss_t kind)
{
    uint32_t *const count = &self->stLosses.auiCount[kind];
    *count += *count < UINT32_MAX ? 1u : 0u;
}

void report_losses(omx_tdmbrec_component_PrivateType *self)
{
    line_t line = {};
    append_kinds(&line, &self->stLosses, "lost: ", 0, kRepairedVideoClock);
    append_kinds(&line, &self->stLosses, "repaired: ", kRepairedVideoClock, kLossKinds);
    if (line.used_bytes > 0) {
        __android_log_print(ANDROID_LOG_WARN, kLogTag, "%s\n", line.text);
    }
    self->stLosses = {};
}
