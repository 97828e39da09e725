#include "component/omx_tdmbrec_component.h"

#include "component/client_events.h"
#include "component/end_reports.h"
#include "component/name_parts.h"
#include "component/recording_control.h"
#include "component/shared_fields.h"
#include "platform/qvr_memory.h"

#include <cstring>

static constexpr char kRecorderName[] = "OMX.qvr.tdmb.rec";
static constexpr char kVideoDecoderName[] = "OMX.qvr.video_decoder";
static constexpr char kAvcDecoderName[] = "OMX.QVR.avcdec";

static constexpr uint32_t kFrameWidth = 320;  // pixels
static constexpr uint32_t kFrameHeight = 240; // pixels
static constexpr uint32_t kFrameRate = 30;    // a plain integer in a Q16 field
static constexpr uint32_t kChannels = 2;
static constexpr uint32_t kSampleRate = 48000; // Hz
static constexpr uint32_t kBitsPerSample = 16;
static constexpr uint32_t kAacCodecTag = 0xAAC0;
static constexpr uint32_t kBitRate = 128000; // bit/s

static void set_initial_fields(omx_tdmbrec_component_PrivateType *pPrivate)
{
    pPrivate->bMuxOpen = 0;
    pPrivate->hStopThread = pthread_t{};
    pPrivate->bCallbackIdle = 1;
    pPrivate->iMuxOpenResult = -1;
    pPrivate->ucVideoIntervalState = 0xFF;
}

static void set_port_domains(omx_base_sink_PrivateType *pSink)
{
    pSink->astPortDomain[OMX_PortDomainAudio].nPorts = 1;
    pSink->astPortDomain[OMX_PortDomainAudio].nStartPortNumber = TDMBREC_PORT_AUDIO;
    pSink->astPortDomain[OMX_PortDomainVideo].nPorts = 1;
    pSink->astPortDomain[OMX_PortDomainVideo].nStartPortNumber = TDMBREC_PORT_VIDEO;
}

// What is allocated stays attached; the base destructor frees it.
static OMX_ERRORTYPE allocate_ports(omx_base_sink_PrivateType *pSink)
{
    if (pSink->ppPorts != nullptr) {
        return OMX_ErrorNone;
    }
    pSink->ppPorts = static_cast<omx_base_port_PrivateType **>(
        QVR_calloc(TDMBREC_PORT_COUNT, sizeof(omx_base_port_PrivateType *)));
    if (pSink->ppPorts == nullptr) {
        return OMX_ErrorInsufficientResources;
    }
    pSink->ppPorts[TDMBREC_PORT_VIDEO] =
        static_cast<omx_base_port_PrivateType *>(QVR_calloc(1, sizeof(omx_base_video_PortType)));
    pSink->ppPorts[TDMBREC_PORT_AUDIO] =
        static_cast<omx_base_port_PrivateType *>(QVR_calloc(1, sizeof(omx_base_audio_PortType)));
    if (pSink->ppPorts[TDMBREC_PORT_VIDEO] == nullptr ||
        pSink->ppPorts[TDMBREC_PORT_AUDIO] == nullptr) {
        return OMX_ErrorInsufficientResources;
    }
    return OMX_ErrorNone;
}

static void describe_video_port(omx_base_port_PrivateType *pPort)
{
    OMX_PARAM_PORTDEFINITIONTYPE *const pDefinition = &pPort->stPortDefinition;
    pDefinition->format.video.nFrameWidth = kFrameWidth;
    pDefinition->format.video.nFrameHeight = kFrameHeight;
    pDefinition->format.video.xFramerate = kFrameRate;
    pDefinition->nBufferSize = TDMBREC_PORT_BUFFER_BYTES;
}

static void describe_audio_port(omx_base_port_PrivateType *pPort)
{
    omx_base_audio_PortType *const pAudioPort = reinterpret_cast<omx_base_audio_PortType *>(pPort);
    pPort->stPortDefinition.format.audio.eEncoding = OMX_AUDIO_CodingPCM;
    pPort->stPortDefinition.nBufferSize = TDMBREC_PORT_BUFFER_BYTES;
    pAudioPort->stAudioFormat.nPortIndex = TDMBREC_PORT_AUDIO;
    pAudioPort->stAudioFormat.nIndex = 0;
    pAudioPort->stAudioFormat.eEncoding = OMX_AUDIO_CodingPCM;
}

