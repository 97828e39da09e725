// The part of OpenMAX Integration Layer 1.1 that the recorder, the base framework and the client
// use. Names and values are the standard's.
// source: OpenMAX IL Specification, version 1.1.2, chapters 3 and 4
#ifndef PLATFORM_OMX_IL_H
#define PLATFORM_OMX_IL_H

#include <stdint.h>

// Enumerations have 32 bits: C++ takes the type that they name, C the value of the last enumerator.
// An enumerator of C is an int, which a code from 0x80000000 on does not fit.
#ifdef __cplusplus
#define OMX_ENUM_U32 : uint32_t
#define OMX_ERROR_CODE(code) code
#define OMX_COMPONENT(handle) static_cast<OMX_COMPONENTTYPE *>(handle)
extern "C" {
#else
#define OMX_ENUM_U32
#define OMX_ERROR_CODE(code) ((OMX_S32)(code))
#define OMX_COMPONENT(handle) ((OMX_COMPONENTTYPE *)(handle))
#endif

// NOLINTBEGIN(readability-identifier-naming): the names are the standard's

typedef uint8_t OMX_U8;
typedef int8_t OMX_S8;
typedef uint16_t OMX_U16;
typedef int16_t OMX_S16;
typedef uint32_t OMX_U32;
typedef int32_t OMX_S32;
typedef uint64_t OMX_U64;
typedef int64_t OMX_S64;
typedef void *OMX_PTR;
typedef char *OMX_STRING;
typedef unsigned char OMX_UUIDTYPE[128];
typedef void *OMX_HANDLETYPE;
typedef void *OMX_NATIVE_DEVICETYPE;
typedef void *OMX_NATIVE_WINDOWTYPE;
typedef OMX_S64 OMX_TICKS; // microseconds

typedef enum OMX_BOOL { OMX_FALSE = 0, OMX_TRUE = 1, OMX_BOOL_MAX = 0x7FFFFFFF } OMX_BOOL;

typedef union OMX_VERSIONTYPE {
    struct {
        OMX_U8 nVersionMajor;
        OMX_U8 nVersionMinor;
        OMX_U8 nRevision;
        OMX_U8 nStep;
    } s;
    OMX_U32 nVersion;
} OMX_VERSIONTYPE;

#define OMX_VERSION_1_1_2 0x00020101u // step 0, revision 2, minor 1, major 1
#define OMX_MAX_STRINGNAME_SIZE 128
#define OMX_AUDIO_MAXCHANNELS 16

typedef enum OMX_ERRORTYPE OMX_ENUM_U32 {
    OMX_ErrorNone = 0,
    OMX_ErrorInsufficientResources = OMX_ERROR_CODE(0x80001000),
    OMX_ErrorUndefined = OMX_ERROR_CODE(0x80001001),
    OMX_ErrorInvalidComponentName = OMX_ERROR_CODE(0x80001002),
    OMX_ErrorComponentNotFound = OMX_ERROR_CODE(0x80001003),
    OMX_ErrorInvalidComponent = OMX_ERROR_CODE(0x80001004),
    OMX_ErrorBadParameter = OMX_ERROR_CODE(0x80001005),
    OMX_ErrorNotImplemented = OMX_ERROR_CODE(0x80001006),
    OMX_ErrorInvalidState = OMX_ERROR_CODE(0x8000100A),
    OMX_ErrorNoMore = OMX_ERROR_CODE(0x8000100E),
    OMX_ErrorVersionMismatch = OMX_ERROR_CODE(0x8000100F),
    OMX_ErrorNotReady = OMX_ERROR_CODE(0x80001010),
    OMX_ErrorTimeout = OMX_ERROR_CODE(0x80001011),
    OMX_ErrorSameState = OMX_ERROR_CODE(0x80001012),
    OMX_ErrorIncorrectStateTransition = OMX_ERROR_CODE(0x80001017),
    OMX_ErrorIncorrectStateOperation = OMX_ERROR_CODE(0x80001018),
    OMX_ErrorUnsupportedSetting = OMX_ERROR_CODE(0x80001019),
    OMX_ErrorUnsupportedIndex = OMX_ERROR_CODE(0x8000101A),
    OMX_ErrorBadPortIndex = OMX_ERROR_CODE(0x8000101B),
    OMX_ErrorPortUnpopulated = OMX_ERROR_CODE(0x8000101C),
    OMX_ErrorTunnelingUnsupported = OMX_ERROR_CODE(0x80001024),
    OMX_ErrorVendorStartUnused = OMX_ERROR_CODE(0x90000000),
    OMX_ErrorMax = 0x7FFFFFFF
} OMX_ERRORTYPE;

typedef enum OMX_STATETYPE OMX_ENUM_U32 {
    OMX_StateInvalid = 0,
    OMX_StateLoaded = 1,
    OMX_StateIdle = 2,
    OMX_StateExecuting = 3,
    OMX_StatePause = 4,
    OMX_StateWaitForResources = 5,
    OMX_StateMax = 0x7FFFFFFF
} OMX_STATETYPE;

typedef enum OMX_COMMANDTYPE OMX_ENUM_U32 {
    OMX_CommandStateSet = 0,
    OMX_CommandFlush = 1,
    OMX_CommandPortDisable = 2,
    OMX_CommandPortEnable = 3,
    OMX_CommandMarkBuffer = 4,
    OMX_CommandMax = 0x7FFFFFFF
} OMX_COMMANDTYPE;

typedef enum OMX_EVENTTYPE OMX_ENUM_U32 {
    OMX_EventCmdComplete = 0,
    OMX_EventError = 1,
    OMX_EventMark = 2,
    OMX_EventPortSettingsChanged = 3,
    OMX_EventBufferFlag = 4,
    OMX_EventResourcesAcquired = 5,
    OMX_EventVendorStartUnused = 0x7F000000,
    OMX_EventMax = 0x7FFFFFFF
} OMX_EVENTTYPE;

typedef enum OMX_INDEXTYPE OMX_ENUM_U32 {
    OMX_IndexParamAudioInit = 0x01000002,
    OMX_IndexParamImageInit = 0x01000003,
    OMX_IndexParamVideoInit = 0x01000004,
    OMX_IndexParamOtherInit = 0x01000005,
    OMX_IndexParamPortDefinition = 0x02000001,
    OMX_IndexParamAudioPortFormat = 0x04000001,
    OMX_IndexParamAudioPcm = 0x04000002,
    OMX_IndexParamVideoPortFormat = 0x06000001,
    OMX_IndexVendorStartUnused = 0x7F000000,
    OMX_IndexMax = 0x7FFFFFFF
} OMX_INDEXTYPE;

typedef enum OMX_DIRTYPE OMX_ENUM_U32 {
    OMX_DirInput = 0,
    OMX_DirOutput = 1,
    OMX_DirMax = 0x7FFFFFFF
} OMX_DIRTYPE;

typedef enum OMX_PORTDOMAINTYPE OMX_ENUM_U32 {
    OMX_PortDomainAudio = 0,
    OMX_PortDomainVideo = 1,
    OMX_PortDomainImage = 2,
    OMX_PortDomainOther = 3,
    OMX_PortDomainMax = 0x7FFFFFFF
} OMX_PORTDOMAINTYPE;

typedef enum OMX_AUDIO_CODINGTYPE OMX_ENUM_U32 {
    OMX_AUDIO_CodingUnused = 0,
    OMX_AUDIO_CodingAutoDetect = 1,
    OMX_AUDIO_CodingPCM = 2,
    OMX_AUDIO_CodingMax = 0x7FFFFFFF
} OMX_AUDIO_CODINGTYPE;

typedef enum OMX_VIDEO_CODINGTYPE OMX_ENUM_U32 {
    OMX_VIDEO_CodingUnused = 0,
    OMX_VIDEO_CodingAutoDetect = 1,
    OMX_VIDEO_CodingAVC = 7,
    OMX_VIDEO_CodingMax = 0x7FFFFFFF
} OMX_VIDEO_CODINGTYPE;

typedef enum OMX_COLOR_FORMATTYPE OMX_ENUM_U32 {
    OMX_COLOR_FormatUnused = 0,
    OMX_COLOR_FormatMax = 0x7FFFFFFF
} OMX_COLOR_FORMATTYPE;

typedef enum OMX_NUMERICALDATATYPE OMX_ENUM_U32 {
    OMX_NumericalDataSigned = 0,
    OMX_NumericalDataUnsigned = 1,
    OMX_NumericalDataMax = 0x7FFFFFFF
} OMX_NUMERICALDATATYPE;

typedef enum OMX_ENDIANTYPE OMX_ENUM_U32 {
    OMX_EndianBig = 0,
    OMX_EndianLittle = 1,
    OMX_EndianMax = 0x7FFFFFFF
} OMX_ENDIANTYPE;

typedef enum OMX_AUDIO_PCMMODETYPE OMX_ENUM_U32 {
    OMX_AUDIO_PCMModeLinear = 0,
    OMX_AUDIO_PCMModeMax = 0x7FFFFFFF
} OMX_AUDIO_PCMMODETYPE;

typedef enum OMX_AUDIO_CHANNELTYPE OMX_ENUM_U32 {
    OMX_AUDIO_ChannelNone = 0,
    OMX_AUDIO_ChannelLF = 1,
    OMX_AUDIO_ChannelRF = 2,
    OMX_AUDIO_ChannelMax = 0x7FFFFFFF
} OMX_AUDIO_CHANNELTYPE;

#define OMX_BUFFERFLAG_EOS 0x00000001u
#define OMX_BUFFERFLAG_STARTTIME 0x00000002u
#define OMX_BUFFERFLAG_ENDOFFRAME 0x00000010u
#define OMX_BUFFERFLAG_SYNCFRAME 0x00000020u
#define OMX_ALL 0xFFFFFFFFu // every port, in a port command

typedef struct OMX_MARKTYPE {
    OMX_HANDLETYPE hMarkTargetComponent;
    OMX_PTR pMarkData;
} OMX_MARKTYPE;

typedef struct OMX_BUFFERHEADERTYPE {
    OMX_U32 nSize;
    OMX_VERSIONTYPE nVersion;
    OMX_U8 *pBuffer;
    OMX_U32 nAllocLen;
    OMX_U32 nFilledLen;
    OMX_U32 nOffset;
    OMX_PTR pAppPrivate;
    OMX_PTR pPlatformPrivate;
    OMX_PTR pInputPortPrivate;
    OMX_PTR pOutputPortPrivate;
    OMX_HANDLETYPE hMarkTargetComponent;
    OMX_PTR pMarkData;
    OMX_U32 nTickCount;
    OMX_TICKS nTimeStamp;
    OMX_U32 nFlags;
    OMX_U32 nOutputPortIndex;
    OMX_U32 nInputPortIndex;
} OMX_BUFFERHEADERTYPE;

typedef struct OMX_PORT_PARAM_TYPE {
    OMX_U32 nSize;
    OMX_VERSIONTYPE nVersion;
    OMX_U32 nPorts;
    OMX_U32 nStartPortNumber;
} OMX_PORT_PARAM_TYPE;

typedef struct OMX_AUDIO_PORTDEFINITIONTYPE {
    OMX_STRING cMIMEType;
    OMX_NATIVE_DEVICETYPE pNativeRender;
    OMX_BOOL bFlagErrorConcealment;
    OMX_AUDIO_CODINGTYPE eEncoding;
} OMX_AUDIO_PORTDEFINITIONTYPE;

typedef struct OMX_VIDEO_PORTDEFINITIONTYPE {
    OMX_STRING cMIMEType;
    OMX_NATIVE_DEVICETYPE pNativeRender;
    OMX_U32 nFrameWidth;
    OMX_U32 nFrameHeight;
    OMX_S32 nStride;
    OMX_U32 nSliceHeight;
    OMX_U32 nBitrate;
    OMX_U32 xFramerate;
    OMX_BOOL bFlagErrorConcealment;
    OMX_VIDEO_CODINGTYPE eCompressionFormat;
    OMX_COLOR_FORMATTYPE eColorFormat;
    OMX_NATIVE_WINDOWTYPE pNativeWindow;
} OMX_VIDEO_PORTDEFINITIONTYPE;

typedef struct OMX_PARAM_PORTDEFINITIONTYPE {
    OMX_U32 nSize;
    OMX_VERSIONTYPE nVersion;
    OMX_U32 nPortIndex;
    OMX_DIRTYPE eDir;
    OMX_U32 nBufferCountActual;
    OMX_U32 nBufferCountMin;
    OMX_U32 nBufferSize;
    OMX_BOOL bEnabled;
    OMX_BOOL bPopulated;
    OMX_PORTDOMAINTYPE eDomain;
    union {
        OMX_AUDIO_PORTDEFINITIONTYPE audio;
        OMX_VIDEO_PORTDEFINITIONTYPE video;
    } format;
    OMX_BOOL bBuffersContiguous;
    OMX_U32 nBufferAlignment;
} OMX_PARAM_PORTDEFINITIONTYPE;

typedef struct OMX_AUDIO_PARAM_PORTFORMATTYPE {
    OMX_U32 nSize;
    OMX_VERSIONTYPE nVersion;
    OMX_U32 nPortIndex;
    OMX_U32 nIndex;
    OMX_AUDIO_CODINGTYPE eEncoding;
} OMX_AUDIO_PARAM_PORTFORMATTYPE;

typedef struct OMX_VIDEO_PARAM_PORTFORMATTYPE {
    OMX_U32 nSize;
    OMX_VERSIONTYPE nVersion;
    OMX_U32 nPortIndex;
    OMX_U32 nIndex;
    OMX_VIDEO_CODINGTYPE eCompressionFormat;
    OMX_COLOR_FORMATTYPE eColorFormat;
    OMX_U32 xFramerate;
} OMX_VIDEO_PARAM_PORTFORMATTYPE;

typedef struct OMX_AUDIO_PARAM_PCMMODETYPE {
    OMX_U32 nSize;
    OMX_VERSIONTYPE nVersion;
    OMX_U32 nPortIndex;
    OMX_U32 nChannels;
    OMX_NUMERICALDATATYPE eNumData;
    OMX_ENDIANTYPE eEndian;
    OMX_BOOL bInterleaved;
    OMX_U32 nBitPerSample;
    OMX_U32 nSamplingRate;
    OMX_AUDIO_PCMMODETYPE ePCMMode;
    OMX_AUDIO_CHANNELTYPE eChannelMapping[OMX_AUDIO_MAXCHANNELS];
} OMX_AUDIO_PARAM_PCMMODETYPE;

typedef enum OMX_BUFFERSUPPLIERTYPE OMX_ENUM_U32 {
    OMX_BufferSupplyUnspecified = 0,
    OMX_BufferSupplyMax = 0x7FFFFFFF
} OMX_BUFFERSUPPLIERTYPE;

typedef struct OMX_TUNNELSETUPTYPE {
    OMX_U32 nTunnelFlags;
    OMX_BUFFERSUPPLIERTYPE eSupplier;
} OMX_TUNNELSETUPTYPE;

// clang-format off
typedef struct OMX_CALLBACKTYPE {
    OMX_ERRORTYPE (*EventHandler)(OMX_HANDLETYPE hComponent, OMX_PTR pAppData, OMX_EVENTTYPE eEvent,
                                  OMX_U32 nData1, OMX_U32 nData2, OMX_PTR pEventData);
    OMX_ERRORTYPE (*EmptyBufferDone)(OMX_HANDLETYPE hComponent, OMX_PTR pAppData,
                                     OMX_BUFFERHEADERTYPE *pBuffer);
    OMX_ERRORTYPE (*FillBufferDone)(OMX_HANDLETYPE hComponent, OMX_PTR pAppData,
                                    OMX_BUFFERHEADERTYPE *pBuffer);
} OMX_CALLBACKTYPE;

typedef struct OMX_COMPONENTTYPE {
    OMX_U32 nSize;
    OMX_VERSIONTYPE nVersion;
    OMX_PTR pComponentPrivate;
    OMX_PTR pApplicationPrivate;
    OMX_ERRORTYPE (*GetComponentVersion)(OMX_HANDLETYPE hComponent, OMX_STRING pComponentName,
                                         OMX_VERSIONTYPE *pComponentVersion,
                                         OMX_VERSIONTYPE *pSpecVersion,
                                         OMX_UUIDTYPE *pComponentUUID);
    OMX_ERRORTYPE (*SendCommand)(OMX_HANDLETYPE hComponent, OMX_COMMANDTYPE Cmd, OMX_U32 nParam1,
                                 OMX_PTR pCmdData);
    OMX_ERRORTYPE (*GetParameter)(OMX_HANDLETYPE hComponent, OMX_INDEXTYPE nParamIndex,
                                  OMX_PTR pComponentParameterStructure);
    OMX_ERRORTYPE (*SetParameter)(OMX_HANDLETYPE hComponent, OMX_INDEXTYPE nIndex,
                                  OMX_PTR pComponentParameterStructure);
    OMX_ERRORTYPE (*GetConfig)(OMX_HANDLETYPE hComponent, OMX_INDEXTYPE nIndex,
                               OMX_PTR pComponentConfigStructure);
    OMX_ERRORTYPE (*SetConfig)(OMX_HANDLETYPE hComponent, OMX_INDEXTYPE nIndex,
                               OMX_PTR pComponentConfigStructure);
    OMX_ERRORTYPE (*GetExtensionIndex)(OMX_HANDLETYPE hComponent, OMX_STRING cParameterName,
                                       OMX_INDEXTYPE *pIndexType);
    OMX_ERRORTYPE (*GetState)(OMX_HANDLETYPE hComponent, OMX_STATETYPE *pState);
    OMX_ERRORTYPE (*ComponentTunnelRequest)(OMX_HANDLETYPE hComp, OMX_U32 nPort,
                                            OMX_HANDLETYPE hTunneledComp, OMX_U32 nTunneledPort,
                                            OMX_TUNNELSETUPTYPE *pTunnelSetup);
    OMX_ERRORTYPE (*UseBuffer)(OMX_HANDLETYPE hComponent, OMX_BUFFERHEADERTYPE **ppBufferHdr,
                               OMX_U32 nPortIndex, OMX_PTR pAppPrivate, OMX_U32 nSizeBytes,
                               OMX_U8 *pBuffer);
    OMX_ERRORTYPE (*AllocateBuffer)(OMX_HANDLETYPE hComponent, OMX_BUFFERHEADERTYPE **ppBuffer,
                                    OMX_U32 nPortIndex, OMX_PTR pAppPrivate, OMX_U32 nSizeBytes);
    OMX_ERRORTYPE (*FreeBuffer)(OMX_HANDLETYPE hComponent, OMX_U32 nPortIndex,
                                OMX_BUFFERHEADERTYPE *pBuffer);
    OMX_ERRORTYPE (*EmptyThisBuffer)(OMX_HANDLETYPE hComponent, OMX_BUFFERHEADERTYPE *pBuffer);
    OMX_ERRORTYPE (*FillThisBuffer)(OMX_HANDLETYPE hComponent, OMX_BUFFERHEADERTYPE *pBuffer);
    OMX_ERRORTYPE (*SetCallbacks)(OMX_HANDLETYPE hComponent, OMX_CALLBACKTYPE *pCallbacks,
                                  OMX_PTR pAppData);
    OMX_ERRORTYPE (*ComponentDeInit)(OMX_HANDLETYPE hComponent);
    OMX_ERRORTYPE (*UseEGLImage)(OMX_HANDLETYPE hComponent, OMX_BUFFERHEADERTYPE **ppBufferHdr,
                                 OMX_U32 nPortIndex, OMX_PTR pAppPrivate, void *eglImage);
    OMX_ERRORTYPE (*ComponentRoleEnum)(OMX_HANDLETYPE hComponent, OMX_U8 *cRole, OMX_U32 nIndex);
} OMX_COMPONENTTYPE;

#define OMX_SendCommand(hComponent, Cmd, nParam, pCmdData) \
    OMX_COMPONENT(hComponent)->SendCommand(hComponent, Cmd, nParam, pCmdData)
#define OMX_GetParameter(hComponent, nParamIndex, pStructure) \
    OMX_COMPONENT(hComponent)->GetParameter(hComponent, nParamIndex, pStructure)
#define OMX_SetParameter(hComponent, nParamIndex, pStructure) \
    OMX_COMPONENT(hComponent)->SetParameter(hComponent, nParamIndex, pStructure)
#define OMX_GetState(hComponent, pState) \
    OMX_COMPONENT(hComponent)->GetState(hComponent, pState)
#define OMX_UseBuffer(hComponent, ppBufferHdr, nPortIndex, pAppPrivate, nSizeBytes, pBuffer) \
    OMX_COMPONENT(hComponent)->UseBuffer(hComponent, ppBufferHdr, nPortIndex, pAppPrivate, \
                                         nSizeBytes, pBuffer)
#define OMX_AllocateBuffer(hComponent, ppBuffer, nPortIndex, pAppPrivate, nSizeBytes) \
    OMX_COMPONENT(hComponent)->AllocateBuffer(hComponent, ppBuffer, nPortIndex, pAppPrivate, \
                                              nSizeBytes)
#define OMX_FreeBuffer(hComponent, nPortIndex, pBuffer) \
    OMX_COMPONENT(hComponent)->FreeBuffer(hComponent, nPortIndex, pBuffer)
#define OMX_EmptyThisBuffer(hComponent, pBuffer) \
    OMX_COMPONENT(hComponent)->EmptyThisBuffer(hComponent, pBuffer)
// clang-format on

// The calls of the core.
OMX_ERRORTYPE OMX_Init(void);
OMX_ERRORTYPE OMX_Deinit(void);
OMX_ERRORTYPE OMX_ComponentNameEnum(OMX_STRING cComponentName, OMX_U32 nNameLength, OMX_U32 nIndex);
OMX_ERRORTYPE OMX_GetHandle(OMX_HANDLETYPE *pHandle, OMX_STRING cComponentName, OMX_PTR pAppData,
                            OMX_CALLBACKTYPE *pCallBacks);
OMX_ERRORTYPE OMX_FreeHandle(OMX_HANDLETYPE hComponent);
// Asks both components for a tunnel; with one handle null, asks the other component to end its own.
OMX_ERRORTYPE OMX_SetupTunnel(OMX_HANDLETYPE hOutput, OMX_U32 nPortOutput, OMX_HANDLETYPE hInput,
                              OMX_U32 nPortInput);

// NOLINTEND(readability-identifier-naming)

#ifdef __cplusplus
}
#endif

#endif // PLATFORM_OMX_IL_H
