#include "mp4mux/mux_error.h"

// Puts text after the first `length` characters of the message, as far as it fits.
static void append_text(mp4_mux_last_error_t *error, int32_t length, const char *text)
{
    while (*text != '\0' && length < kMaxMessageLength) {
        error->m_szMessage[length++] = *text++;
    }
    error->m_szMessage[length] = '\0';
    error->m_iLength = length;
}

int32_t mp4_mux_set_last_error(int32_t code, int64_t aux, const char *message,
                               mp4_mux_last_error_t *error)
{
    if (message == nullptr || error == nullptr) {
        return code;
    }
    error->m_iCode = code;
    error->m_llAux = aux;
    append_text(error, 0, message);
    return code;
}

int32_t mp4_mux_add_err_string(const char *tag, mp4_mux_last_error_t *error)
{
    if (tag == nullptr || error == nullptr || error->m_iLength < 0 ||
        error->m_iLength > kMaxMessageLength) {
        return 0;
    }
    append_text(error, error->m_iLength, tag);
    return error->m_iCode;
}

int32_t fail(mp4_mux_last_error_t *error, int32_t code, const char *message)
{
    return mp4_mux_set_last_error(code, 0, message, error);
}

int32_t tag_failure(mp4_mux_last_error_t *error, const char *tag, int32_t result)
{
    mp4_mux_add_err_string(tag, error);
    return result;
}

void mp4_mux_clear_last_error(mp4_mux_last_error_t *error)
{
    // Every frame clears the record, and nearly every frame finds it clear.
    if (error->m_iCode != 0 || error->m_iLength != 0 || error->m_llAux != 0) {
        *error = {};
    }
}

void mp4_mux_get_last_error(const mp4_mux_last_error_t *error, int32_t *code, const char **message,
                            int64_t *aux)
{
    *code = error->m_iCode;
    *message = error->m_szMessage;
    *aux = error->m_llAux;
}
