// A program in C outside the tree, which calls each installed library once.
#include "aacenc/aac_enc.h"
#include "component/tdmbrec_interface.h"
#include "mp4mux/mp4_mux.h"
#include "recovery/recovery.h"

#include <stdio.h>

static int check(int is_right, const char *what)
{
    if (!is_right) {
        printf("not as expected: %s\n", what);
    }
    return is_right;
}

int main(void)
{
    char name[] = TDMBREC_COMPONENT_NAME;
    OMX_CALLBACKTYPE callbacks = {0};
    OMX_HANDLETYPE recorder = NULL;
    recovery_input_t no_input = {0};
    recovery_report_t report;
    void *no_context = NULL;
    int are_right = check(OMX_Init() == OMX_ErrorNone, "OMX_Init");
    are_right &=
        check(OMX_GetHandle(&recorder, name, NULL, &callbacks) == OMX_ErrorNone, "OMX_GetHandle");
    are_right &=
        check(recorder != NULL && OMX_FreeHandle(recorder) == OMX_ErrorNone, "OMX_FreeHandle");
    are_right &=
        check(QVR_MP4_MUX(MUX_CLOSE, &no_context, NULL, NULL) == MUX_ERR_HANDLE, "QVR_MP4_MUX");
    are_right &=
        check(QVR_AAC_ENC(AACENC_OP_CLOSE, &no_context, NULL, NULL) != AACENC_OK, "QVR_AAC_ENC");
    are_right &= check(recovery_scan(&no_input, &report) == RECOVERY_ERR_INVALID, "recovery_scan");
    are_right &= check(OMX_Deinit() == OMX_ErrorNone, "OMX_Deinit");
    return are_right ? 0 : 1;
}
