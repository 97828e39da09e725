// The standard parameters.
#include "platform/host/omx_base_internal.h"

#include <cstring>

namespace {

// The first fields of every port parameter's record.
struct port_head_t {
    OMX_U32 nSize;
    OMX_VERSIONTYPE nVersion;
    OMX_U32 nPortIndex;
};

} // namespace

// Finds the domain of an index.
// returns: false for an index that names no domain
static bool find_domain(OMX_INDEXTYPE index, OMX_PORTDOMAINTYPE *domain)
{
    switch (index) {
    case OMX_IndexParamAudioInit:
        *domain = OMX_PortDomainAudio;
        return true;
    case OMX_IndexParamVideoInit:
        *domain = OMX_PortDomainVideo;
        return true;
    case OMX_IndexParamImageInit:
        *domain = OMX_PortDomainImage;
        return true;
    case OMX_IndexParamOtherInit:
        *domain = OMX_PortDomainOther;
        return true;
    default:
        return false;
    }
}

static OMX_ERRORTYPE get_domain(const omx_base_sink_PrivateType *sink, OMX_PORTDOMAINTYPE domain,
                                OMX_PORT_PARAM_TYPE *parameter)
{
    const OMX_ERRORTYPE error =
        omx_base_check_head(parameter->nSize, parameter->nVersion, sizeof(*parameter));
    if (error != OMX_ErrorNone) {
        return error;
    }
    parameter->nPorts = sink->astPortDomain[domain].nPorts;
    parameter->nStartPortNumber = sink->astPortDomain[domain].nStartPortNumber;
    return OMX_ErrorNone;
}

// returns: the size of a port parameter's record, or 0 for another index
static size_t port_parameter_size(OMX_INDEXTYPE index)
{
    switch (index) {
    case OMX_IndexParamPortDefinition:
        return sizeof(OMX_PARAM_PORTDEFINITIONTYPE);
    case OMX_IndexParamVideoPortFormat:
        return sizeof(OMX_VIDEO_PARAM_PORTFORMATTYPE);
    case OMX_IndexParamAudioPortFormat:
        return sizeof(OMX_AUDIO_PARAM_PORTFORMATTYPE);
    case OMX_IndexParamAudioPcm:
        return sizeof(OMX_AUDIO_PARAM_PCMMODETYPE);
    default:
        return 0;
    }
}

static bool index_fits_domain(OMX_INDEXTYPE index, OMX_PORTDOMAINTYPE domain)
{
    if (index == OMX_IndexParamVideoPortFormat) {
        return domain == OMX_PortDomainVideo;
    }
    return index == OMX_IndexParamPortDefinition || domain == OMX_PortDomainAudio;
}

// Finds the port that a record names.
// returns: OMX_ErrorNone, or an error when the record or the index is wrong
static OMX_ERRORTYPE find_port(const omx_base_sink_PrivateType *sink, OMX_INDEXTYPE index,
                               const void *parameter, omx_base_port_PrivateType **port)
{
    const size_t record_bytes = port_parameter_size(index);
    if (record_bytes == 0) {
        return OMX_ErrorUnsupportedIndex;
    }
    port_head_t head;
    memcpy(&head, parameter, sizeof(head));
    const OMX_ERRORTYPE error = omx_base_check_head(head.nSize, head.nVersion, record_bytes);
    if (error != OMX_ErrorNone) {
        return error;
    }
    *port = omx_base_port(sink, head.nPortIndex);
    return *port != nullptr && index_fits_domain(index, (*port)->pInternal->domain)
               ? OMX_ErrorNone
               : OMX_ErrorBadPortIndex;
}

namespace {

// The port that a parameter belongs to, or the domain when port is null.
struct parameter_target_t {
    omx_base_sink_PrivateType *sink;
    omx_base_port_PrivateType *port;
    OMX_PORTDOMAINTYPE domain;
};

} // namespace

