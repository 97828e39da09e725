#include "tests/support/component_test.h"

#include "tests/support/wrapped_calls.h"

#include <cstdlib>
#include <filesystem>

void ComponentTest::SetUp()
{
    PlatformTest::SetUp();
    reset_wrapped_calls();
    std::filesystem::remove(kRecording);
}

std::unique_ptr<IlClient> ComponentTest::make_client(const char *name)
{
    const auto make = [name](OMX_CALLBACKTYPE *callbacks, void *app_data) {
        OMX_COMPONENTTYPE *const handle =
            static_cast<OMX_COMPONENTTYPE *>(calloc(1, sizeof(OMX_COMPONENTTYPE)));
        handle->nSize = sizeof(*handle);
        handle->nVersion.nVersion = OMX_VERSION_1_1_2;
        EXPECT_EQ(omx_tdmbrec_component_Constructor(handle, const_cast<char *>(name)),
                  OMX_ErrorNone);
        EXPECT_EQ(handle->SetCallbacks(handle, callbacks, app_data), OMX_ErrorNone);
        return handle;
    };
    const auto release = [](OMX_COMPONENTTYPE *handle) {
        EXPECT_EQ(handle->ComponentDeInit(handle), OMX_ErrorNone);
        free(handle);
    };
    return std::make_unique<IlClient>(make, release);
}

std::unique_ptr<IlClient> ComponentTest::make_recorder(const std::string &path)
{
    std::unique_ptr<IlClient> client = make_client();
    client->start_recording(path);
    return client;
}

omx_tdmbrec_component_PrivateType *ComponentTest::record_of(const IlClient &client)
{
    return private_record(client.handle());
}
