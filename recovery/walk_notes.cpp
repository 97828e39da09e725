#include "recovery/walk_notes.h"

#include <algorithm>
#include <cstdio>

static constexpr uint32_t kKindShift = 27;
static constexpr uint32_t kMostBytes = (1U << kKindShift) - 1;
static_assert(kLongestFrameBytes <= kMostBytes);

namespace {

enum note_kind : uint32_t {
    kNoteEnd,
    kNoteSkipped, // bytes before the next frame, or some of them
    kNoteSound,
    kNotePicture,
    kNoteSyncPicture
};

} // namespace

static bool open_file(walk_notes *notes)
{
    const mp4_mux_init_t *const files = notes->files;
    if (files == nullptr || files->m_pfnRemove == nullptr) {
        return false;
    }
    const char *const folder = files->m_pszTempDir != nullptr ? files->m_pszTempDir : "";
    const int length = snprintf(notes->file_name, sizeof(notes->file_name), "%s%swalk.tmp", folder,
                                *folder != '\0' ? "/" : "");
    if (length < 0 || static_cast<size_t>(length) >= sizeof(notes->file_name)) {
        return false;
    }
    notes->file = files->m_pfnFopen(notes->file_name, "wb+");
    return notes->file != nullptr;
}

// returns: false when the notes cannot be kept
static bool flush(walk_notes *notes)
{
    const size_t bytes = notes->used_words * sizeof(notes->words[0]);
    notes->used_words = 0;
    return (notes->file != nullptr || open_file(notes)) &&
           notes->files->m_pfnFwrite(notes->words, 1, bytes, notes->file) == bytes;
}

static void add_word(walk_notes *notes, note_kind kind, uint32_t bytes)
{
    if (notes->is_noted && notes->used_words == kWalkNoteWords) {
        notes->is_noted = flush(notes);
    }
    if (notes->is_noted) {
        notes->words[notes->used_words++] = kind << kKindShift | bytes;
    }
}

// returns: the end of a walk when there are no more
static uint32_t next_word(walk_notes *notes)
{
    if (notes->read_words == notes->used_words && notes->file != nullptr) {
        const size_t bytes =
            notes->files->m_pfnFread(notes->words, 1, sizeof(notes->words), notes->file);
        notes->used_words = static_cast<uint32_t>(bytes / sizeof(notes->words[0]));
        notes->read_words = 0;
    }
    return notes->read_words < notes->used_words ? notes->words[notes->read_words++]
                                                 : uint32_t{kNoteEnd};
}

void walk_notes_begin(walk_notes *notes)
{
    walk_notes_close(notes);
    notes->is_noted = true;
    notes->is_replayed = false;
    notes->used_words = 0;
}

void walk_notes_add(walk_notes *notes, const walked_frame *frame)
{
    if (frame == nullptr) {
        add_word(notes, kNoteEnd, 0);
        return;
    }
    for (int64_t left = frame->skipped_bytes; left > 0; left -= kMostBytes) {
        add_word(notes, kNoteSkipped, static_cast<uint32_t>(std::min<int64_t>(left, kMostBytes)));
    }
    const note_kind kind = frame->type == MUX_TYPE_AUDIO ? kNoteSound
                           : frame->is_sync              ? kNoteSyncPicture
                                                         : kNotePicture;
    add_word(notes, kind, static_cast<uint32_t>(frame->size));
}

void walk_notes_rewind(walk_notes *notes)
{
    notes->read_words = 0;
    if (notes->is_noted && notes->file != nullptr) {
        notes->is_noted = flush(notes) && notes->files->m_pfnFseek(notes->file, 0, SEEK_SET) == 0;
    }
    notes->is_replayed = notes->is_noted;
}

bool walk_notes_next(walk_notes *notes, int64_t offset, walked_frame *frame)
{
    *frame = {};
    uint32_t word = next_word(notes);
    for (; word >> kKindShift == kNoteSkipped; word = next_word(notes)) {
        frame->skipped_bytes += word & kMostBytes;
    }
    const uint32_t kind = word >> kKindShift;
    frame->type = kind == kNoteSound ? MUX_TYPE_AUDIO : MUX_TYPE_VIDEO;
    frame->is_sync = kind == kNoteSyncPicture;
    frame->offset = offset + frame->skipped_bytes;
    frame->size = static_cast<int32_t>(word & kMostBytes);
    return kind != kNoteEnd;
}

void walk_notes_close(walk_notes *notes)
{
    if (notes->file != nullptr) {
        (void)notes->files->m_pfnFclose(notes->file);
        (void)notes->files->m_pfnRemove(notes->file_name);
        notes->file = nullptr;
    }
    notes->is_noted = false;
}