static OMX_ERRORTYPE find_target(OMX_HANDLETYPE component, OMX_INDEXTYPE index,
                                 const void *parameter, parameter_target_t *target)
{
    const OMX_ERRORTYPE error = omx_base_find_valid_sink(component, &target->sink);
    if (error != OMX_ErrorNone) {
        return error;
    }
    if (parameter == nullptr) {
        return OMX_ErrorBadParameter;
    }
    return find_domain(index, &target->domain)
               ? OMX_ErrorNone
               : find_port(target->sink, index, parameter, &target->port);
}

static OMX_ERRORTYPE get_video_format(const omx_base_port_PrivateType *port,
                                      OMX_VIDEO_PARAM_PORTFORMATTYPE *format)
{
    if (format->nIndex != 0) {
        return OMX_ErrorNoMore;
    }
    // The port definition decides: a component for one coding sets it there.
    const OMX_VIDEO_PORTDEFINITIONTYPE &video = port->stPortDefinition.format.video;
    format->eCompressionFormat = video.eCompressionFormat;
    format->eColorFormat = video.eColorFormat;
    format->xFramerate = video.xFramerate;
    return OMX_ErrorNone;
}

static OMX_ERRORTYPE get_port_parameter_locked(omx_base_port_PrivateType *port, OMX_INDEXTYPE index,
                                               void *parameter)
{
    omx_base_audio_PortType *audio = reinterpret_cast<omx_base_audio_PortType *>(port);
    switch (index) {
    case OMX_IndexParamPortDefinition:
        *static_cast<OMX_PARAM_PORTDEFINITIONTYPE *>(parameter) = port->stPortDefinition;
        return OMX_ErrorNone;
    case OMX_IndexParamVideoPortFormat:
        return get_video_format(port, static_cast<OMX_VIDEO_PARAM_PORTFORMATTYPE *>(parameter));
    case OMX_IndexParamAudioPortFormat: {
        auto *format = static_cast<OMX_AUDIO_PARAM_PORTFORMATTYPE *>(parameter);
        if (format->nIndex != 0) {
            return OMX_ErrorNoMore;
        }
        format->eEncoding = audio->stAudioFormat.eEncoding;
        return OMX_ErrorNone;
    }
    default:
        *static_cast<OMX_AUDIO_PARAM_PCMMODETYPE *>(parameter) = audio->stPcmMode;
        return OMX_ErrorNone;
    }
}

OMX_ERRORTYPE omx_base_component_GetParameter(OMX_HANDLETYPE handle, OMX_INDEXTYPE index,
                                              OMX_PTR parameter)
{
    parameter_target_t target = {};
    OMX_ERRORTYPE error = find_target(handle, index, parameter, &target);
    if (error != OMX_ErrorNone) {
        return error;
    }
    if (target.port == nullptr) {
        return get_domain(target.sink, target.domain,
                          static_cast<OMX_PORT_PARAM_TYPE *>(parameter));
    }
    pthread_mutex_lock(&target.sink->pInternal->lock);
    error = get_port_parameter_locked(target.port, index, parameter);
    pthread_mutex_unlock(&target.sink->pInternal->lock);
    return error;
}

// Takes the buffer count and the format; the other fields are read-only. An audio port has one
// encoding; the client chooses the coding of a video port.
static OMX_ERRORTYPE set_definition(omx_base_port_PrivateType *port,
                                    const OMX_PARAM_PORTDEFINITIONTYPE *parameter)
{
    OMX_PARAM_PORTDEFINITIONTYPE &definition = port->stPortDefinition;
    if (parameter->eDir != definition.eDir || parameter->eDomain != definition.eDomain ||
        parameter->nBufferCountActual < definition.nBufferCountMin ||
        parameter->nBufferCountActual > QUEUE_CAPACITY) {
        return OMX_ErrorBadParameter;
    }
    if (parameter->nBufferCountActual != definition.nBufferCountActual &&
        port->pInternal->buffer_count != 0) {
        return OMX_ErrorIncorrectStateOperation;
    }
    const bool audio = port->pInternal->domain == OMX_PortDomainAudio;
    if (audio && parameter->format.audio.eEncoding != definition.format.audio.eEncoding) {
        return OMX_ErrorUnsupportedSetting;
    }
    definition.nBufferCountActual = parameter->nBufferCountActual;
    if (audio) {
        const OMX_STRING mime_type = definition.format.audio.cMIMEType;
        definition.format.audio = parameter->format.audio;
        definition.format.audio.cMIMEType = mime_type; // the client's text may not last
    } else {
        const OMX_STRING mime_type = definition.format.video.cMIMEType;
        definition.format.video = parameter->format.video;
        definition.format.video.cMIMEType = mime_type;
    }
    return OMX_ErrorNone;
}

