// Tests with a decoder whether parameter sets belong to a picture.
#ifndef CLIENT_INPUT_PICTURE_CHECK_H
#define CLIENT_INPUT_PICTURE_CHECK_H

#include <cstdint>
#include <span>

// in: an IDR picture after its parameter sets, in start-code form
// returns: false when the decoder reports an error; true also when no decoder is available
bool picture_decodes(std::span<const uint8_t> unit);

#endif // CLIENT_INPUT_PICTURE_CHECK_H
