// The port classes.
#include "platform/host/control_internal.h"
#include "platform/host/omx_base_internal.h"
#include "platform/qvr_memory.h"

static char video_mime_type[] = "video/raw";
static char audio_mime_type[] = "audio/raw";

OMX_U32 omx_base_port_count(const omx_base_sink_PrivateType *sink)
{
    OMX_U32 count = 0;
    for (const OMX_PORT_PARAM_TYPE &domain : sink->astPortDomain) {
        count += domain.nPorts;
    }
    return count;
}

omx_base_port_PrivateType *omx_base_port(const omx_base_sink_PrivateType *sink, OMX_U32 port_index)
{
    if (sink->ppPorts == nullptr || port_index >= omx_base_port_count(sink)) {
        return nullptr;
    }
    omx_base_port_PrivateType *port = sink->ppPorts[port_index];
    return port != nullptr && port->pInternal != nullptr ? port : nullptr;
}

bool omx_base_ports_populated(const omx_base_sink_PrivateType *sink)
{
    bool populated = true;
    omx_base_for_ports(sink, OMX_ALL, [&](const omx_base_port_PrivateType *port) {
        const OMX_PARAM_PORTDEFINITIONTYPE &definition = port->stPortDefinition;
        populated = populated && (!definition.bEnabled || definition.bPopulated);
    });
    return populated;
}

bool omx_base_ports_empty(const omx_base_sink_PrivateType *sink)
{
    bool empty = true;
    omx_base_for_ports(sink, OMX_ALL, [&](const omx_base_port_PrivateType *port) {
        empty = empty && port->pInternal->buffer_count == 0;
    });
    return empty;
}

void omx_base_release_port(omx_base_port_PrivateType *port)
{
    omx_base_port_internal_t *internal = port->pInternal;
    if (internal == nullptr) {
        return;
    }
    omx_base_free_buffers(port);
    if (internal->sem_ready) {
        tsem_deinit(port->pBufferSem);
    }
    if (internal->queue_ready) {
        queue_deinit(port->pBufferQueue);
    }
    QVR_free(port->pBufferSem);
    QVR_free(port->pBufferQueue);
    QVR_free(internal);
    port->pBufferSem = nullptr;
    port->pBufferQueue = nullptr;
    port->pInternal = nullptr;
}

static OMX_ERRORTYPE acquire_port(omx_base_port_PrivateType *port)
{
    port->pInternal =
        static_cast<omx_base_port_internal_t *>(QVR_calloc(1, sizeof(omx_base_port_internal_t)));
    if (port->pInternal == nullptr) {
        return OMX_ErrorInsufficientResources;
    }
    port->pBufferQueue = static_cast<queue_t *>(QVR_calloc(1, sizeof(queue_t)));
    port->pBufferSem = static_cast<tsem_t *>(QVR_calloc(1, sizeof(tsem_t)));
    if (port->pBufferQueue == nullptr || port->pBufferSem == nullptr) {
        return OMX_ErrorInsufficientResources;
    }
    port->pInternal->queue_ready = queue_init(port->pBufferQueue) == 0;
    port->pInternal->sem_ready = tsem_init(port->pBufferSem, 0) == 0;
    return port->pInternal->queue_ready && port->pInternal->sem_ready
               ? OMX_ErrorNone
               : OMX_ErrorInsufficientResources;
}

static OMX_ERRORTYPE build_port(OMX_COMPONENTTYPE *component, omx_base_port_PrivateType *port,
                                OMX_U32 port_index, OMX_BOOL is_input, OMX_PORTDOMAINTYPE domain)
{
    const OMX_ERRORTYPE error = acquire_port(port);
    if (error != OMX_ErrorNone) {
        omx_base_release_port(port);
        return error;
    }
    port->pComponent = component;
    port->pfnReturnBuffer = omx_base_return_buffer;
    port->pInternal->index = port_index;
    port->pInternal->domain = domain;
    port->stPortDefinition = {
        .nSize = sizeof(port->stPortDefinition),
        .nVersion = {.nVersion = OMX_VERSION_1_1_2},
        .nPortIndex = port_index,
        .eDir = is_input ? OMX_DirInput : OMX_DirOutput,
        .nBufferCountActual = kBufferCount,
        .nBufferCountMin = kBufferCountMin,
        .bEnabled = OMX_TRUE,
        .eDomain = domain,
    };
    return OMX_ErrorNone;
}

