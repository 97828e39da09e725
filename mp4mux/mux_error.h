// The error model: one record per context that keeps the first failure of an operation with its
// message; every level that passes the failure upward appends "<" and its own name.
#ifndef MP4MUX_MUX_ERROR_H
#define MP4MUX_MUX_ERROR_H

#include <cstdint>

inline constexpr int32_t kMaxMessageLength = 256;

struct mp4_mux_last_error_t {
    int32_t m_iCode;
    char m_szMessage[kMaxMessageLength + 1];
    int32_t m_iLength; // characters in use
    int64_t m_llAux;
};

// Stores a failure; a message beyond kMaxMessageLength is cut. Stores nothing without a message
// or a record.
// returns: code
int32_t mp4_mux_set_last_error(int32_t code, int64_t aux, const char *message,
                               mp4_mux_last_error_t *error);

// Appends a tag to the message as far as it fits.
// returns: the code in the record (0 when none is recorded); 0 without a tag, without a record, or
//          for a record whose length is out of range
int32_t mp4_mux_add_err_string(const char *tag, mp4_mux_last_error_t *error);

// Stores a failure without an auxiliary value.
// returns: code
int32_t fail(mp4_mux_last_error_t *error, int32_t code, const char *message);

// Appends a tag to a failure on its way up.
// returns: result
int32_t tag_failure(mp4_mux_last_error_t *error, const char *tag, int32_t result);

// Forgets the failure.
void mp4_mux_clear_last_error(mp4_mux_last_error_t *error);

// Reads the failure.
// out: *message: points into the record
void mp4_mux_get_last_error(const mp4_mux_last_error_t *error, int32_t *code, const char **message,
                            int64_t *aux);

#endif // MP4MUX_MUX_ERROR_H
