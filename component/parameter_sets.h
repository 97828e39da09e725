// Parameter sets that come in buffers of their own, or only one kind in front of a picture: they
// are kept until both kinds are there, and then stand in front of the next picture that can take
// them, as if it had brought them along.
//
// thread: the buffer thread, while recording.
#ifndef COMPONENT_PARAMETER_SETS_H
#define COMPONENT_PARAMETER_SETS_H

#include "component/access_unit.h"
#include "component/private_record.h"

// True when the parameter sets in front are all that a decoder configuration needs.
[[nodiscard]] bool has_both_kinds(const access_unit_t *access_unit);

// Keeps the parameter sets in front of an access unit, for as long as the file needs some: until it
// has begun, and in a file that carries them in its access units. A kept one of the same kind and
// number goes; one that does not fit in is dropped (logged). A picture that brings both kinds
// itself takes none of the earlier ones before the file has begun.
void keep_parameter_sets(omx_tdmbrec_component_PrivateType *self, const uint8_t *data,
                         const access_unit_t *access_unit);

// returns whether the picture of an access unit takes the kept parameter sets: once both kinds are
//         there, the next picture does, of whatever type.
[[nodiscard]] bool takes_kept_sets(const omx_tdmbrec_component_PrivateType *self,
                                   const access_unit_t *access_unit);

// Writes the kept parameter sets, sequence parameter sets first, and the picture of an access unit,
// all with start codes of 4 bytes.
// in       out: other memory than data, with room for the sets, length bytes, and one for every
//          unit
// returns  the bytes written
[[nodiscard]] uint32_t join_kept_sets(const omx_tdmbrec_component_PrivateType *self,
                                      const uint8_t *data, uint32_t length,
                                      const access_unit_t *access_unit, uint8_t *out);

void forget_kept_sets(omx_tdmbrec_component_PrivateType *self);

#endif // COMPONENT_PARAMETER_SETS_H
