/* Records one programme through the OpenMAX IL core: H.264 with start codes, 30 pictures a second,
   and a WAV file of 16-bit stereo at 48,000 Hz. Exits with 0 only when the recording ended as it
   was asked to, with 10 plus the reason when it ended by itself.

  gcc -std=c11 -Wall -Wextra -Wpedantic -I. -o build/release/bin/minimal_player \
      examples/minimal_player.c build/release/client/libomx_core.a -lstdc++ -pthread \
      -Wl,-rpath,'$ORIGIN/../lib'
  build/release/bin/minimal_player samples/programme.h264 samples/programme.wav /mnt/sdcard/a.mp4 */
#include "component/tdmbrec_interface.h"

#include <semaphore.h>
#include <stdatomic.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { kPictureRate = 30, kSampleRate = 48000, kFrameSamples = 1024, kFrameBytes = 4096 };
enum { kFirstPicture_us = 1000000, kWavHeaderBytes = 44, kMostVideoBytes = 1 << 24, kNoEnd = -1 };

static OMX_HANDLETYPE recorder;
static OMX_BUFFERHEADERTYPE *buffers[TDMBREC_PORT_COUNT];
static sem_t replied, recording_ended;
static atomic_int end_reason = kNoEnd;

static void fail_if(bool is_wrong, const char *what)
{
    if (is_wrong) {
        fprintf(stderr, "minimal_player: %s\n", what);
        exit(EXIT_FAILURE);
    }
}

static OMX_ERRORTYPE take_event(OMX_HANDLETYPE component, OMX_PTR app_data, OMX_EVENTTYPE event,
                                OMX_U32 data1, OMX_U32 data2, OMX_PTR event_data)
{
    (void)component, (void)app_data, (void)data1, (void)event_data;
    fail_if(event == OMX_EventError, "the component has refused a command");
    if (event == TDMBREC_EVENT_END_OF_RECORDING) { // may come before the stop
        end_reason = (int)data2;
    }
    sem_post(event == TDMBREC_EVENT_END_OF_RECORDING ? &recording_ended : &replied);
    return OMX_ErrorNone;
}

static OMX_ERRORTYPE take_buffer(OMX_HANDLETYPE handle, OMX_PTR data, OMX_BUFFERHEADERTYPE *buffer)
{
    (void)handle, (void)data, (void)buffer;
    sem_post(&replied);
    return OMX_ErrorNone;
}

// Idle is reached when the buffers of both ports are allocated, Loaded when they are freed.
static void change_state(OMX_STATETYPE state)
{
    fail_if(OMX_SendCommand(recorder, OMX_CommandStateSet, state, NULL), "OMX_SendCommand");
    for (OMX_U32 i = 0; i < TDMBREC_PORT_COUNT; i++) {
        if (state == OMX_StateIdle && buffers[i] == NULL) {
            fail_if(OMX_AllocateBuffer(recorder, &buffers[i], i, NULL, TDMBREC_PORT_BUFFER_BYTES),
                    "OMX_AllocateBuffer");
        } else if (state == OMX_StateLoaded) {
            fail_if(OMX_FreeBuffer(recorder, i, buffers[i]), "OMX_FreeBuffer");
        }
    }
    sem_wait(&replied);
}

// Returns when the component has recorded the data, so that one buffer is enough for a port.
static void send_data(OMX_U32 port, const uint8_t *data, size_t bytes, OMX_TICKS ts_us)
{
    OMX_BUFFERHEADERTYPE *const buffer = buffers[port];
    fail_if(bytes > buffer->nAllocLen, "an access unit is larger than a buffer");
    memcpy(buffer->pBuffer, data, bytes);
    buffer->nFilledLen = (OMX_U32)bytes;
    buffer->nOffset = buffer->nFlags = 0;
    buffer->nTimeStamp = ts_us;
    fail_if(OMX_EmptyThisBuffer(recorder, buffer), "OMX_EmptyThisBuffer");
    sem_wait(&replied);
}

