/* Encodes a WAV file of 16-bit samples, one or two channels, with the AAC-LC encoder alone. The
   result is an ADTS file: access units, each after a header of its own.

    gcc -std=c11 -Wall -Wextra -Wpedantic -I. -o build/release/bin/encode_only \
        examples/encode_only.c build/release/aacenc/libaacenc.a
    build/release/bin/encode_only samples/programme.wav sound.aac */
#include "aacenc/aac_enc.h"

#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { kWavHeaderBytes = 44, kBitRate = 128000 };

static void fail_if(bool is_wrong, const char *what)
{
    if (is_wrong) {
        fprintf(stderr, "encode_only: %s\n", what);
        exit(EXIT_FAILURE);
    }
}

static uint32_t read_le(const uint8_t *data, int bytes)
{
    return bytes == 0 ? 0 : data[0] | read_le(data + 1, bytes - 1) << 8;
}

// Encodes frames of the PCM until all of it is in the output. The encoder delays the sound by one
// frame, so that one frame of silence drives the last one out.
static void encode(void *encoder, AacEncAudioInfo *audio, AacEncStreamInfo *stream, FILE *wav,
                   FILE *output)
{
    bool has_pcm = true;
    while (has_pcm) {
        int16_t pcm[2 * AACENC_FRAME_SAMPLES] = {0}; // silence after the end
        const size_t pair_bytes = (size_t)stream->channels * sizeof pcm[0];
        has_pcm = fread(pcm, pair_bytes, AACENC_FRAME_SAMPLES, wav) > 0;
        audio->pcm = pcm;
        fail_if(QVR_AAC_ENC(AACENC_OP_ENCODE, &encoder, audio, stream) != AACENC_OK, "encoding");
        const size_t unit_bytes = (size_t)stream->outputBytes;
        fail_if(fwrite(stream->output, 1, unit_bytes, output) != unit_bytes, "writing");
    }
    fail_if(ferror(wav) != 0, "reading");
}

int main(int argc, char **argv)
{
    fail_if(argc != 3, "arguments: WAV-FILE ADTS-FILE");
    FILE *const wav = fopen(argv[1], "rb");
    FILE *const output = fopen(argv[2], "wb");
    fail_if(wav == NULL || output == NULL, "a file cannot be opened");
    uint8_t header[kWavHeaderBytes];
    fail_if(fread(header, 1, sizeof header, wav) != sizeof header ||
                memcmp(header + 36, "data", 4) != 0 || read_le(header + 34, 2) != 16,
            "not a WAV file of 16-bit samples with a header of 44 bytes");

    static const AacEncCallbacks callbacks = {malloc, free, memcpy, memset, realloc, memmove};
    uint8_t unit[AACENC_OUTPUT_BYTES];
    AacEncAudioInfo audio = {.sampleRate = (int32_t)read_le(header + 24, 4),
                             .channels = (int32_t)read_le(header + 22, 2),
                             .deinterleave = 1};
    AacEncStreamInfo stream = {.output = unit, .bitRate = kBitRate};
    AacEncInitParams params = {.audioInfo = &audio,
                               .streamInfo = &stream,
                               .callbacks = &callbacks,
                               .outputFormat = AACENC_FORMAT_ADTS};
    void *encoder = NULL;
    fail_if(QVR_AAC_ENC(AACENC_OP_INIT, &encoder, &params, NULL) != AACENC_OK,
            "the encoder takes one of its nine sampling rates, and one or two channels");
    encode(encoder, &audio, &stream, wav, output);
    fail_if(QVR_AAC_ENC(AACENC_OP_CLOSE, &encoder, NULL, NULL) != AACENC_OK, "closing");
    fail_if(fclose(output) != 0, "writing");
    fclose(wav);
    return EXIT_SUCCESS;
}
