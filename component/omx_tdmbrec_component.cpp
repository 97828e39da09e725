#include "component/omx_tdmbrec_component.h"

#include "component/end_reports.h"
#include "component/mux_session.h"
#include "component/name_parts.h"
#include "component/output_path.h"
#include "component/private_record.h"
#include "component/recording_begin.h"
#include "component/recording_end.h"
#include "component/shared_fields.h"
#include "component/time_line.h"
#include "platform/qvr_memory.h"

#include <cstring>

static constexpr char kVideoDecoderName[] = "OMX.qvr.video_decoder";
static constexpr char kAvcDecoderName[] = "OMX.QVR.avcdec";

static constexpr uint32_t kChannels = 2;
static constexpr uint32_t kSampleRate = 48000; // Hz
static constexpr uint32_t kBitsPerSample = 16;

// The allocation has cleared the others.
static void set_initial_fields(omx_tdmbrec_component_PrivateType *self)
{
    self->bCallbackIdle = 1;
    reset_mux_session(self);
    reset_time_line(self);
}

static void set_port_domains(omx_base_sink_PrivateType *sink)
{
    sink->astPortDomain[OMX_PortDomainAudio].nPorts = 1;
    sink->astPortDomain[OMX_PortDomainAudio].nStartPortNumber = TDMBREC_PORT_AUDIO;
    sink->astPortDomain[OMX_PortDomainVideo].nPorts = 1;
    sink->astPortDomain[OMX_PortDomainVideo].nStartPortNumber = TDMBREC_PORT_VIDEO;
}

// What is allocated stays attached; the base destructor frees it.
static OMX_ERRORTYPE allocate_ports(omx_base_sink_PrivateType *sink)
{
    if (sink->ppPorts != nullptr) {
        return OMX_ErrorNone;
    }
    sink->ppPorts = static_cast<omx_base_port_PrivateType **>(
        QVR_calloc(TDMBREC_PORT_COUNT, sizeof(omx_base_port_PrivateType *)));
    if (sink->ppPorts == nullptr) {
        return OMX_ErrorInsufficientResources;
    }
    sink->ppPorts[TDMBREC_PORT_VIDEO] =
        static_cast<omx_base_port_PrivateType *>(QVR_calloc(1, sizeof(omx_base_video_PortType)));
    sink->ppPorts[TDMBREC_PORT_AUDIO] =
        static_cast<omx_base_port_PrivateType *>(QVR_calloc(1, sizeof(omx_base_audio_PortType)));
    if (sink->ppPorts[TDMBREC_PORT_VIDEO] == nullptr ||
        sink->ppPorts[TDMBREC_PORT_AUDIO] == nullptr) {
        return OMX_ErrorInsufficientResources;
    }
    return OMX_ErrorNone;
}

static void describe_video_port(omx_base_port_PrivateType *port)
{
    OMX_PARAM_PORTDEFINITIONTYPE *const definition = &port->stPortDefinition;
    definition->format.video.nFrameWidth = TDMBREC_PICTURE_WIDTH;
    definition->format.video.nFrameHeight = TDMBREC_PICTURE_HEIGHT;
    definition->format.video.xFramerate = kFramesPerSecond; // not Q16, unlike the field
    definition->nBufferSize = TDMBREC_PORT_BUFFER_BYTES;
}

static void describe_audio_port(omx_base_port_PrivateType *port)
{
    omx_base_audio_PortType *const audio_port = reinterpret_cast<omx_base_audio_PortType *>(port);
    port->stPortDefinition.format.audio.eEncoding = OMX_AUDIO_CodingPCM;
    port->stPortDefinition.nBufferSize = TDMBREC_PORT_BUFFER_BYTES;
    audio_port->stAudioFormat.nPortIndex = TDMBREC_PORT_AUDIO;
    audio_port->stAudioFormat.eEncoding = OMX_AUDIO_CodingPCM;
}