static OMX_ERRORTYPE set_video_format(omx_base_port_PrivateType *port,
                                      const OMX_VIDEO_PARAM_PORTFORMATTYPE *format)
{
    omx_base_video_PortType *video = reinterpret_cast<omx_base_video_PortType *>(port);
    OMX_VIDEO_PORTDEFINITIONTYPE &definition = port->stPortDefinition.format.video;
    definition.eCompressionFormat = format->eCompressionFormat;
    definition.eColorFormat = format->eColorFormat;
    definition.xFramerate = format->xFramerate;
    video->stVideoFormat = *format;
    return OMX_ErrorNone;
}

static OMX_ERRORTYPE set_audio_format(omx_base_port_PrivateType *port,
                                      const OMX_AUDIO_PARAM_PORTFORMATTYPE *format)
{
    omx_base_audio_PortType *audio = reinterpret_cast<omx_base_audio_PortType *>(port);
    return format->eEncoding == audio->stAudioFormat.eEncoding ? OMX_ErrorNone
                                                               : OMX_ErrorUnsupportedSetting;
}

static OMX_ERRORTYPE set_port_parameter_locked(omx_base_sink_PrivateType *sink,
                                               omx_base_port_PrivateType *port, OMX_INDEXTYPE index,
                                               const void *parameter)
{
    const bool resting = omx_base_get_state(sink) == OMX_StateLoaded &&
                         omx_base_get_transient_state(sink) == OMX_TransStateNone &&
                         !omx_base_command_waits(sink, OMX_CommandStateSet, OMX_StateIdle);
    if (!resting && port->stPortDefinition.bEnabled) {
        return OMX_ErrorIncorrectStateOperation;
    }
    switch (index) {
    case OMX_IndexParamPortDefinition:
        return set_definition(port, static_cast<const OMX_PARAM_PORTDEFINITIONTYPE *>(parameter));
    case OMX_IndexParamVideoPortFormat:
        return set_video_format(port,
                                static_cast<const OMX_VIDEO_PARAM_PORTFORMATTYPE *>(parameter));
    case OMX_IndexParamAudioPortFormat:
        return set_audio_format(port,
                                static_cast<const OMX_AUDIO_PARAM_PORTFORMATTYPE *>(parameter));
    default:
        reinterpret_cast<omx_base_audio_PortType *>(port)->stPcmMode =
            *static_cast<const OMX_AUDIO_PARAM_PCMMODETYPE *>(parameter);
        return OMX_ErrorNone;
    }
}

OMX_ERRORTYPE omx_base_component_SetParameter(OMX_HANDLETYPE handle, OMX_INDEXTYPE index,
                                              OMX_PTR parameter)
{
    parameter_target_t target = {};
    OMX_ERRORTYPE error = find_target(handle, index, parameter, &target);
    if (error != OMX_ErrorNone) {
        return error;
    }
    if (target.port == nullptr) { // a client cannot change the number of ports
        return OMX_ErrorUnsupportedSetting;
    }
    pthread_mutex_lock(&target.sink->pInternal->lock);
    error = set_port_parameter_locked(target.sink, target.port, index, parameter);
    pthread_mutex_unlock(&target.sink->pInternal->lock);
    return error;
}
