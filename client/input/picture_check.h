// Whether parameter sets belong to a picture, as a decoder finds.
#ifndef CLIENT_INPUT_PICTURE_CHECK_H
#define CLIENT_INPUT_PICTURE_CHECK_H

#include <cstdint>
#include <span>

// Decodes an IDR picture with its parameter sets in front. returns false when the decoder finds
// fault with it.
bool picture_decodes(std::span<const uint8_t> unit);

#endif // CLIENT_INPUT_PICTURE_CHECK_H
