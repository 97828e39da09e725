// A component in place of the recorder. It takes every buffer, writes one line about each call that
// matters to the file SCRIPT_LOG, and ends the recording with SCRIPT_REASON after SCRIPT_BUFFERS
// buffers, or when asked. SCRIPT_FAIL names the call that fails: init, start, empty.
#include "platform/omx_il.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

static constexpr OMX_EVENTTYPE EVENT_ENDED = static_cast<OMX_EVENTTYPE>(0x7F000005);

static OMX_CALLBACKTYPE callbacks;
static OMX_PTR app_data;
static long buffers_taken;
static bool recording;

__attribute__((format(printf, 1, 2))) static void note(const char *format, ...)
{
    const char *const path = std::getenv("SCRIPT_LOG");
    std::FILE *const log = path != nullptr ? std::fopen(path, "a") : nullptr;
    if (log == nullptr) {
        return;
    }
    __builtin_va_list values;
    __builtin_va_start(values, format);
    std::vfprintf(log, format, values);
    __builtin_va_end(values);
    std::fclose(log);
}

static bool fails(const char *call)
{
    const char *const failing = std::getenv("SCRIPT_FAIL");
    return failing != nullptr && std::strcmp(failing, call) == 0;
}

static long script_number(const char *name)
{
    const char *const text = std::getenv(name);
    return text != nullptr ? std::atol(text) : -1;
}

static void end_recording(OMX_HANDLETYPE component, uint32_t reason)
{
    recording = false;
    callbacks.EventHandler(component, app_data, EVENT_ENDED, 0, reason, nullptr);
}

static OMX_ERRORTYPE send_command(OMX_HANDLETYPE component, OMX_COMMANDTYPE command,
                                  OMX_U32 parameter, OMX_PTR)
{
    note("state %u\n", parameter);
    return callbacks.EventHandler(component, app_data, OMX_EventCmdComplete, command, parameter,
                                  nullptr);
}

static OMX_ERRORTYPE get_parameter(OMX_HANDLETYPE, OMX_INDEXTYPE, OMX_PTR record)
{
    OMX_PARAM_PORTDEFINITIONTYPE &port = *static_cast<OMX_PARAM_PORTDEFINITIONTYPE *>(record);
    port.nBufferCountMin = 1;
    port.nBufferSize = 0x4000;
    return OMX_ErrorNone;
}

static OMX_ERRORTYPE set_parameter(OMX_HANDLETYPE component, OMX_INDEXTYPE index, OMX_PTR record)
{
    switch (static_cast<uint32_t>(index)) {
    case OMX_IndexParamAudioPcm:
        note("rate %u\n", static_cast<OMX_AUDIO_PARAM_PCMMODETYPE *>(record)->nSamplingRate);
        break;
    case 0x7F00002C: {
        const char *const path = static_cast<const char *>(record);
        bool padded = true;
        for (size_t i = std::strlen(path); i < 128; i++) {
            padded = padded && path[i] == '\0';
        }
        note("path %s%s\n", path, padded ? "" : " (not padded)");
        break;
    }
    case 0x7F00002D:
        note("start\n");
        recording = true;
        return fails("start") ? OMX_ErrorUndefined : OMX_ErrorNone;
    case 0x7F00002E:
        note("stop\n");
        if (recording) {
            end_recording(component, 1);
        }
        break;
    default:
        break;
    }
    return OMX_ErrorNone;
}

static OMX_ERRORTYPE allocate_buffer(OMX_HANDLETYPE, OMX_BUFFERHEADERTYPE **header, OMX_U32 port,
                                     OMX_PTR, OMX_U32 bytes)
{
    *header = new OMX_BUFFERHEADERTYPE{};
    (*header)->pBuffer = new OMX_U8[bytes];
    (*header)->nAllocLen = bytes;
    (*header)->nInputPortIndex = port;
    return OMX_ErrorNone;
}

static OMX_ERRORTYPE free_buffer(OMX_HANDLETYPE, OMX_U32, OMX_BUFFERHEADERTYPE *buffer)
{
    note("free\n");
    delete[] buffer->pBuffer;
    delete buffer;
    return OMX_ErrorNone;
}

static OMX_ERRORTYPE empty_buffer(OMX_HANDLETYPE component, OMX_BUFFERHEADERTYPE *buffer)
{
    if (fails("empty")) {
        return OMX_ErrorUndefined;
    }
    note("%s %" PRId64 " %u %02x%02x\n", buffer->nInputPortIndex == 0 ? "video" : "audio",
         buffer->nTimeStamp, buffer->nFilledLen, buffer->pBuffer[0], buffer->pBuffer[4]);
    if (recording && ++buffers_taken == script_number("SCRIPT_BUFFERS")) {
        end_recording(component, static_cast<uint32_t>(script_number("SCRIPT_REASON")));
    }
    buffer->nFilledLen = 0;
    return callbacks.EmptyBufferDone(component, app_data, buffer);
}

static OMX_ERRORTYPE set_callbacks(OMX_HANDLETYPE, OMX_CALLBACKTYPE *client, OMX_PTR client_data)
{
    callbacks = *client;
    app_data = client_data;
    return OMX_ErrorNone;
}

static OMX_ERRORTYPE de_init(OMX_HANDLETYPE)
{
    note("gone\n");
    return OMX_ErrorNone;
}

extern "C" __attribute__((visibility("default"))) OMX_ERRORTYPE
omx_tdmbrec_component_Init(OMX_HANDLETYPE handle)
{
    OMX_COMPONENTTYPE &component = *static_cast<OMX_COMPONENTTYPE *>(handle);
    component.pComponentPrivate = &callbacks;
    component.SendCommand = send_command;
    component.GetParameter = get_parameter;
    component.SetParameter = set_parameter;
    component.AllocateBuffer = allocate_buffer;
    component.FreeBuffer = free_buffer;
    component.EmptyThisBuffer = empty_buffer;
    component.SetCallbacks = set_callbacks;
    component.ComponentDeInit = de_init;
    return fails("init") ? OMX_ErrorInsufficientResources : OMX_ErrorNone;
}
