#include "client/omx_core.h"
#include "platform/omx_il.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <unistd.h>

static OMX_CALLBACKTYPE callbacks = {};

static OMX_ERRORTYPE get_handle(std::string name, OMX_HANDLETYPE *handle)
{
    return OMX_GetHandle(handle, name.data(), nullptr, &callbacks);
}

TEST(omx_core, gives_handles_by_name_between_init_and_deinit)
{
    setenv("TDMBREC_COMPONENT_PATH", SCRIPTED_COMPONENT, 1);
    OMX_HANDLETYPE handle = nullptr;
    EXPECT_EQ(get_handle("OMX.qvr.tdmb.rec", &handle), OMX_ErrorNotReady);
    EXPECT_EQ(OMX_Init(), OMX_ErrorNone);
    EXPECT_EQ(OMX_Init(), OMX_ErrorNone);
    EXPECT_EQ(OMX_Deinit(), OMX_ErrorNone);
    ASSERT_EQ(get_handle("OMX.qvr.tdmb.rec", &handle), OMX_ErrorNone);
    const OMX_COMPONENTTYPE &component = *static_cast<OMX_COMPONENTTYPE *>(handle);
    EXPECT_EQ(component.nSize, sizeof component);
    EXPECT_EQ(component.nVersion.nVersion, OMX_VERSION_1_1_2);
    EXPECT_EQ(OMX_FreeHandle(handle), OMX_ErrorNone);

    std::array<char, 17> name = {};
    EXPECT_EQ(OMX_ComponentNameEnum(name.data(), 16, 0), OMX_ErrorBadParameter);
    EXPECT_EQ(OMX_ComponentNameEnum(name.data(), 17, 0), OMX_ErrorNone);
    EXPECT_STREQ(name.data(), "OMX.qvr.tdmb.rec");
    EXPECT_EQ(OMX_ComponentNameEnum(name.data(), 17, 1), OMX_ErrorNoMore);
    handle = &name;
    EXPECT_EQ(get_handle("OMX.qvr.tdmb.re", &handle), OMX_ErrorComponentNotFound);
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(get_handle("OMX.qvr.tdmb.rec", nullptr), OMX_ErrorBadParameter);
    EXPECT_EQ(OMX_Deinit(), OMX_ErrorNone);
    EXPECT_EQ(OMX_Deinit(), OMX_ErrorNotReady);
}

TEST(omx_core, cleans_up_after_a_failed_init)
{
    ASSERT_EQ(OMX_Init(), OMX_ErrorNone);
    const std::string log = testing::TempDir() + "omx_core-" + std::to_string(getpid());
    setenv("SCRIPT_LOG", log.c_str(), 1);
    setenv("SCRIPT_FAIL", "init", 1);
    setenv("TDMBREC_COMPONENT_PATH", SCRIPTED_COMPONENT, 1);
    OMX_HANDLETYPE handle = &callbacks;
    EXPECT_EQ(get_handle("OMX.qvr.tdmb.rec", &handle), OMX_ErrorInsufficientResources);
    EXPECT_EQ(handle, nullptr);
    std::ifstream calls(log);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(calls), {}), "gone\n");
    std::remove(log.c_str());
    EXPECT_EQ(OMX_Deinit(), OMX_ErrorNone);
}