static OMX_ERRORTYPE construct_ports(OMX_COMPONENTTYPE *component)
{
    omx_base_sink_PrivateType *const sink = &private_record(component)->stBase;
    OMX_ERRORTYPE result = allocate_ports(sink);
    if (result == OMX_ErrorNone) {
        result = base_video_port_Constructor(component, &sink->ppPorts[TDMBREC_PORT_VIDEO],
                                             TDMBREC_PORT_VIDEO, OMX_TRUE);
    }
    if (result == OMX_ErrorNone) {
        result = base_audio_port_Constructor(component, &sink->ppPorts[TDMBREC_PORT_AUDIO],
                                             TDMBREC_PORT_AUDIO, OMX_TRUE);
    }
    if (result == OMX_ErrorNone) {
        describe_video_port(sink->ppPorts[TDMBREC_PORT_VIDEO]);
        describe_audio_port(sink->ppPorts[TDMBREC_PORT_AUDIO]);
    }
    return result;
}

static void set_audio_defaults(omx_tdmbrec_component_PrivateType *self)
{
    self->uiChannels = kChannels;
    self->uiSampleRate = kSampleRate;
    self->uiBitsPerSample = kBitsPerSample;
    self->uiAudioCodecTag = MUX_AUDIO_AAC;
    self->uiBitRate = TDMBREC_AUDIO_BIT_RATE;
}

static OMX_ERRORTYPE select_video_coding(omx_tdmbrec_component_PrivateType *self, const char *name)
{
    if (strcmp(name, kAvcDecoderName) == 0) {
        self->uiVideoCoding = OMX_VIDEO_CodingAVC;
    } else if (strcmp(name, kVideoDecoderName) == 0 || strcmp(name, TDMBREC_COMPONENT_NAME) == 0) {
        self->uiVideoCoding = OMX_VIDEO_CodingUnused;
    } else {
        return OMX_ErrorInvalidComponentName;
    }
    return OMX_ErrorNone;
}

static void set_video_coding(omx_tdmbrec_component_PrivateType *self)
{
    if (self->uiVideoCoding == OMX_VIDEO_CodingAVC) {
        self->stBase.ppPorts[TDMBREC_PORT_VIDEO]->stPortDefinition.format.video.eCompressionFormat =
            OMX_VIDEO_CodingAVC;
    }
}

static void install_functions(OMX_COMPONENTTYPE *component)
{
    component->GetParameter = omx_tdmbrec_component_GetParameter;
    component->SetParameter = omx_tdmbrec_component_SetParameter;
    component->SetConfig = omx_tdmbrec_component_SetConfig;
    component->GetExtensionIndex = omx_tdmbrec_component_GetExtensionIndex;
    component->ComponentRoleEnum = omx_tdmbrec_component_ComponentRoleEnum;
    private_record(component)->pfnBaseSetCallbacks = component->SetCallbacks;
    component->SetCallbacks = omx_tdmbrec_component_SetCallbacks;
    omx_base_sink_PrivateType *const sink = &private_record(component)->stBase;
    sink->pfnMessageHandler = omx_tdmbrec_component_MessageHandler;
    sink->pfnDestructor = omx_tdmbrec_component_Destructor;
    sink->pfnBufferMgmtFunction = omx_tdmbrec_component_BufferMgmtFunction;
    sink->pfnBufferMgmtCallback = omx_tdmbrec_component_BufferMgmtCallback;
}

OMX_ERRORTYPE omx_tdmbrec_component_Init(OMX_COMPONENTTYPE *component)
{
    char name[] = TDMBREC_COMPONENT_NAME;
    return omx_tdmbrec_component_Constructor(component, name);
}