static OMX_ERRORTYPE construct_ports(OMX_COMPONENTTYPE *pComponent)
{
    omx_base_sink_PrivateType *const pSink = &private_record(pComponent)->stBase;
    OMX_ERRORTYPE result = allocate_ports(pSink);
    if (result == OMX_ErrorNone) {
        result = base_video_port_Constructor(pComponent, &pSink->ppPorts[TDMBREC_PORT_VIDEO],
                                             TDMBREC_PORT_VIDEO, OMX_TRUE);
    }
    if (result == OMX_ErrorNone) {
        result = base_audio_port_Constructor(pComponent, &pSink->ppPorts[TDMBREC_PORT_AUDIO],
                                             TDMBREC_PORT_AUDIO, OMX_TRUE);
    }
    if (result == OMX_ErrorNone) {
        describe_video_port(pSink->ppPorts[TDMBREC_PORT_VIDEO]);
        describe_audio_port(pSink->ppPorts[TDMBREC_PORT_AUDIO]);
    }
    return result;
}

static void set_audio_defaults(omx_tdmbrec_component_PrivateType *pPrivate)
{
    pPrivate->uiChannels = kChannels;
    pPrivate->uiSampleRate = kSampleRate;
    pPrivate->uiBitsPerSample = kBitsPerSample;
    pPrivate->uiAudioCodecTag = kAacCodecTag;
    pPrivate->uiBitRate = kBitRate;
}

static OMX_ERRORTYPE select_video_coding(omx_tdmbrec_component_PrivateType *pPrivate,
                                         const char *pszName)
{
    if (strcmp(pszName, kAvcDecoderName) == 0) {
        pPrivate->uiVideoCoding = OMX_VIDEO_CodingAVC;
    } else if (strcmp(pszName, kVideoDecoderName) == 0 || strcmp(pszName, kRecorderName) == 0) {
        pPrivate->uiVideoCoding = OMX_VIDEO_CodingUnused;
    } else {
        return OMX_ErrorInvalidComponentName;
    }
    return OMX_ErrorNone;
}

static void set_video_coding(omx_tdmbrec_component_PrivateType *pPrivate)
{
    pPrivate->llAudioBaseTime = 0;
    pPrivate->llVideoBaseTime = 0;
    if (pPrivate->uiVideoCoding == OMX_VIDEO_CodingAVC) {
        pPrivate->stBase.ppPorts[TDMBREC_PORT_VIDEO]
            ->stPortDefinition.format.video.eCompressionFormat = OMX_VIDEO_CodingAVC;
    }
}

static void install_functions(OMX_COMPONENTTYPE *pComponent)
{
    pComponent->GetParameter = omx_tdmbrec_component_GetParameter;
    pComponent->SetParameter = omx_tdmbrec_component_SetParameter;
    pComponent->SetConfig = omx_tdmbrec_component_SetConfig;
    pComponent->GetExtensionIndex = omx_tdmbrec_component_GetExtensionIndex;
    pComponent->ComponentRoleEnum = omx_tdmbrec_component_ComponentRoleEnum;
    private_record(pComponent)->pfnBaseSetCallbacks = pComponent->SetCallbacks;
    pComponent->SetCallbacks = omx_tdmbrec_component_SetCallbacks;
    omx_base_sink_PrivateType *const pSink = &private_record(pComponent)->stBase;
    pSink->pfnMessageHandler = omx_tdmbrec_component_MessageHandler;
    pSink->pfnDestructor = omx_tdmbrec_component_Destructor;
    pSink->pfnBufferMgmtFunction = omx_tdmbrec_component_BufferMgmtFunction;
    pSink->pfnBufferMgmtCallback = omx_tdmbrec_component_BufferMgmtCallback;
}

OMX_ERRORTYPE omx_tdmbrec_component_Init(OMX_COMPONENTTYPE *pComponent)
{
    char szName[] = "OMX.qvr.tdmb.rec";
    return omx_tdmbrec_component_Constructor(pComponent, szName);
}

