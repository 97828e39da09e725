#include "client/version.h"

#include "client/mux_file.h"

std::string version_text(void)
{
    // Only a context has a version. An open that lacks the streams makes one, and no file.
    mux_file without_file;
    mp4_mux_init_t init = {};
    mux_file_set_callbacks(init);
    (void)QVR_MP4_MUX(MUX_OPEN, &without_file.handle, &init, nullptr);
    char version[MUX_VERSION_LENGTH + 1] = "";
    char build_date[MUX_BUILD_DATE_LENGTH + 1] = "";
    (void)QVR_MP4_MUX(MUX_GET_VERSION, &without_file.handle, version, build_date);
    return std::string("tdmbrec " TDMBREC_VERSION "\n") + version + " of " + build_date;
}
