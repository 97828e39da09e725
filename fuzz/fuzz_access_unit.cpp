// Any packets of a video stream as the client's converter takes them: what it calls ready has the
// form that the component takes.
//
// Input: a decoder configuration and up to 16 packets, each behind its length (1 byte).
#include "client/access_unit.h"
#include "fuzz/input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static constexpr uint8_t START_CODE[] = {0, 0, 0, 1};
    Input input = {{data, size}};
    access_unit_converter converter;
    if (!access_unit_configure(converter, input.bytes(input.u8()))) {
        return 0;
    }
    for (int i = 0; i < 16 && !input.left.empty(); i++) {
        access_unit unit;
        if (access_unit_convert(converter, input.bytes(input.u8()), unit) == unit_verdict::ready) {
            require(unit.bytes.size() > 4 &&
                        std::equal(START_CODE, START_CODE + 4, unit.bytes.begin()),
                    "an access unit begins with a start code");
        }
    }
    return 0;
}
