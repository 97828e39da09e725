#include "client/input/configuration_guess.h"

#include "client/input/parameter_set_writer.h"
#include "client/input/slice_numbers.h"

#include <algorithm>

// The common sizes of such programmes, the most common first. Of one width the greatest height
// comes first: a decoder does not complain about data below the picture, but about data that are
// missing.
static constexpr struct {
    unsigned width, height;
} kSizes[] = {{320, 240}, {352, 288}, {176, 144}, {320, 192}, {320, 180}, {224, 176}, {240, 320},
              {240, 180}, {256, 192}, {160, 120}, {400, 240}, {480, 320}, {480, 272}, {640, 480},
              {640, 360}, {720, 576}, {720, 480}, {128, 96},  {800, 480}, {1280, 720}};

static constexpr unsigned kReferenceCounts[] = {1, 2, 3, 4, 5, 6, 7, 8, 16};

static constexpr int kUsualQp = 26, kQpMax = 51;

// Pairs of widths that are tried, and the contradictions that they have more than the best one.
static constexpr size_t kWidthsMax = 8;
static constexpr unsigned kContradictionsMore = 2;

struct guess {
    std::span<const std::vector<uint8_t>> pictures;
    const std::function<void()> &on_trial;
    std::optional<configuration_guess> best;
};

static size_t badness(const trial_verdict &verdict)
{
    return verdict.damaged + verdict.complaints;
}

// returns: whether the search is over
static bool try_values(guess &self, const set_values &values)
{
    self.on_trial();
    std::vector<uint8_t> sets = parameter_sets_write(values);
    const trial_verdict verdict = picture_trial_run(sets, self.pictures);
    const bool is_better = !self.best || badness(verdict) < badness(self.best->verdict);
    if (verdict.is_judged && verdict.damaged < verdict.pictures && is_better) {
        self.best = {std::move(sets), values.width, values.height, verdict};
    }
    return verdict.is_judged && is_accepted(verdict);
}

// Tries what only the pictures after the first one depend on.
static bool try_prediction(guess &self, set_values values)
{
    for (const bool has_weights : {false, true}) {
        for (const unsigned references : kReferenceCounts) {
            for (const bool has_closed_intra : {false, true}) {
                values.has_weights = has_weights;
                values.references = references;
                values.has_closed_intra = has_closed_intra;
                if (try_values(self, values)) {
                    return true;
                }
            }
        }
    }
    return false;
}

// Tries the values with the first picture alone, which most values fail.
static bool try_first(guess &self, const set_values &values)
{
    self.on_trial();
    const trial_verdict first =
        picture_trial_run(parameter_sets_write(values), self.pictures.first(1));
    return first.is_judged && is_accepted(first) && try_prediction(self, values);
}

// Arithmetic coding begins with the quantiser's parameter, so that a wrong one shows.
static bool try_quantisers(guess &self, set_values values)
{
    const int last = values.has_arithmetic ? 2 * kUsualQp : 0;
    for (int step = 0; step <= last; step++) {
        values.initial_qp = kUsualQp + (step % 2 == 0 ? -step / 2 : (step + 1) / 2);
        if (values.initial_qp <= kQpMax && try_first(self, values)) {
            return true;
        }
    }
    return false;
}

// Tries what the first picture depends on.
static bool try_widths(guess &self, set_values values)
{
    for (const auto &[width, height] : kSizes) {
        for (unsigned bits = 0; bits < 8; bits++) {
            values.width = width;
            values.height = height;
            values.has_deblocking = (bits & 1) == 0;
            values.has_arithmetic = (bits & 2) != 0;
            values.has_8x8 = (bits & 4) != 0;
            if (try_quantisers(self, values)) {
                return true;
            }
        }
    }
    return false;
}

std::optional<configuration_guess>
configuration_guess_make(std::span<const std::vector<uint8_t>> pictures,
                         const std::function<void()> &on_trial)
{
    guess self = {.pictures = pictures, .on_trial = on_trial};
    set_values values;
    const std::vector<number_widths> widths = slice_numbers_find(pictures, values.pps_number);
    for (size_t i = 0; i < std::min(widths.size(), kWidthsMax); i++) {
        if (widths[i].contradictions > widths[0].contradictions + kContradictionsMore) {
            break; // a search in vain ends soon
        }
        values.frame_num_bits = widths[i].frame_num_bits;
        values.order_bits = widths[i].order_bits;
        if (try_widths(self, values)) {
            break;
        }
    }
    return self.best;
}
