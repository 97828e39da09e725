// A component in place of the recorder, controlled by environment variables. It takes every buffer
// and writes one line per call to the file SCRIPT_LOG.
// SCRIPT_FILE: copied to the output path at the start.
// SCRIPT_BUFFERS, SCRIPT_REASON: ends the recording after so many buffers, with this reason.
// SCRIPT_FAIL: the call that fails: init, start, empty, later (the 30th buffer); with stop, the end
// is never reported.
// SCRIPT_STALL: returns the 20th buffer this late (ms).
#include "component/tdmbrec_interface.h"
#include "platform/omx_il.h"

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

static OMX_CALLBACKTYPE callbacks;
static OMX_PTR app_data;
static int buffers_taken;
static bool recording;
static std::string record_path;

static std::string script(const char *name)
{
    const char *const text = std::getenv(name);
    return text != nullptr ? text : "";
}

static void note(const std::string &line)
{
    std::ofstream(script("SCRIPT_LOG"), std::ios::app) << line << '\n';
}

static void end_recording(OMX_HANDLETYPE component, OMX_U32 reason)
{
    recording = false;
    callbacks.EventHandler(component, app_data, TDMBREC_EVENT_END_OF_RECORDING, 0, reason, nullptr);
}

static OMX_ERRORTYPE send_command(OMX_HANDLETYPE component, OMX_COMMANDTYPE command,
                                  OMX_U32 parameter, OMX_PTR)
{
    note("state " + std::to_string(parameter));
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
    if (index == OMX_IndexParamAudioPcm) {
        const auto &format = *static_cast<OMX_AUDIO_PARAM_PCMMODETYPE *>(record);
        note("rate " + std::to_string(format.nSamplingRate));
    } else if (index == TDMBREC_INDEX_OUTPUT_PATH) {
        std::string path(static_cast<const char *>(record), TDMBREC_PATH_BYTES);
        path.erase(path.find_last_not_of('\0') + 1);
        note("path " + path); // with any byte that is not a padding zero
        record_path = path;
    } else if (index == TDMBREC_INDEX_START) {
        note("start");
        recording = true;
        if (!script("SCRIPT_FILE").empty()) {
            std::filesystem::copy_file(script("SCRIPT_FILE"), record_path);
        }
        return script("SCRIPT_FAIL") == "start" ? OMX_ErrorUndefined : OMX_ErrorNone;
    } else if (index == TDMBREC_INDEX_STOP) {
        note("stop");
        if (recording && script("SCRIPT_FAIL") != "stop") {
            end_recording(component, TDMBREC_STOP_CLIENT);
        }
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
    note("free");
    delete[] buffer->pBuffer;
    delete buffer;
    return OMX_ErrorNone;
}

static OMX_ERRORTYPE empty_buffer(OMX_HANDLETYPE component, OMX_BUFFERHEADERTYPE *buffer)
{
    const std::string fail = script("SCRIPT_FAIL");
    if (fail == "empty" || (fail == "later" && buffers_taken == 29)) {
        return OMX_ErrorUndefined;
    }
    note((buffer->nInputPortIndex == 0 ? "video " : "audio ") + std::to_string(buffer->nTimeStamp) +
         " " + std::to_string(buffer->nFilledLen) + " " + std::to_string(buffer->pBuffer[0]) + " " +
         std::to_string(buffer->pBuffer[4]));
    buffers_taken += recording ? 1 : 0;
    if (recording && std::to_string(buffers_taken) == script("SCRIPT_BUFFERS")) {
        end_recording(component, static_cast<OMX_U32>(std::stoi(script("SCRIPT_REASON"))));
    }
    buffer->nFilledLen = 0;
    if (buffers_taken == 20 && !script("SCRIPT_STALL").empty()) {
        const std::chrono::milliseconds stall(std::stoi(script("SCRIPT_STALL")));
        std::thread([component, buffer, stall] {
            std::this_thread::sleep_for(stall);
            callbacks.EmptyBufferDone(component, app_data, buffer);
        }).detach();
        return OMX_ErrorNone;
    }
    return callbacks.EmptyBufferDone(component, app_data, buffer);
}

OMX_ERRORTYPE omx_tdmbrec_component_Init(OMX_COMPONENTTYPE *handle)
{
    OMX_COMPONENTTYPE &component = *handle;
    component.pComponentPrivate = &callbacks;
    component.SendCommand = send_command;
    component.GetParameter = get_parameter;
    component.SetParameter = set_parameter;
    component.AllocateBuffer = allocate_buffer;
    component.FreeBuffer = free_buffer;
    component.EmptyThisBuffer = empty_buffer;
    component.SetCallbacks = [](OMX_HANDLETYPE, OMX_CALLBACKTYPE *client, OMX_PTR client_data) {
        callbacks = *client;
        app_data = client_data;
        return OMX_ErrorNone;
    };
    component.ComponentDeInit = [](OMX_HANDLETYPE) {
        note("gone");
        return OMX_ErrorNone;
    };
    return script("SCRIPT_FAIL") == "init" ? OMX_ErrorInsufficientResources : OMX_ErrorNone;
}
