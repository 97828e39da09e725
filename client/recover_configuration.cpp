#include "client/recover_configuration.h"

#include "client/failure.h"
#include "client/input/access_unit_converter.h"
#include "client/input/configuration_guess.h"
#include "client/input/mapped_file.h"
#include "client/input/parameter_set_writer.h"
#include "client/interruption.h"
#include "client/terminal.h"
#include "mp4read/mp4_reader.h"

#include <algorithm>
#include <filesystem>

namespace fs = std::filesystem;

using bytes = std::vector<uint8_t>;

// The most recent files of the folder are read, and so many bytes of a stream of parameter sets.
static constexpr size_t kNeighboursMax = 100;
static constexpr size_t kStreamBytesMax = 1 << 20;

struct configuration_search {
    const picture_list &pictures;
    std::vector<std::string> &remarks;
    std::vector<bytes> refused;
};

// returns: the parameter sets after start codes; empty unless there are both kinds
static bytes sets_of(std::span<const uint8_t> configuration)
{
    static constexpr uint8_t kStartCode[4] = {0, 0, 0, 1};
    static constexpr unsigned kKinds[] = {7, 8}; // nal_unit_type: SPS, PPS
    access_unit_converter converter;
    if (configuration.empty() || !access_unit_configure(converter, configuration)) {
        return {};
    }
    bytes sets;
    for (const unsigned kind : kKinds) {
        const auto is_kind = [=](const parameter_set &set) { return set.type == kind; };
        if (std::none_of(converter.sets.begin(), converter.sets.end(), is_kind)) {
            return {};
        }
    }
    for (const parameter_set &set : converter.sets) {
        sets.insert(sets.end(), std::begin(kStartCode), std::end(kStartCode));
        sets.insert(sets.end(), set.bytes.begin(), set.bytes.end());
    }
    return sets;
}

// returns: whether the configuration comes from a file that was recovered with a guess
static bool is_guess(std::span<const uint8_t> configuration)
{
    access_unit_converter converter;
    return !configuration.empty() && access_unit_configure(converter, configuration) &&
           std::any_of(converter.sets.begin(), converter.sets.end(), [](const parameter_set &set) {
               return parameter_set_is_written_here(set.bytes);
           });
}

// returns: parameter sets after start codes as a configuration for a file
static bytes configuration_of(const bytes &sets)
{
    access_unit_converter converter;
    access_unit_adopt_sets(converter, sets);
    return access_unit_configuration(converter);
}

static bool is_mp4(std::span<const uint8_t> image)
{
    static constexpr uint8_t kType[] = {'f', 't', 'y', 'p'};
    return image.size() >= 8 && std::equal(std::begin(kType), std::end(kType), &image[4]);
}

// returns: the avcC record of an MP4 file; empty when it has none
static bytes record_of(std::span<const uint8_t> image)
{
    const mp4_reader::movie movie =
        mp4_reader::read_movie(image, [](mp4_reader::track *, const mp4_reader::sample &) {});
    const mp4_reader::track *const video = mp4_reader::find_track(movie, "vide");
    return video != nullptr ? video->avc.record : bytes();
}

static std::string refusal_text(const trial_verdict &verdict)
{
    return verdict.damaged == 0
               ? "the decoder complains"
               : "the decoder finds " + std::to_string(verdict.damaged) + " of the first " +
                     std::to_string(verdict.pictures) + " pictures damaged";
}

// returns: whether the configuration fits
static bool accept(configuration_search &self, const bytes &configuration, const std::string &file,
                   bool is_named)
{
    const bytes sets = sets_of(configuration);
    const bool is_refused =
        std::find(self.refused.begin(), self.refused.end(), sets) != self.refused.end();
    if (sets.empty() || is_refused) {
        if (is_named && sets.empty()) {
            self.remarks.push_back(file + ": holds no sequence and picture parameter set");
        }
        return false;
    }
    const trial_verdict verdict = picture_trial_run(sets, self.pictures);
    if (is_accepted(verdict)) {
        return true;
    }
    self.refused.push_back(sets);
    self.remarks.push_back(file + ": its decoder configuration is not that of the recording: " +
                           refusal_text(verdict));
    return false;
}