OMX_ERRORTYPE omx_tdmbrec_component_Constructor(OMX_COMPONENTTYPE *pComponent, OMX_STRING pszName)
{
    if (pComponent == nullptr || pszName == nullptr) {
        return OMX_ErrorBadParameter;
    }
    omx_tdmbrec_component_PrivateType *const pPrivate =
        static_cast<omx_tdmbrec_component_PrivateType *>(
            QVR_calloc(1, sizeof(omx_tdmbrec_component_PrivateType)));
    if (pPrivate == nullptr) {
        return OMX_ErrorInsufficientResources;
    }
    pComponent->pComponentPrivate = pPrivate;
    set_initial_fields(pPrivate);
    const OMX_ERRORTYPE base_result = omx_base_sink_Constructor(pComponent, pszName);
    if (base_result != OMX_ErrorNone) {
        (void)omx_base_sink_Destructor(pComponent);
        return base_result;
    }
    // From here on a failure leaves a component that its destructor can take down.
    install_functions(pComponent);
    set_port_domains(&pPrivate->stBase);
    const OMX_ERRORTYPE ports_result = construct_ports(pComponent);
    if (ports_result != OMX_ErrorNone) {
        return ports_result;
    }
    set_audio_defaults(pPrivate);
    const OMX_ERRORTYPE name_result = select_video_coding(pPrivate, pszName);
    if (name_result != OMX_ErrorNone) {
        return name_result;
    }
    set_video_coding(pPrivate);
    clear_name_parts(pPrivate);
    pPrivate->pPcmQueue = nullptr;
    return base_result;
}

OMX_ERRORTYPE omx_tdmbrec_component_Destructor(OMX_COMPONENTTYPE *pComponent)
{
    // A constructor may have failed.
    if (pComponent != nullptr && private_record(pComponent) != nullptr) {
        stop_recording_for_good(pComponent);
    }
    (void)omx_base_sink_Destructor(pComponent);
    return OMX_ErrorNone;
}

OMX_ERRORTYPE omx_tdmbrec_component_GetParameter(OMX_HANDLETYPE hComponent, OMX_INDEXTYPE eIndex,
                                                 OMX_PTR pParameter)
{
    if (pParameter == nullptr) {
        return OMX_ErrorBadParameter;
    }
    return omx_base_component_GetParameter(hComponent, eIndex, pParameter);
}

static void set_sample_rate(omx_tdmbrec_component_PrivateType *pPrivate, const void *pRecord)
{
    const OMX_AUDIO_PARAM_PCMMODETYPE *const pPcmMode =
        static_cast<const OMX_AUDIO_PARAM_PCMMODETYPE *>(pRecord);
    store_shared<uint32_t>(pPrivate->uiSampleRate, pPcmMode->nSamplingRate);
}

OMX_ERRORTYPE omx_tdmbrec_component_SetParameter(OMX_HANDLETYPE hComponent, OMX_INDEXTYPE eIndex,
                                                 OMX_PTR pParameter)
{
    if (hComponent == nullptr || pParameter == nullptr) {
        return OMX_ErrorBadParameter;
    }
    OMX_COMPONENTTYPE *const pComponent = static_cast<OMX_COMPONENTTYPE *>(hComponent);
    omx_tdmbrec_component_PrivateType *const pPrivate = private_record(pComponent);
    if (pPrivate == nullptr) {
        return OMX_ErrorInvalidComponent;
    }
    switch (static_cast<uint32_t>(eIndex)) {
    case OMX_IndexParamAudioPcm:
        set_sample_rate(pPrivate, pParameter);
        return OMX_ErrorNone;
    case TDMBREC_INDEX_NAME_PART_1:
        set_name_part_1(pPrivate, pParameter);
        return OMX_ErrorNone;
    case TDMBREC_INDEX_NAME_PART_2:
        set_name_part_2(pPrivate, pParameter);
        return OMX_ErrorNone;
    case TDMBREC_INDEX_OUTPUT_PATH:
        set_output_path(pParameter);
        return OMX_ErrorNone;
    case TDMBREC_INDEX_START:
        return start_recording(pComponent);
    case TDMBREC_INDEX_STOP:
        stop_recording(pComponent);
        return OMX_ErrorNone;
    default:
        return omx_base_component_SetParameter(hComponent, eIndex, pParameter);
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

OMX_ERRORTYPE omx_tdmbrec_component_MessageHandler(OMX_COMPONENTTYPE *pComponent,
                                                   omx_base_message_t *pMessage)
{
    return omx_base_component_MessageHandler(pComponent, pMessage);
}
