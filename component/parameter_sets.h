// Parameter sets that arrive without a picture, or of one kind only with it. They are kept until
// both kinds are known, and then precede the next picture that needs them.
//
// thread: the buffer thread, while recording
#ifndef COMPONENT_PARAMETER_SETS_H
#define COMPONENT_PARAMETER_SETS_H

#include "component/access_unit.h"
#include "component/private_record.h"

// returns: whether the leading parameter sets suffice for a decoder configuration
[[nodiscard]] bool has_both_kinds(const access_unit_t *access_unit);

// Keeps the leading parameter sets of an access unit while the file may need them: before its first
// picture, and throughout a file that carries them in its access units. A set replaces the kept one
// of the same kind and id. One that does not fit is dropped and logged. Before the first picture,
// an access unit with a picture and both kinds discards what was kept.
void keep_parameter_sets(omx_tdmbrec_component_PrivateType *self, const uint8_t *data,
                         const access_unit_t *access_unit);

// returns: whether the kept parameter sets go with the picture of an access unit: with any first
//          picture once both kinds are kept, later with every picture
[[nodiscard]] bool takes_kept_sets(const omx_tdmbrec_component_PrivateType *self,
                                   const access_unit_t *access_unit);

// Writes the kept parameter sets, sequence parameter sets first, and the picture of an access unit,
// all with start codes of 4 bytes.
// out: out: other memory than data, with room for the sets, length bytes, and one for every unit
// returns: the bytes written
[[nodiscard]] uint32_t join_kept_sets(const omx_tdmbrec_component_PrivateType *self,
                                      const uint8_t *data, uint32_t length,
                                      const access_unit_t *access_unit, uint8_t *out);

// Discards the kept parameter sets.
void forget_kept_sets(omx_tdmbrec_component_PrivateType *self);

#endif // COMPONENT_PARAMETER_SETS_H