static bool port_arguments_valid(const OMX_COMPONENTTYPE *component,
                                 omx_base_port_PrivateType *const *port)
{
    return component != nullptr && component->pComponentPrivate != nullptr && port != nullptr &&
           *port != nullptr && (*port)->pInternal == nullptr;
}

static OMX_ERRORTYPE construct_port(OMX_COMPONENTTYPE *component, omx_base_port_PrivateType **port,
                                    OMX_U32 port_index, OMX_BOOL is_input,
                                    OMX_PORTDOMAINTYPE domain)
{
    if (!port_arguments_valid(component, port)) {
        return OMX_ErrorBadParameter;
    }
    if (host_call_fails(domain == OMX_PortDomainVideo ? kHostCallVideoPortConstructor
                                                      : kHostCallAudioPortConstructor)) {
        return OMX_ErrorInsufficientResources;
    }
    return build_port(component, *port, port_index, is_input, domain);
}

OMX_ERRORTYPE base_video_port_Constructor(OMX_COMPONENTTYPE *component,
                                          omx_base_port_PrivateType **port, OMX_U32 port_index,
                                          OMX_BOOL is_input)
{
    const OMX_ERRORTYPE error =
        construct_port(component, port, port_index, is_input, OMX_PortDomainVideo);
    if (error != OMX_ErrorNone) {
        return error;
    }
    omx_base_video_PortType *video = reinterpret_cast<omx_base_video_PortType *>(*port);
    video->stBase.stPortDefinition.format.video = {
        .cMIMEType = video_mime_type,
        .eCompressionFormat = OMX_VIDEO_CodingUnused,
        .eColorFormat = OMX_COLOR_FormatUnused,
    };
    video->stVideoFormat = {
        .nSize = sizeof(video->stVideoFormat),
        .nVersion = {.nVersion = OMX_VERSION_1_1_2},
        .nPortIndex = port_index,
        .eCompressionFormat = OMX_VIDEO_CodingUnused,
        .eColorFormat = OMX_COLOR_FormatUnused,
    };
    return OMX_ErrorNone;
}

OMX_ERRORTYPE base_audio_port_Constructor(OMX_COMPONENTTYPE *component,
                                          omx_base_port_PrivateType **port, OMX_U32 port_index,
                                          OMX_BOOL is_input)
{
    const OMX_ERRORTYPE error =
        construct_port(component, port, port_index, is_input, OMX_PortDomainAudio);
    if (error != OMX_ErrorNone) {
        return error;
    }
    omx_base_audio_PortType *audio = reinterpret_cast<omx_base_audio_PortType *>(*port);
    audio->stBase.stPortDefinition.format.audio = {
        .cMIMEType = audio_mime_type,
        .eEncoding = OMX_AUDIO_CodingUnused,
    };
    audio->stAudioFormat = {
        .nSize = sizeof(audio->stAudioFormat),
        .nVersion = {.nVersion = OMX_VERSION_1_1_2},
        .nPortIndex = port_index,
        .eEncoding = OMX_AUDIO_CodingUnused,
    };
    audio->stPcmMode = {
        .nSize = sizeof(audio->stPcmMode),
        .nVersion = {.nVersion = OMX_VERSION_1_1_2},
        .nPortIndex = port_index,
        .nChannels = 2,
        .eNumData = OMX_NumericalDataSigned,
        .eEndian = OMX_EndianLittle,
        .bInterleaved = OMX_TRUE,
        .nBitPerSample = 16,
        .nSamplingRate = 48000,
        .ePCMMode = OMX_AUDIO_PCMModeLinear,
        .eChannelMapping = {OMX_AUDIO_ChannelLF, OMX_AUDIO_ChannelRF},
    };
    return OMX_ErrorNone;
}