// returns: the length of the first access unit: the next one begins with a delimiter, parameter set
// or SEI after a slice, or with a slice whose first_mb_in_slice is 0, which is a bit of 1
static size_t access_unit_bytes(const uint8_t *data, size_t bytes)
{
    bool has_slice = false;
    for (size_t i = 3; i + 1 < bytes; i++) {
        const int type = memcmp(data + i - 3, "\0\0\1", 3) == 0 ? data[i] & 0x1F : 0;
        const bool is_slice = type == 1 || type == 5;
        if (has_slice && ((type >= 6 && type <= 9) || (is_slice && data[i + 1] >= 0x80))) {
            return i - 4; // the first start code of an access unit has four bytes
        }
        has_slice = has_slice || is_slice;
    }
    return bytes;
}

// The encoder delays the sound by one frame, and the file does not say so. Sound and pictures agree
// when the sound is sent from its second frame on, at its own times.
static void send_programme(const uint8_t *video, size_t video_bytes, FILE *sound)
{
    static const uint8_t delimiter[] = {0, 0, 0, 1, 9, 0xF0};
    send_data(TDMBREC_PORT_VIDEO, delimiter, sizeof delimiter, kFirstPicture_us - 33333);
    int64_t sample = kFrameSamples;
    fail_if(fseek(sound, kWavHeaderBytes + kFrameBytes, SEEK_SET) != 0, "the sound is not a file");
    for (int64_t i = 0; video_bytes > 0 && end_reason == kNoEnd; i++) {
        const size_t bytes = access_unit_bytes(video, video_bytes);
        send_data(TDMBREC_PORT_VIDEO, video, bytes, kFirstPicture_us + i * 1000000 / kPictureRate);
        video += bytes;
        video_bytes -= bytes;
        while (sample < (i + 1) * kSampleRate / kPictureRate + kFrameSamples) {
            uint8_t pcm[kFrameBytes] = {0}; // silence after the end of the sound
            fail_if(fread(pcm, 1, sizeof pcm, sound) < sizeof pcm && !feof(sound), "read error");
            const OMX_TICKS sound_us = kFirstPicture_us + sample * 1000000 / kSampleRate;
            send_data(TDMBREC_PORT_AUDIO, pcm, sizeof pcm, sound_us);
            sample += kFrameSamples;
        }
    }
}

int main(int argc, char **argv)
{
    static uint8_t video[kMostVideoBytes];
    char path[TDMBREC_PATH_BYTES] = "";
    fail_if(argc != 4 || strlen(argv[3]) >= sizeof path, "arguments: H264-FILE WAV-FILE OUTPUT");
    strcpy(path, argv[3]);
    FILE *const pictures = fopen(argv[1], "rb"), *const sound = fopen(argv[2], "rb");
    fail_if(pictures == NULL || sound == NULL, "an input cannot be opened");
    fail_if(sem_init(&replied, 0, 0) || sem_init(&recording_ended, 0, 0), "sem_init");
    OMX_CALLBACKTYPE callbacks = {take_event, take_buffer, NULL};
    fail_if(OMX_Init(), "OMX_Init");
    fail_if(OMX_GetHandle(&recorder, TDMBREC_COMPONENT_NAME, NULL, &callbacks), "OMX_GetHandle");
    for (OMX_U32 i = 0; i < TDMBREC_PORT_COUNT; i++) {
        OMX_PARAM_PORTDEFINITIONTYPE port = {.nSize = sizeof port, .nPortIndex = i};
        port.nVersion.nVersion = OMX_VERSION_1_1_2;
        fail_if(OMX_GetParameter(recorder, OMX_IndexParamPortDefinition, &port), "a port");
        port.nBufferCountActual = 1;
        fail_if(OMX_SetParameter(recorder, OMX_IndexParamPortDefinition, &port), "a port");
    }
    change_state(OMX_StateIdle);
    change_state(OMX_StateExecuting);
    fail_if(OMX_SetParameter(recorder, TDMBREC_INDEX_OUTPUT_PATH, path), "the path");
    fail_if(OMX_SetParameter(recorder, TDMBREC_INDEX_START, path), "the start");
    send_programme(video, fread(video, 1, sizeof video, pictures), sound);
    fail_if(OMX_SetParameter(recorder, TDMBREC_INDEX_STOP, path), "the stop");
    sem_wait(&recording_ended);
    change_state(OMX_StateIdle);
    change_state(OMX_StateLoaded);
    fail_if(OMX_FreeHandle(recorder) || OMX_Deinit() || fclose(pictures) || fclose(sound), "end");
    return end_reason == TDMBREC_STOP_CLIENT ? EXIT_SUCCESS : 10 + end_reason;
}