static std::optional<found_configuration> take_named(configuration_search &self,
                                                     const std::string &path, bool only_mp4)
{
    const std::unique_ptr<mapped_file> file = mapped_file_open(path);
    const std::span<const uint8_t> image = file->bytes;
    found_configuration found = {.source = path};
    if (only_mp4 || is_mp4(image)) {
        found.bytes = record_of(image);
    } else {
        const bytes sets = sets_of(image.first(std::min(image.size(), kStreamBytesMax)));
        found.bytes = sets.empty() ? sets : configuration_of(sets);
    }
    if (!accept(self, found.bytes, path, true)) {
        return std::nullopt;
    }
    found.is_guess = is_guess(found.bytes);
    return found;
}

// returns: the MP4 files of the folder, the most recent first
static std::vector<fs::path> files_of(const std::string &folder)
{
    std::vector<std::pair<fs::file_time_type, fs::path>> dated;
    std::error_code error;
    for (fs::directory_iterator at(folder, error); !error && at != fs::directory_iterator();
         at.increment(error)) {
        std::error_code skipped;
        if (at->is_regular_file(skipped)) {
            const fs::path path = folder == "." ? at->path().filename() : at->path();
            dated.emplace_back(at->last_write_time(skipped), path);
        }
    }
    std::sort(dated.begin(), dated.end(), std::greater<>());
    std::vector<fs::path> files;
    for (const auto &[date, path] : dated) {
        files.push_back(path);
    }
    return files;
}

static std::optional<found_configuration> take_neighbour(configuration_search &self,
                                                         const broken_recording &broken)
{
    size_t read = 0;
    for (const fs::path &path : files_of(broken.neighbours)) {
        interruption_check();
        if (path == broken.path || read == kNeighboursMax) {
            continue;
        }
        try {
            const std::unique_ptr<mapped_file> file = mapped_file_open(path);
            if (!is_mp4(file->bytes)) {
                continue;
            }
            read++;
            found_configuration found = {.bytes = record_of(file->bytes), .source = path};
            if (is_guess(found.bytes)) {
                self.remarks.push_back(path.string() +
                                       ": its decoder configuration is a guess; not used");
            } else if (accept(self, found.bytes, path, false)) {
                return found;
            }
        } catch (const failure &) { // it is not the user's choice
        }
    }
    return std::nullopt;
}

static std::optional<found_configuration> make_guess(configuration_search &self)
{
    size_t trials = 0;
    const auto on_trial = [&] {
        interruption_check();
        if (trials++ % 64 == 0) {
            terminal_show_progress("Guessing the decoder configuration  " +
                                   std::to_string(trials - 1) + " tried");
        }
    };
    const std::optional<configuration_guess> guess =
        configuration_guess_make(self.pictures, on_trial);
    terminal_show_progress("");
    if (!guess || guess->verdict.damaged > guess->verdict.pictures / 3) {
        self.remarks.push_back("no decoder configuration could be guessed");
        return std::nullopt;
    }
    if (!is_accepted(guess->verdict)) {
        self.remarks.push_back("the guessed decoder configuration does not fit: " +
                               refusal_text(guess->verdict));
    }
    return found_configuration{.bytes = guess->sets,
                               .source = "a guess of " + std::to_string(guess->width) + " x " +
                                         std::to_string(guess->height) + " pixels",
                               .is_guess = true};
}

std::optional<found_configuration> recover_configuration_find(const recover_options &options,
                                                              const broken_recording &broken,
                                                              const picture_list &pictures,
                                                              std::vector<std::string> &remarks)
{
    configuration_search self = {.pictures = pictures, .remarks = remarks};
    std::optional<found_configuration> found;
    if (pictures.empty()) {
        return found;
    }
    if (!options.like.empty()) {
        found = take_named(self, options.like, true);
    }
    if (!found && !options.parameter_sets.empty()) {
        found = take_named(self, options.parameter_sets, false);
    }
    if (!found) {
        found = take_neighbour(self, broken);
    }
    if (!found && options.guess) {
        found = make_guess(self);
    }
    return found;
}