OMX_ERRORTYPE omx_tdmbrec_component_Constructor(OMX_COMPONENTTYPE *component, OMX_STRING name)
{
    if (component == nullptr || name == nullptr) {
        return OMX_ErrorBadParameter;
    }
    omx_tdmbrec_component_PrivateType *const self =
        static_cast<omx_tdmbrec_component_PrivateType *>(
            QVR_calloc(1, sizeof(omx_tdmbrec_component_PrivateType)));
    if (self == nullptr) {
        return OMX_ErrorInsufficientResources;
    }
    component->pComponentPrivate = self;
    set_initial_fields(self);
    const OMX_ERRORTYPE base_result = omx_base_sink_Constructor(component, name);
    if (base_result != OMX_ErrorNone) {
        (void)omx_base_sink_Destructor(component);
        return base_result;
    }
    // After a failure below, the destructor releases the rest.
    install_functions(component);
    set_port_domains(&self->stBase);
    const OMX_ERRORTYPE ports_result = construct_ports(component);
    if (ports_result != OMX_ErrorNone) {
        return ports_result;
    }
    set_audio_defaults(self);
    const OMX_ERRORTYPE name_result = select_video_coding(self, name);
    if (name_result != OMX_ErrorNone) {
        return name_result;
    }
    set_video_coding(self);
    return base_result;
}

OMX_ERRORTYPE omx_tdmbrec_component_Destructor(OMX_COMPONENTTYPE *component)
{
    // A constructor may have failed.
    if (component != nullptr && private_record(component) != nullptr) {
        stop_recording_for_good(component);
    }
    (void)omx_base_sink_Destructor(component);
    return OMX_ErrorNone;
}

OMX_ERRORTYPE omx_tdmbrec_component_GetParameter(OMX_HANDLETYPE handle, OMX_INDEXTYPE index,
                                                 OMX_PTR parameter)
{
    if (parameter == nullptr) {
        return OMX_ErrorBadParameter;
    }
    return omx_base_component_GetParameter(handle, index, parameter);
}

static void set_sample_rate(omx_tdmbrec_component_PrivateType *self, const void *record)
{
    const OMX_AUDIO_PARAM_PCMMODETYPE *const pcm_mode =
        static_cast<const OMX_AUDIO_PARAM_PCMMODETYPE *>(record);
    store_shared<uint32_t>(self->uiSampleRate, pcm_mode->nSamplingRate);
}

OMX_ERRORTYPE omx_tdmbrec_component_SetParameter(OMX_HANDLETYPE handle, OMX_INDEXTYPE index,
                                                 OMX_PTR parameter)
{
    if (handle == nullptr || parameter == nullptr) {
        return OMX_ErrorBadParameter;
    }
    OMX_COMPONENTTYPE *const component = static_cast<OMX_COMPONENTTYPE *>(handle);
    omx_tdmbrec_component_PrivateType *const self = private_record(component);
    if (self == nullptr) {
        return OMX_ErrorInvalidComponent;
    }
    switch (static_cast<uint32_t>(index)) {
    case OMX_IndexParamAudioPcm:
        set_sample_rate(self, parameter);
        return OMX_ErrorNone;
    case TDMBREC_INDEX_NAME_PART_1:
        set_name_part_1(self, parameter);
        return OMX_ErrorNone;
    case TDMBREC_INDEX_NAME_PART_2:
        set_name_part_2(self, parameter);
        return OMX_ErrorNone;
    case TDMBREC_INDEX_OUTPUT_PATH:
        set_output_path(parameter);
        return OMX_ErrorNone;
    case TDMBREC_INDEX_START:
        return start_recording(component);
    case TDMBREC_INDEX_STOP:
        stop_recording(component);
        return OMX_ErrorNone;
    default:
        return omx_base_component_SetParameter(handle, index, parameter);
    }
}

OMX_ERRORTYPE omx_tdmbrec_component_SetConfig(OMX_HANDLETYPE, OMX_INDEXTYPE, OMX_PTR)
{
    return OMX_ErrorNone;
}

OMX_ERRORTYPE omx_tdmbrec_component_GetExtensionIndex(OMX_HANDLETYPE, OMX_STRING, OMX_INDEXTYPE *)
{
    return OMX_ErrorNone;
}

OMX_ERRORTYPE omx_tdmbrec_component_ComponentRoleEnum(OMX_HANDLETYPE, OMX_U8 *, OMX_U32)
{
    return OMX_ErrorNone;
}

OMX_ERRORTYPE omx_tdmbrec_component_MessageHandler(OMX_COMPONENTTYPE *component,
                                                   omx_base_message_t *message)
{
    return omx_base_component_MessageHandler(component, message);
}
